// Operations that drop very many ranges, on a stack of 256 KiB.

#include <gtest/gtest.h>

#include "support/TestMap.h"

namespace {

constexpr int many = 300'000;

// A map of one level: at each further one a link would hold its nodes, and cut a chain of
// destructions short.
class Flat : public TestMap {
  public:
    explicit Flat(FakeJava& fake) : TestMap(fake, 1 << 30, 1) {}

    // Touching ranges of 10 bytes in `files` files in turn, those of one file in sequence. From the
    // last to the first: so the place of each is found at once.
    void fill(int first, int last, int files) {
        for (int i = last - 1; i >= first; --i) {
            insert(inFile(i * 10LL, 10, i * 10, 1, 2, i % files));
        }
    }
};

TEST(SmallStack, InsertReplacesManyRangesAndFusesWithBothNeighbours) {
    onSmallStack([] {
        FakeJava java;
        Flat map(java);
        map.insert(inFile(many * 10LL, 10, many * 10, 7));
        map.fill(1, many, 2);
        map.insert(inFile(0, 10, 0, 7));
        ASSERT_EQ(map->size, many + 1);
        map.insert(inFile(10, (many - 1) * 10, 10, 7));
        EXPECT_EQ(map->size, 1);
        EXPECT_EQ(map->validLen, (many + 1) * 10LL);
    });
}

TEST(SmallStack, RedirectedRangesFusePieceByPieceWithBothNeighbours) {
    onSmallStack([] {
        FakeJava java;
        Flat map(java);
        map.fill(0, 2 * many, 2);
        ASSERT_EQ(map->size, 2 * many);
        EXPECT_TRUE(
            map.compareAndSet(inFile(0, 2 * many * 10, 0, 1, 2, 1), inFile(0, 0, 0, 1, 2, 0)));
        EXPECT_EQ(map->size, 1);
        EXPECT_EQ(map->rawCount, 3 * many);
    });
}

TEST(SmallStack, MillionRangesAreDroppedByACopyAndByTheEndOfTheirMap) {
    onSmallStack([] {
        FakeJava java;
        Flat source(java);
        source.insert(inFile(0, 10'000'000, 0, 9));
        Flat map(java);
        map.fill(0, 1'000'000, 2);
        source->copyTo(&*map);
        EXPECT_EQ(map->size, 1);
        Flat destroyed(java);
        destroyed.fill(0, 1'000'000, 2);
    });
}

}  // namespace
