// Numbers at the edge of what their types hold, and ranges that are none: nothing is undefined, the
// links stay sound, and what has an answer gets the model's.

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "records/Wrapping.h"
#include "support/Faults.h"
#include "support/Native.h"
#include "support/TestMap.h"

namespace {

using namespace native;

constexpr long long lowest = std::numeric_limits<long long>::min();
constexpr long long highest = std::numeric_limits<long long>::max();
constexpr int smallest = std::numeric_limits<int>::min();
constexpr int largest = std::numeric_limits<int>::max();

TEST(Hostile, EveryFileNumberAndVersionReadsBackAsItWasStored) {
    FakeJava java;
    TestMap map(java, 512, 64);
    const std::vector<int> extremes{smallest, -1, 0, 1, largest};
    std::vector<Stored> stored;
    for (int number = 0; number < 256; ++number) {
        const auto extreme = [&](int i) { return extremes[static_cast<std::size_t>(i) % 5]; };
        stored.push_back(inFile(number * 10LL, 5, extreme(number), extreme(number / 5),
                                extreme(number / 25), number));
        map.insert(stored.back());
    }
    EXPECT_EQ(snapshotOf(*map).ranges, stored);
}

// Where the device begins and ends, and with the least and greatest of heights and sectors.
TEST(Hostile, MapEqualsItsModelAtBothEndsOfTheDevice) {
    constexpr int span = 4000;
    for (const long long base : {lowest, highest - span}) {
        for (const int sectorSize : {1, largest}) {
            for (const int height : {1, 64}) {
                FakeJava java;
                TestMap map(java, sectorSize, height);
                MapModel model(sectorSize);
                std::minstd_rand random(3);
                for (int i = 0; i < 500; ++i) {
                    const int start = static_cast<int>(random() % (span - 100));
                    const int len = 1 + static_cast<int>(random() % 100);
                    const Stored range =
                        inFile(base + start, len, start * 9, 1, static_cast<int>(random() % 2));
                    if (i % 3 == 0) {
                        model.insert(map.insertBuffered(range));
                    } else if (i % 7 == 0) {
                        Stored target = range;
                        target.fileOffset = static_cast<int>(random());
                        ASSERT_EQ(map.compareAndSet(range, target),
                                  model.compareAndSet(range, target));
                    } else {
                        map.insert(range);
                        model.insert(range);
                    }
                    ASSERT_EQ(snapshotOf(*map), model.state) << "base " << base << ", step " << i;
                }
            }
        }
    }
}

// What a search finds that goes down all levels. Where ranges are out of order, it is not always
// the first at level 0.
std::shared_ptr<Node> foundByLinks(const SkipList& map, long long key) {
    Node* node = map.head.get();
    for (int i = map.maxLevel; i >= 0; --i) {
        const auto goesOn = [&](const auto& next) {
            return next != map.tail && next->getEnd() <= key;
        };
        while (goesOn(node->next(i))) node = node->next(i).get();
    }
    return node->next(0);
}

TEST(Hostile, RangesThatAreNoneLeaveTheLinksSoundAndNothingBehind) {
    const long long chargedBefore = faults::chargedBytes();
    FakeJava java;
    JNIEnv* const env = java.env();
    const std::vector<long long> offsets{
        lowest,  lowest + 5, -100,          -1,          0,      1, 50, 100, 101,
        largest, 1LL << 40,  highest - 100, highest - 1, highest};
    const std::vector<int> lengths{smallest, -100, -50, -1, 0, 1, 50, 100, 101, largest};
    std::minstd_rand random(5);
    const auto any = [&](const auto& values) { return values[random() % values.size()]; };
    for (int round = 0; round < 40; ++round) {
        const int height = round % 2 == 0 ? 6 : 1;
        const jlong handle = createSkipList(env, nullptr, height, round % 3 == 0 ? largest : 1);
        SkipList& map = *SkipList::getSkipList(handle, nullptr);
        for (int i = 0; i < 200; ++i) {
            const long long offset = any(offsets);
            const int len = any(lengths);
            const int file = static_cast<int>(offset ^ static_cast<int>(random() % 2));
            switch (random() % 6) {
                case 0:
                    insert(env, nullptr, handle, offset, len, -1, -1, -1, 0);
                    break;
                case 1:
                    compareAndSet(env, nullptr, handle, offset, len, file, 1, 1, 1, any(lengths), 1,
                                  1, 1);
                    break;
                case 2:
                    compareAndRelease(env, nullptr, handle, offset, len, file, 1, 1, 1);
                    break;
                case 3:
                    insertWithBuff(env, nullptr, handle, offset, len, file, 1, 1, 1, nullptr);
                    break;
                default:
                    insert(env, nullptr, handle, offset, len, file, 1, 1, 1);
                    break;
            }
            getNodes(env, nullptr, handle, offset, len);
            const long long key = wrapping::add(offset, static_cast<int>(random() % 3) - 1);
            ASSERT_EQ(map.findEqualGreater(key), foundByLinks(map, key)) << "step " << i;
            const Snapshot found = snapshotOf(map);
            ASSERT_EQ(found.size, static_cast<int>(found.ranges.size())) << "step " << i;
            ASSERT_EQ(java.thrownClass, "");
        }
        destorySkipList(env, nullptr, handle);
    }
    EXPECT_EQ(faults::chargedBytes(), chargedBefore);
}

}  // namespace
