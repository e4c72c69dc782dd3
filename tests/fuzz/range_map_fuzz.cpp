// Coverage-guided fuzzing of the native methods: the input is a sequence of calls on two maps with
// stand-in buffers, and after each call both maps must be sound and equal to a naive model.
//
// Some calls run with an allocation failing or a charge refused. One that inserts a single range
// must then have changed nothing; the others may have got part of the way.

#include <fuzzer/FuzzedDataProvider.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "records/Buff.h"
#include "support/Faults.h"
#include "support/MapModel.h"
#include "support/Native.h"

namespace {

using namespace native;

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

class Session {
  public:
    explicit Session(FuzzedDataProvider& bytes)
        : input(bytes), sectorSize(input.PickValueInArray({1, 8, 512, 4096})) {
        maps[0].emplace(*this);
        maps[1].emplace(*this);
    }

    void run() {
        while (input.remaining_bytes() > 0) step();
        for (auto& map : maps) map.reset();
        require(java.localRefs == 0, "local references left");
        require(java.globalRefs == lostReferences, "global references left");
        require(java.retained() == lostReferences, "buffers left");
    }

  private:
    struct Map {
        explicit Map(Session& owner)
            : session(owner),
              handle(createSkipList(owner.java.env(), nullptr,
                                    owner.input.ConsumeIntegralInRange(1, 6), owner.sectorSize)),
              model(owner.sectorSize) {
            list().engine->seed(owner.input.ConsumeIntegral<unsigned char>());
        }
        ~Map() { destorySkipList(session.java.env(), nullptr, handle); }

        SkipList& list() const { return *SkipList::getSkipList(handle, nullptr); }
        void requireEqualToModel() const {
            require(snapshotOf(list()) == model.state, "map and model differ");
        }

        Session& session;
        jlong handle;
        MapModel model;
    };

    // A range somewhere in one of a few files that run along with the device.
    Stored range() {
        const int unit = input.ConsumeBool() ? sectorSize : 1;
        Stored range{};
        range.offset = input.ConsumeIntegralInRange<long long>(0, 64) * unit;
        range.len = input.ConsumeIntegralInRange(1, 24) * unit;
        range.number = input.ConsumeIntegralInRange(0, 2);
        range.minorVer = input.ConsumeIntegralInRange(0, 2);
        range.fileOffset = static_cast<int>(Data::fileDistance(range.offset, sectorSize));
        if (range.minorVer == 2) range.fileOffset = range.majorVer = range.minorVer = -1;
        return range;
    }

    void step() {
        Map& map = *maps[input.ConsumeBool() ? 1 : 0];
        Map& other = &map == &*maps[0] ? *maps[1] : *maps[0];
        switch (input.ConsumeIntegralInRange(0, 8)) {
            case 0:
            case 1:
                insertInto(map, range(), nullptr);
                break;
            case 2:
                insertBuffered(map, range());
                break;
            case 3:
                redirect(map, range(), range());
                break;
            case 4:
                releaseSome(map, range());
                break;
            case 5:
                query(map, range());
                break;
            case 6:
                require(release(java.env(), nullptr, map.handle) == map.model.release(), "release");
                break;
            case 7:
                copy(map, other);
                break;
            default:
                replaceMap(&map == &*maps[0] ? maps[0] : maps[1]);
                break;
        }
        maps[0]->requireEqualToModel();
        maps[1]->requireEqualToModel();
    }

    // Runs a call, perhaps with a fault; true if it was done.
    template <typename Call>
    bool succeeds(Call call) {
        java.thrownClass.clear();
        const int kind = input.ConsumeIntegralInRange(0, 9);
        const int n = kind < 3 ? input.ConsumeIntegralInRange(1, 40) : 0;
        if (n == 0) {
            call();
            require(java.thrownClass.empty(), "failed without a fault");
            return true;
        }
        {
            const faults::Fault fault(static_cast<faults::Kind>(kind), n);
            call();
        }
        if (java.thrownClass.empty()) return true;
        require(java.thrownClass == "java/lang/OutOfMemoryError", "not an OutOfMemoryError");
        // A buffer handle whose charge is refused does not give its reference back.
        lostReferences = java.globalRefs - heldBuffers();
        require(lostReferences <= lostReferencesBefore + 1, "references lost");
        lostReferencesBefore = lostReferences;
        return false;
    }

    int heldBuffers() const {
        int held = 0;
        for (const auto& map : maps) {
            for (const Stored& each : snapshotOf(map->list()).ranges) {
                if (each.memory != nullptr) ++held;
            }
        }
        return held;
    }

    void insertInto(Map& map, const Stored& range, jobject buffer) {
        const bool done = succeeds([&] {
            if (buffer == nullptr) {
                insert(java.env(), nullptr, map.handle, range.offset, range.len, range.fileOffset,
                       range.majorVer, range.minorVer, static_cast<jbyte>(range.number));
            } else {
                insertWithBuff(java.env(), nullptr, map.handle, range.offset, range.len,
                               range.fileOffset, range.majorVer, range.minorVer,
                               static_cast<jbyte>(range.number), buffer);
            }
        });
        if (done) map.model.insert(range);
    }

    void insertBuffered(Map& map, Stored range) {
        // Empty ranges fuse, and then one's buffer is shorter than the range that holds it.
        if (range.isEmpty()) return;
        const jobject buffer = java.newBuffer(range.len);
        range.type = true;
        range.memory = FakeJava::bufferOf(buffer).memory;
        range.bufferLength = range.len;
        insertInto(map, range, buffer);
    }

    void redirect(Map& map, const Stored& from, Stored to) {
        to.offset = from.offset;
        jboolean redirected = JNI_FALSE;
        const bool done = succeeds([&] {
            redirected = compareAndSet(java.env(), nullptr, map.handle, from.offset, from.len,
                                       from.fileOffset, from.majorVer, from.minorVer,
                                       static_cast<jbyte>(from.number), to.fileOffset, to.majorVer,
                                       to.minorVer, static_cast<jbyte>(to.number));
        });
        if (done) {
            require((redirected == JNI_TRUE) == map.model.compareAndSet(from, to), "compareAndSet");
        } else {
            map.model.state = snapshotOf(map.list());
        }
    }

    void releaseSome(Map& map, const Stored& range) {
        const jlong released = compareAndRelease(java.env(), nullptr, map.handle, range.offset,
                                                 range.len, range.fileOffset, range.majorVer,
                                                 range.minorVer, static_cast<jbyte>(range.number));
        require(released == map.model.compareAndRelease(range), "compareAndRelease");
    }

    void query(Map& map, const Stored& range) {
        getNodes(java.env(), nullptr, map.handle, range.offset, range.len);
        const Node* node = reinterpret_cast<Node*>(java.array[0]);
        for (const Stored& each : map.model.find(range.offset, range.len)) {
            require(node->getOffset() == each.offset, "query");
            node = node->next(0).get();
        }
        require(node == reinterpret_cast<Node*>(java.array[1]), "end of a query");
    }

    void copy(Map& from, Map& to) {
        if (succeeds([&] { copySkipList(java.env(), nullptr, from.handle, to.handle); })) {
            from.model.copyTo(to.model);
        } else {
            to.model.state = snapshotOf(to.list());
        }
    }

    void replaceMap(std::optional<Map>& map) {
        map.reset();
        map.emplace(*this);
    }

    FuzzedDataProvider& input;
    FakeJava java;
    int sectorSize;
    std::array<std::optional<Map>, 2> maps;
    int lostReferences = 0;
    int lostReferencesBefore = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The refusals that the faults provoke are written to standard error, one line each.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    testing::GTEST_FLAG(throw_on_failure) = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const long long chargedBefore = faults::chargedBytes();
    FuzzedDataProvider input(data, size);
    {
        Session session(input);
        session.run();
    }
    require(faults::chargedBytes() == chargedBefore, "native bytes left");
    return 0;
}
