#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "memory/Memorystatistics.h"
#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

constexpr int longest = std::numeric_limits<int>::max();

class Insert : public testing::Test {
  protected:
    ~Insert() override {
        map.map.reset();
        map.env.reset();
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
        EXPECT_EQ(java.globalRefs, 0);
        EXPECT_EQ(java.retained(), 0);
    }

    std::vector<Stored> ranges() { return snapshotOf(*map).ranges; }

    long long chargedBefore = faults::chargedBytes();
    FakeJava java;
    TestMap map{java};
};

using Ranges = std::vector<Stored>;

TEST_F(Insert, SequentialWritesToOneFileStayOneRange) {
    for (int i = 0; i < 100; ++i) map.insert(inFile(i * 512LL, 512, i * 520));
    EXPECT_EQ(ranges(), (Ranges{inFile(0, 51200, 0)}));
    EXPECT_EQ(map->rawCount, 100);
    EXPECT_EQ(map->rawLen, 51200);
    EXPECT_EQ(map->validLen, 51200);
}

TEST_F(Insert, NeighboursFuseOnlyWhereFileAndDeviceRunTogether) {
    const Stored stored = inFile(100, 100, 1000);
    for (const Stored& apart :
         {inFile(200, 100, 1101), inFile(200, 100, 1100, 9), inFile(200, 100, 1100, 1, 9),
          inFile(200, 100, 1100, 1, 2, 9), inFile(201, 100, 1101)}) {
        TestMap fresh(java);
        fresh.insert(stored);
        fresh.insert(apart);
        EXPECT_EQ(snapshotOf(*fresh).ranges, (Ranges{stored, apart}));
    }
    map.insert(stored);
    map.insert(inFile(200, 1, 1100));
    EXPECT_EQ(ranges(), (Ranges{inFile(100, 101, 1000)}));
    map.insert(inFile(50, 50, 950));
    EXPECT_EQ(ranges(), (Ranges{inFile(50, 151, 950)}));
}

TEST_F(Insert, RangeBetweenTwoConnectedNeighboursFusesAllThree) {
    map.insert(inFile(0, 100, 0));
    map.insert(inFile(200, 100, 200));
    map.insert(inFile(100, 100, 100));
    EXPECT_EQ(ranges(), (Ranges{inFile(0, 300, 0)}));
    EXPECT_EQ(map->validLen, 300);
    EXPECT_EQ(map->rawLen, 300);
}

TEST_F(Insert, EmptyLocationsFuseWithEmptyOnesOnly) {
    map.insert(inFile(0, 100, -1, -1, -1, 7));
    map.insert(inFile(100, 100, -1, -1, -1, 9));
    map.insert(inFile(200, 100, 200));
    EXPECT_EQ(ranges(), (Ranges{inFile(0, 200, -1, -1, -1, 7), inFile(200, 100, 200)}));
    // The rest of an empty range that is cut is no longer empty.
    map.insert(inFile(0, 50, 5));
    EXPECT_EQ(ranges()[1], inFile(50, 150, -1 + 50, -1, -1, 7));
}

TEST_F(Insert, EmptyAndStoredLocationsAreConnectedByTestsOfTheirOwn) {
    const auto index = Index::create(0, 100);
    const auto data = Data::create(0, 0, 1, 2, 3);
    const auto empty = Data::createEmpty();
    for (const auto& [offset, touches] :
         {std::pair{100, true}, {101, false}, {-50, true}, {-51, false}}) {
        const auto other = Index::create(offset, 50);
        const auto location = Data::create(0, offset, 1, 2, 3);
        EXPECT_EQ(map->isDataConnected(other, location, index, data), touches) << offset;
        EXPECT_EQ(map->isEmptyDataConnected(other, empty, index, empty), touches) << offset;
        EXPECT_EQ(map->isConnected(other, location, index, data), touches) << offset;
        EXPECT_FALSE(map->isConnected(other, empty, index, data)) << offset;
    }
}

TEST_F(Insert, BufferedRangesAreCutWithTheirBuffersAndNeverFuse) {
    const Stored all = map.insertBuffered(inFile(0, 1024, 0));
    const Stored middle = map.insertBuffered(inFile(512, 256, 520));
    Stored left = all;
    left.len = left.bufferLength = 512;
    Stored right = all;
    right.offset = right.bufferStart = 768;
    right.len = right.bufferLength = 256;
    right.fileOffset = 768 + 8;
    EXPECT_EQ(ranges(), (Ranges{left, middle, right}));
    EXPECT_EQ(java.globalRefs, 3);
    map.insert(inFile(0, 1024, 0, 9));
    EXPECT_EQ(java.globalRefs, 0);
}

TEST_F(Insert, MapIsWholeWheneverJavaGetsABufferBack) {
    int released = 0;
    java.onRelease = [&] {
        ++released;
        const Ranges now = ranges();
        ASSERT_EQ(static_cast<int>(now.size()), map->size);
        for (std::size_t i = 1; i < now.size(); ++i) ASSERT_LE(now[i - 1].end(), now[i].offset);
    };
    std::minstd_rand random(1);
    for (int i = 0; i < 300; ++i) {
        const int offset = static_cast<int>(random() % 1000);
        map.insertBuffered(inFile(offset, 1 + static_cast<int>(random() % 200), 2000 * i));
    }
    EXPECT_GT(released, 300);
    java.onRelease = nullptr;
}

TEST_F(Insert, InsertIsRefusedAlikeWhetherItNeedsANodeOrNot) {
    map.insert(inFile(0, 100, 0));
    const Snapshot before = snapshotOf(*map);
    MemoryStat::setMaxMem(MemoryStat::getStatisInfo()[6] + 47);
    for (const Stored& refused : {inFile(0, 100, 0, 9), inFile(100, 100, 100), inFile(500, 1, 0)}) {
        EXPECT_THROW(map.insert(refused), jni_bad_alloc);
    }
    MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
    EXPECT_EQ(snapshotOf(*map), before);
}

TEST_F(Insert, PlaceOfTheLastInsertIsNotTrustedAmongRangesOutOfOrder) {
    TestMap flat(java, 512, 1);
    flat.insert(inFile(0, 100, 0));
    flat.insert(inFile(50, -20, 7));  // ends at 30, behind a range that ends at 50
    MemoryStat::setMaxMem(MemoryStat::getStatisInfo()[6] + 47);  // refuses a node
    EXPECT_THROW(flat.insert(inFile(60, 5, 8)), jni_bad_alloc);
    MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
    flat.insert(inFile(40, 5, 9));
    EXPECT_EQ(snapshotOf(*flat).ranges[1], inFile(40, 5, 9));
}

TEST_F(Insert, GapsAreNotCountedWhereOneEndOnlyIsInsideAStoredRange) {
    map.insert(inFile(0, 10, 0));
    map.insert(inFile(20, 10, 0, 4));
    map.insert(inFile(0, 25, 0, 5));
    EXPECT_EQ(map->validLen, 20);
    map.insert(inFile(40, 10, 0));
    map.insert(inFile(5, 37, 0, 6));
    EXPECT_EQ(map->validLen, 20 + 10 + 10) << "the gap [30, 40) lies between the two ends";
    map.insert(inFile(0, 60, 0, 7));
    EXPECT_EQ(map->validLen, 40 + 10);
}

TEST_F(Insert, ZeroLengthNeighbourIsNotReplacedAndKeepsItsLocation) {
    map.insert(inFile(100, 0, 50));
    map.insert(inFile(100, 10, 50));
    EXPECT_EQ(ranges(), (Ranges{inFile(100, 0, 50), inFile(100, 10, 50)}));
    // It stands between the two, which do not touch each other's node.
    map.insert(inFile(90, 10, 40));
    EXPECT_EQ(ranges(), (Ranges{inFile(90, 10, 40), inFile(100, 0, 50), inFile(100, 10, 50)}));
}

TEST_F(Insert, FusionThatDoesNotFitIntoThirtyTwoBitsIsNotMade) {
    map.insert(inFile(0, longest - 5, -1, -1, -1, 1));
    map.insert(inFile(longest - 5LL, 5, -1, -1, -1, 2));
    EXPECT_EQ(ranges(), (Ranges{inFile(0, longest, -1, -1, -1, 1)}));
    map.insert(inFile(longest, 5, -1, -1, -1, 3));
    EXPECT_EQ(map->size, 2);
    // The right neighbour fits although the left one does not.
    map.insert(inFile(longest + 10LL, 5, -1, -1, -1, 4));
    map.insert(inFile(longest + 5LL, 5, -1, -1, -1, 5));
    EXPECT_EQ(ranges().back(), inFile(longest, 15, -1, -1, -1, 3));

    // Covering the left part of a connected range refuses just the one length.
    TestMap other(java);
    other.insert(inFile(10, longest - 10, -1, -1, -1, 1));
    other.insert(inFile(0, 20, -1, -1, -1, 2));
    EXPECT_EQ(other->size, 2);
}

TEST_F(Insert, RangesAtBothEndsOfTheDeviceAreStoredAndFound) {
    constexpr long long lowest = std::numeric_limits<long long>::min();
    constexpr long long highest = std::numeric_limits<long long>::max();
    map.insert(inFile(lowest, 10, 0));
    map.insert(inFile(highest - 10, 10, 0, 7));
    map.insert(inFile(highest - 5, 100, 5, 8));  // its end lies beyond 64 bits
    map.insert(inFile(lowest + 5, -3, 5, 8));
    EXPECT_EQ(map->findEqualGreater(lowest)->getOffset(), lowest);
}

Stored randomRange(std::minstd_rand& random, int sectorSize) {
    const int unit = random() % 4 == 0 ? 1 : sectorSize;
    const long long offset = static_cast<long long>(random() % 64) * unit;
    const int len = static_cast<int>(1 + random() % 12) * unit;
    if (random() % 8 == 0) return inFile(offset, len, -1, -1, -1, static_cast<int>(random() % 2));
    // Ranges with the same numbers lie in one file that runs along with the device.
    const int number = static_cast<int>(random() % 3);
    return inFile(offset, len, static_cast<int>(Data::fileDistance(offset, sectorSize)), 1,
                  static_cast<int>(random() % 2), number);
}

// One random operation on the map and its model.
void step(std::minstd_rand& random, int sectorSize, TestMap& map, MapModel& model, TestMap& other,
          MapModel& otherModel) {
    const Stored range = randomRange(random, sectorSize);
    const auto kind = random() % 100;
    if (kind < 45 || (kind < 70 && range.isEmpty())) {
        map.insert(range);
        model.insert(range);
    } else if (kind < 70) {
        model.insert(map.insertBuffered(range));
    } else if (kind < 85) {
        const Stored target = randomRange(random, sectorSize);
        ASSERT_EQ(map.compareAndSet(range, target), model.compareAndSet(range, [&] {
            Stored redirected = target;
            redirected.offset = range.offset;
            return redirected;
        }()));
    } else if (kind < 97) {
        ASSERT_EQ(map.compareAndRelease(range), model.compareAndRelease(range));
    } else if (kind == 97) {
        ASSERT_EQ(map->release(), model.release());
    } else {
        map->copyTo(&*other);
        model.copyTo(otherModel);
        ASSERT_EQ(snapshotOf(*other), otherModel.state);
    }
}

TEST(RandomOperations, MapEqualsItsModelAfterEachOne) {
    for (const int sectorSize : {1, 8, 512, 4096}) {
        const long long chargedBefore = faults::chargedBytes();
        FakeJava java;
        std::minstd_rand random(static_cast<unsigned>(20261121 + sectorSize));
        for (int round = 0; round < 20; ++round) {
            const int height = 1 + round % 5;
            TestMap map(java, sectorSize, height);
            TestMap other(java, sectorSize, 5 - round % 5);
            MapModel model(sectorSize);
            MapModel otherModel(sectorSize);
            for (int i = 0; i < 500; ++i) {
                step(random, sectorSize, map, model, other, otherModel);
                ASSERT_EQ(snapshotOf(*map), model.state)
                    << "sector size " << sectorSize << ", round " << round << ", step " << i;
            }
        }
        EXPECT_EQ(java.globalRefs, 0);
        EXPECT_EQ(java.localRefs, 0);
        EXPECT_EQ(java.retained(), 0);
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
    }
}

}  // namespace
