// Operations that drop very many ranges, on a stack of 256 KiB.

#include <gtest/gtest.h>

#include "support/TestMap.h"

namespace {

constexpr int many = 300'000;

// Touching ranges of 10 bytes that do not fuse.
void fillApart(TestMap& map, int first, int last) {
    for (int i = first; i < last; ++i)
        map.insert(inFile(i * 10LL, 10, 0, i % 2));
}

TEST(SmallStack, InsertReplacesManyRangesAndFusesWithBothNeighbours) {
    onSmallStack([] {
        FakeJava java;
        TestMap map(java, 1 << 30, 12);
        map.insert(inFile(0, 10, 0, 7));
        fillApart(map, 1, many);
        map.insert(inFile(many * 10LL, 10, many * 10, 7));
        map.insert(inFile(10, (many - 1) * 10, 10, 7));
        EXPECT_EQ(map->size, 1);
        EXPECT_EQ(map->validLen, (many + 1) * 10LL);
    });
}

TEST(SmallStack, RedirectedRangesFusePieceByPiece) {
    onSmallStack([] {
        FakeJava java;
        TestMap map(java, 1 << 30, 12);
        map.insert(inFile(0, 10, 0, 7));
        // All in one place per version, so that a redirected one continues the one before it.
        for (int i = 1; i < many; ++i)
            map.insert(inFile(i * 10LL, 10, i * 10, 5 + i % 2));
        EXPECT_EQ(map->size, many);
        for (const int version : {5, 6}) {
            EXPECT_TRUE(
                map.compareAndSet(inFile(10, (many - 1) * 10, 10, version), inFile(0, 0, 10, 7)));
        }
        EXPECT_EQ(map->size, 1);
    });
}

TEST(SmallStack, MillionRangesAreCopiedOverAndDestroyed) {
    onSmallStack([] {
        FakeJava java;
        TestMap source(java, 512, 12);
        source.insert(inFile(0, 10'000'000, 0, 9));
        TestMap map(java, 512, 12);
        fillApart(map, 0, 1'000'000);
        TestMap copy(java, 512, 12);
        map->copyTo(&*copy);
        EXPECT_EQ(copy->size, 1'000'000);
        source->copyTo(&*map);
        EXPECT_EQ(map->size, 1);
    });
}

}  // namespace
