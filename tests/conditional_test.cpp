#include <gtest/gtest.h>

#include "support/TestMap.h"

namespace {

using Ranges = std::vector<Stored>;

class Conditional : public testing::Test {
  protected:
    FakeJava java;
    TestMap map{java};
};

TEST_F(Conditional, SetRedirectsThePartThatStillLiesWhereExpected) {
    map.insert(inFile(0, 1024, 0));
    EXPECT_FALSE(map.compareAndSet(inFile(512, 256, 8), inFile(0, 0, 0, 5, 5, 7)));
    EXPECT_EQ(map->rawCount, 1);
    EXPECT_TRUE(map.compareAndSet(inFile(512, 256, 520), inFile(0, 0, 0, 5, 5, 7)));
    EXPECT_EQ(snapshotOf(*map).ranges,
              (Ranges{inFile(0, 512, 0), inFile(512, 256, 0, 5, 5, 7), inFile(768, 256, 776)}));
    EXPECT_EQ(map->rawCount, 2);
    EXPECT_EQ(map->rawLen, 1024 + 256);
}

TEST_F(Conditional, SetLeavesWhatHasChangedMeanwhile) {
    map.insert(inFile(0, 100, 0));
    map.insert(inFile(100, 100, 5000, 9, 9, 9));
    map.insert(inFile(200, 100, 200));
    map.insertBuffered(inFile(300, 100, 300));
    EXPECT_TRUE(map.compareAndSet(inFile(0, 400, 0), inFile(0, 0, 8192, 4, 4, 4)));
    const Ranges ranges = snapshotOf(*map).ranges;
    EXPECT_EQ(ranges[0], inFile(0, 100, 8192, 4, 4, 4));
    EXPECT_EQ(ranges[1], inFile(100, 100, 5000, 9, 9, 9));
    EXPECT_EQ(ranges[2], inFile(200, 100, 8392, 4, 4, 4));
    EXPECT_TRUE(ranges[3].type);
    EXPECT_EQ(map->rawCount, 4 + 2);
}

TEST_F(Conditional, ReleaseTakesWholeRangesOfAnyTypeAndKeepsTheirLocations) {
    map.insertBuffered(inFile(0, 1024, 0));
    EXPECT_EQ(map.compareAndRelease(inFile(0, 512, 0)), 0);
    EXPECT_EQ(map.compareAndRelease(inFile(512, 4096, 520)), 0);
    EXPECT_EQ(map.compareAndRelease(inFile(0, 2048, 0, 1, 3)), 0);
    EXPECT_EQ(map.compareAndRelease(inFile(0, 2048, 0)), 1024);
    EXPECT_EQ(map.compareAndRelease(inFile(0, 2048, 0)), 0);
    EXPECT_EQ(java.retained(), 0);
    EXPECT_EQ(snapshotOf(*map).ranges, (Ranges{{0, 1024, true, 3, 0, 1, 2}}));
    EXPECT_EQ(map->validLen, 1024);
}

TEST_F(Conditional, CopiedBufferIsGivenBackThroughTheDestinationsEnvironment) {
    TestMap copy(java, 512, 4, java.otherEnv());
    map.insertBuffered(inFile(0, 100, 0));
    map->copyTo(&*copy);
    EXPECT_EQ(java.retained(), 2);
    EXPECT_EQ(map->release(), 100);
    EXPECT_EQ(java.lastReleaser, java.env());
    EXPECT_EQ(copy->release(), 100);
    EXPECT_EQ(java.lastReleaser, java.otherEnv());
}

TEST_F(Conditional, RecordsServeLikeNumbers) {
    auto index = Index::create(0, 100);
    auto stored = Data::create(0, 0, 1, 2, 3);
    map->insert(index, stored);
    auto expected = Data::create(0, 0, 1, 2, 3);
    auto moved = Data::create(0, 500, 9, 2, 3);
    EXPECT_TRUE(map->compareAndSet(index, expected, moved));
    EXPECT_EQ(snapshotOf(*map).ranges, (std::vector<Stored>{inFile(0, 100, 500, 9)}));
    EXPECT_FALSE(map->compareAndSet(index, expected, moved));
}

TEST_F(Conditional, MapCopiedIntoItselfStaysAsItIs) {
    for (int i = 0; i < 20; ++i) map.insert(inFile(i * 10LL, 10, i * 10 + i % 3));
    map.insertBuffered(inFile(500, 100, 0));
    const Snapshot before = snapshotOf(*map);
    map->copyTo(&*map);
    EXPECT_EQ(snapshotOf(*map).ranges, before.ranges);
    EXPECT_EQ(java.retained(), 1);
}

TEST_F(Conditional, MapCopiedIntoItselfMayFuseTheRangeBeingCopied) {
    // The last two continue each other only since the first two became one range.
    map.insert(inFile(600, 100, 608));
    map.insert(inFile(0, 300, 0));
    map.insert(inFile(300, 300, 300));
    ASSERT_EQ(map->size, 2);
    map->copyTo(&*map);
    EXPECT_EQ(snapshotOf(*map).ranges, (std::vector<Stored>{inFile(0, 700, 0)}));
}

}  // namespace
