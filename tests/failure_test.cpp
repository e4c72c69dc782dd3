// Each native method that changes something, on maps of every shape, with its n-th allocation, its
// n-th charge, its n-th slice or its n-th global reference failing, for every n until the call gets
// through.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>

#include "support/Faults.h"
#include "support/Native.h"
#include "support/TestMap.h"

namespace {

using namespace native;

enum class Failing { oneAllocation, allAllocationsFrom, charge, slice, globalReference };

// A map and its model, kept in step.
struct Pair {
    explicit Pair(FakeJava& java) : map(java), model(512) {}

    void insert(const Stored& range) {
        map.insert(range);
        model.insert(range);
    }
    void insertBuffered(const Stored& range) { model.insert(map.insertBuffered(range)); }
    jlong handle() { return reinterpret_cast<jlong>(&*map); }

    TestMap map;
    MapModel model;
};

struct Shape {
    std::string name;
    std::function<void(Pair&)> fill;
};

// What a call may leave in its map, by the number of pieces that it got done.
using Outcomes = std::vector<Snapshot>;

// A change of one map; the other one holds what is copied.
struct Change {
    std::string name;
    std::function<void(FakeJava&, Pair& map, Pair& other)> call;
    std::function<void(MapModel& model, const MapModel& other, std::size_t limit)> outcome;
    std::size_t pieces;
};

const std::vector<Shape>& shapes() {
    static const std::vector<Shape> all{
        {"empty", [](Pair&) {}},
        {"one range", [](Pair& map) { map.insert(inFile(0, 1200, 0)); }},
        {"one buffer", [](Pair& map) { map.insertBuffered(inFile(0, 1200, 0, 4)); }},
        {"gaps",
         [](Pair& map) {
             map.insert(inFile(0, 100, 0));
             map.insertBuffered(inFile(200, 100, 0, 4));
             map.insert(inFile(400, 100, 400));
             map.insert(inFile(600, 100, -1, -1, -1));
             map.insertBuffered(inFile(800, 300, 0, 5));
         }},
        {"edge to edge",
         [](Pair& map) {
             for (int i = 0; i < 12; ++i) map.insert(inFile(i * 100, 100, i * 100 + i % 2));
         }},
        {"buffers edge to edge",
         [](Pair& map) {
             for (int i = 0; i < 12; ++i) map.insertBuffered(inFile(i * 100, 100, i * 100));
         }},
    };
    return all;
}

Change inserting(const std::string& name, const Stored& range) {
    return {name,
            [range](FakeJava& java, Pair& map, Pair&) {
                insert(java.env(), nullptr, map.handle(), range.offset, range.len, range.fileOffset,
                       range.majorVer, range.minorVer, static_cast<jbyte>(range.number));
            },
            [range](MapModel& model, const MapModel&, std::size_t limit) {
                if (limit > 0) model.insert(range);
            },
            1};
}

Change buffering(const std::string& name, Stored range) {
    return {name,
            [range](FakeJava& java, Pair& map, Pair&) {
                insertWithBuff(java.env(), nullptr, map.handle(), range.offset, range.len,
                               range.fileOffset, range.majorVer, range.minorVer,
                               static_cast<jbyte>(range.number), java.newBuffer(range.len));
            },
            [range](MapModel& model, const MapModel&, std::size_t limit) {
                static FakeJava::Memory any;
                Stored buffered = range;
                buffered.type = true;
                buffered.memory = &any;
                buffered.bufferLength = range.len;
                if (limit > 0) model.insert(buffered);
            },
            1};
}

const std::vector<Change>& changes() {
    static const Stored from = inFile(50, 1000, 50);
    static const std::vector<Change> all{
        inserting("fuse left", inFile(100, 20, 100)),
        inserting("fuse right", inFile(350, 50, 350)),
        inserting("fuse both", inFile(100, 300, 100)),
        inserting("empty location", inFile(700, 9, -1, -1, -1)),
        inserting("over all", inFile(0, 1200, 0, 9)),
        inserting("extend over both ends", inFile(50, 400, 50)),
        buffering("into the middle", inFile(450, 100, 0, 9)),
        buffering("over several", inFile(250, 650, 0, 9)),
        {"redirect",
         [](FakeJava& java, Pair& map, Pair&) {
             compareAndSet(java.env(), nullptr, map.handle(), from.offset, from.len,
                           from.fileOffset, from.majorVer, from.minorVer,
                           static_cast<jbyte>(from.number), 7, 7, 7, 7);
         },
         [](MapModel& model, const MapModel&, std::size_t limit) {
             model.compareAndSet(from, inFile(from.offset, 0, 7, 7, 7, 7), limit);
         },
         12},
        {"copy",
         [](FakeJava& java, Pair& map, Pair& other) {
             copySkipList(java.env(), nullptr, other.handle(), map.handle());
         },
         [](MapModel& model, const MapModel& other, std::size_t limit) {
             other.copyTo(model, limit);
         },
         12},
        {"release what lies where expected",
         [](FakeJava& java, Pair& map, Pair&) {
             compareAndRelease(java.env(), nullptr, map.handle(), 0, 1200, 0, 1, 2, 3);
         },
         [](MapModel& model, const MapModel&, std::size_t limit) {
             if (limit > 0) model.compareAndRelease(inFile(0, 1200, 0));
         },
         1},
        {"release all",
         [](FakeJava& java, Pair& map, Pair&) { release(java.env(), nullptr, map.handle()); },
         [](MapModel& model, const MapModel&, std::size_t limit) {
             if (limit > 0) model.release();
         },
         1},
    };
    return all;
}

// The buffers of a map and of its model are different ones. What they hold must be the same, but
// for the buffer whose global reference could not be made: its range then has none.
Snapshot comparable(Snapshot snapshot, bool withBuffers) {
    for (Stored& range : snapshot.ranges) {
        range.memory = nullptr;
        if (!withBuffers) range.bufferStart = range.bufferLength = 0;
    }
    return snapshot;
}

class Injection {
  public:
    Injection(FakeJava& fake, Failing failing, int n) : java(fake) {
        if (failing == Failing::slice) fake.failSliceAfter = n - 1;
        if (failing == Failing::globalReference) fake.failGlobalRefAfter = n - 1;
        if (failing <= Failing::charge) fault.emplace(static_cast<faults::Kind>(failing), n);
    }
    ~Injection() { java.failSliceAfter = java.failGlobalRefAfter = -1; }
    Injection(const Injection&) = delete;
    Injection& operator=(const Injection&) = delete;

    bool reached() const {
        if (fault.has_value()) return faults::Fault::reached();
        return java.failSliceAfter == -1 && java.failGlobalRefAfter == -1;
    }

  private:
    FakeJava& java;
    std::optional<faults::Fault> fault;
};

class Failures : public testing::TestWithParam<Failing> {
  protected:
    // Runs the change with the n-th fault; false once it gets through without meeting it.
    bool failsAt(int n, const Shape& shape, const Change& change) {
        const long long chargedBefore = faults::chargedBytes();
        FakeJava java;
        bool reached = false;
        {
            Pair map(java);
            Pair other(java);
            shape.fill(map);
            shapes()[3].fill(other);
            const Outcomes outcomes = outcomesOf(change, map.model, other.model);
            {
                const Injection injection(java, GetParam(), n);
                change.call(java, map, other);
                reached = injection.reached();
            }
            const bool threw = !java.thrownClass.empty();
            if (threw) ++failures;
            const Snapshot found = comparable(snapshotOf(*map.map), comparesBuffers());
            if (threw) {
                EXPECT_NE(std::find(outcomes.begin(), outcomes.end(), found), outcomes.end())
                    << "neither as before nor as after any number of pieces: " << found;
            } else {
                EXPECT_EQ(found, outcomes.back());
            }
            map.map.insert(inFile(300, 300, 0, 8));  // the map goes on working
            snapshotOf(*map.map);
        }
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
        EXPECT_EQ(java.localRefs, 0);
        // Only a handle whose charge is refused keeps its reference.
        EXPECT_LE(java.globalRefs, GetParam() == Failing::charge && reached ? 1 : 0);
        EXPECT_EQ(java.retained(), java.globalRefs);
        return reached;
    }

    Outcomes outcomesOf(const Change& change, const MapModel& model, const MapModel& other) const {
        Outcomes outcomes;
        for (std::size_t done = 0; done <= change.pieces; ++done) {
            MapModel part = model;
            change.outcome(part, other, done);
            outcomes.push_back(comparable(part.state, comparesBuffers()));
        }
        return outcomes;
    }

    static bool comparesBuffers() { return GetParam() != Failing::globalReference; }

    int failures = 0;

  private:
    // Each node is an allocation, so that each can fail, and its charges can.
    const SlabSizes slabSizes{true};
};

TEST_P(Failures, ChangeHappensWhollyOrNotAtAllOrPieceByPiece) {
    testing::internal::CaptureStderr();
    for (const Shape& shape : shapes()) {
        for (const Change& change : changes()) {
            for (int n = 1; !HasFailure(); ++n) {
                SCOPED_TRACE(shape.name + ", " + change.name + ", fault " + std::to_string(n));
                if (!failsAt(n, shape, change)) break;
            }
        }
    }
    testing::internal::GetCapturedStderr();
    // A missing global reference is no failure: the range is stored, and reads as given back.
    EXPECT_GE(failures, comparesBuffers() ? 20 : 0);
}

TEST_P(Failures, MapThatCannotBeMadeLeavesNothing) {
    testing::internal::CaptureStderr();
    bool reached = true;
    for (int n = 1; reached; ++n) {
        FakeJava java;
        const long long chargedBefore = faults::chargedBytes();
        jlong handle = 0;
        {
            const Injection injection(java, GetParam(), n);
            handle = createSkipList(java.env(), nullptr, 4, 512);
            reached = injection.reached();
        }
        EXPECT_EQ(handle, reached ? -3 : handle);
        if (handle > 0) destorySkipList(java.env(), nullptr, handle);
        ASSERT_EQ(faults::chargedBytes(), chargedBefore) << "fault " << n;
    }
    testing::internal::GetCapturedStderr();
}

TEST_P(Failures, DestroyingNeedsNothingThatCouldFail) {
    const long long chargedBefore = faults::chargedBytes();
    FakeJava java;
    const jlong handle = createSkipList(java.env(), nullptr, 4, 512);
    insertWithBuff(java.env(), nullptr, handle, 0, 10, 0, 1, 2, 3, java.newBuffer(10));
    {
        const Injection injection(java, GetParam(), 1);
        destorySkipList(java.env(), nullptr, handle);
    }
    EXPECT_EQ(faults::chargedBytes(), chargedBefore);
    EXPECT_EQ(java.retained(), 0);
}

std::string nameOf(const testing::TestParamInfo<Failing>& test) {
    static const char* const names[] = {"OneAllocation", "AllAllocationsFrom", "Charge", "Slice",
                                        "GlobalReference"};
    return names[static_cast<int>(test.param)];
}

INSTANTIATE_TEST_SUITE_P(Of, Failures,
                         testing::Values(Failing::oneAllocation, Failing::allAllocationsFrom,
                                         Failing::charge, Failing::slice, Failing::globalReference),
                         nameOf);

}  // namespace
