// Each kind of change with its n-th allocation failing, or its n-th charge refused, for every n.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

struct Change {
    std::string name;
    std::function<void(TestMap&)> fill;
    std::function<void(TestMap&)> change;
};

void fillGaps(TestMap& map) {
    map.insert(inFile(0, 100, 0));
    map.insertBuffered(inFile(200, 100, 0, 4));
    map.insert(inFile(400, 100, 400));
    map.insert(inFile(600, 100, -1, -1, -1));
    map.insertBuffered(inFile(800, 300, 0, 5));
}

const std::vector<Change>& changes() {
    static const std::vector<Change> all{
        {"into nothing", [](TestMap&) {}, [](TestMap& map) { map.insert(inFile(5, 5, 5)); }},
        {"fuse left", fillGaps, [](TestMap& map) { map.insert(inFile(100, 20, 100)); }},
        {"fuse right", fillGaps, [](TestMap& map) { map.insert(inFile(350, 50, 350)); }},
        {"fuse both", fillGaps, [](TestMap& map) { map.insert(inFile(100, 300, 100)); }},
        {"fuse empty", fillGaps, [](TestMap& map) { map.insert(inFile(700, 9, -1, -1, -1)); }},
        {"replace all", fillGaps, [](TestMap& map) { map.insert(inFile(0, 1200, 0, 9)); }},
        {"cut left", fillGaps, [](TestMap& map) { map.insertBuffered(inFile(150, 100, 0, 9)); }},
        {"cut right", fillGaps, [](TestMap& map) { map.insertBuffered(inFile(250, 100, 0, 9)); }},
        {"cut both", fillGaps, [](TestMap& map) { map.insertBuffered(inFile(250, 650, 0, 9)); }},
        {"split one", fillGaps, [](TestMap& map) { map.insertBuffered(inFile(900, 100, 0, 9)); }},
        {"extend over left", fillGaps, [](TestMap& map) { map.insert(inFile(50, 200, 50)); }},
        {"extend over right", fillGaps, [](TestMap& map) { map.insert(inFile(250, 200, 250)); }},
        {"join over gaps", fillGaps, [](TestMap& map) { map.insert(inFile(50, 400, 50)); }},
        {"redirect one", fillGaps,
         [](TestMap& map) { map.compareAndSet(inFile(0, 50, 0), inFile(0, 0, 7, 7, 7, 7)); }},
    };
    return all;
}

// What the change does when nothing fails.
Snapshot outcomeOf(const Change& change, FakeJava& java) {
    TestMap map(java);
    change.fill(map);
    change.change(map);
    return snapshotOf(*map);
}

// The buffers of two runs are different ones; what they hold of them must be the same.
Snapshot withoutMemories(Snapshot snapshot) {
    for (Stored& range : snapshot.ranges)
        range.memory = nullptr;
    return snapshot;
}

class Failures : public testing::TestWithParam<faults::Kind> {};

TEST_P(Failures, SingleChangeHappensWhollyOrNotAtAll) {
    int failed = 0;
    for (const Change& change : changes()) {
        bool reached = true;
        for (int n = 1; reached; ++n) {
            SCOPED_TRACE(change.name + ", fault " + std::to_string(n));
            const long long chargedBefore = faults::chargedBytes();
            FakeJava java;
            {
                const Snapshot after = withoutMemories(outcomeOf(change, java));
                TestMap map(java);
                change.fill(map);
                const Snapshot before = snapshotOf(*map);
                bool threw = false;
                {
                    const faults::Fault fault(GetParam(), n);
                    try {
                        change.change(map);
                    } catch (const std::bad_alloc&) {
                        threw = true;
                        ++failed;
                    }
                    reached = faults::Fault::reached();
                }
                if (threw) {
                    ASSERT_EQ(snapshotOf(*map), before);
                    change.change(map);
                }
                ASSERT_EQ(withoutMemories(snapshotOf(*map)), after);
            }
            ASSERT_EQ(faults::chargedBytes(), chargedBefore);
            // A buffer handle whose charge is refused does not give its reference back.
            const int kept = GetParam() == faults::Kind::charge ? 1 : 0;
            ASSERT_LE(java.globalRefs, kept);
            ASSERT_EQ(java.retained(), java.globalRefs);
            ASSERT_EQ(java.localRefs, 0);
        }
    }
    EXPECT_GT(failed, 100);
}

TEST_P(Failures, MapThatCannotBeMadeLeavesNothing) {
    bool reached = true;
    int n = 1;
    for (; reached; ++n) {
        FakeJava java;
        const long long chargedBefore = faults::chargedBytes();
        {
            const faults::Fault fault(GetParam(), n);
            try {
                TestMap map(java);
            } catch (const std::bad_alloc&) {
            }
            reached = faults::Fault::reached();
        }
        ASSERT_EQ(faults::chargedBytes(), chargedBefore) << "fault " << n;
    }
    EXPECT_GT(n, 10);
}

TEST_P(Failures, CopyKeepsAPrefixOfTheRanges) {
    bool reached = true;
    for (int n = 1; reached; ++n) {
        FakeJava java;
        TestMap source(java);
        fillGaps(source);
        const Snapshot before = snapshotOf(*source);
        TestMap copy(java);
        {
            const faults::Fault fault(GetParam(), n);
            try {
                source->copyTo(&*copy);
            } catch (const std::bad_alloc&) {
            }
            reached = faults::Fault::reached();
        }
        ASSERT_EQ(snapshotOf(*source), before);
        const std::vector<Stored> copied = snapshotOf(*copy).ranges;
        ASSERT_TRUE(std::equal(copied.begin(), copied.end(), before.ranges.begin())) << n;
    }
}

// A buffer that cannot be sliced: the Java call fails while ranges are being cut.
TEST(FailingJava, InsertThatCannotSliceABufferChangesNothing) {
    FakeJava java;
    TestMap map(java);
    fillGaps(map);
    const Snapshot before = snapshotOf(*map);
    const long long charged = faults::chargedBytes();
    for (const int slicesFirst : {0, 1}) {
        java.failSliceAfter = slicesFirst;
        testing::internal::CaptureStderr();
        EXPECT_THROW(map.insert(inFile(250, 650, 0, 9)), std::runtime_error);
        testing::internal::GetCapturedStderr();
        java.failSliceAfter = -1;
        EXPECT_EQ(snapshotOf(*map), before);
        EXPECT_EQ(faults::chargedBytes(), charged);
    }
    EXPECT_EQ(java.globalRefs, 2);
    EXPECT_EQ(java.retained(), 2);
}

INSTANTIATE_TEST_SUITE_P(Faults, Failures,
                         testing::Values(faults::Kind::allocation, faults::Kind::allocationsFrom,
                                         faults::Kind::charge),
                         [](const auto& test) {
                             switch (test.param) {
                                 case faults::Kind::allocation:
                                     return "OneAllocation";
                                 case faults::Kind::allocationsFrom:
                                     return "AllAllocationsFrom";
                                 default:
                                     return "Charge";
                             }
                         });

}  // namespace
