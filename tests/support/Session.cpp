#include "support/Session.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "memory/Memorystatistics.h"
#include "records/Wrapping.h"
#include "support/Native.h"

namespace {

using faults::Fault, faults::Kind;

constexpr long long lowest = std::numeric_limits<long long>::min();
constexpr long long highest = std::numeric_limits<long long>::max();
constexpr int smallest = std::numeric_limits<int>::min();
constexpr int largest = std::numeric_limits<int>::max();

// What a search finds that goes down all levels. Where ranges are out of order, it is not always
// the first at level 0.
const Node* foundByLinks(const SkipList& map, long long key) {
    Node* node = map.head.get();
    for (int i = map.maxLevel; i >= 0; --i) {
        while (node->next(i) != map.tail && node->next(i)->getEnd() <= key) {
            node = node->next(i).get();
        }
    }
    return node->next(0).get();
}

}  // namespace

Session::Session(std::vector<unsigned char> bytes)
    : input(std::move(bytes)),
      shape(any(std::array{Shape::wild, Shape::longest, Shape::grid, Shape::grid, Shape::grid,
                           Shape::grid, Shape::grid, Shape::grid})),
      sectorSize(any(std::array{1, 8, 512, 4096, largest})),
      base(any(std::array{0LL, -1LL << 31, lowest, highest - (1LL << 23)})),
      span(any(std::array{64U, 256U})),
      longestRange(span == 64 ? 12 : 3),
      slabsOfOne(BlockPool::slabsOfOne, below(2) == 0),
      fewestRanges(Signposts::fewestRanges, any(std::array{3, 3, 3, 128})),
      pairs{Pair{nullptr, MapModel(sectorSize)}, Pair{nullptr, MapModel(sectorSize)}} {
    if (shape == Shape::longest) base = -1LL << 31;
    for (Pair& pair : pairs) replace(pair);
    java.onRelease = [this] { wasWholeAtRelease &= shape != Shape::grid || isOrdered(); };
}

void Session::run() {
    while (position < input.size() && (shape == Shape::wild || isOrdered())) step();
    java.onRelease = nullptr;
    for (Pair& pair : pairs) pair.map.reset();
    require(java.globalRefs == 0 && java.retained() == 0, "references left");
    require(faults::chargedBytes() == chargedBefore, "native bytes left");
}

// The next choice; always the first one behind the end of the input.
unsigned Session::below(unsigned bound) {
    unsigned chosen = 0;
    for (unsigned values = 1; values < bound; values *= 256) {
        chosen = chosen * 256 + (position < input.size() ? input[position++] : 0U);
    }
    return chosen % bound;
}

Stored Session::range() {
    Stored range{};
    choosePlace(range);
    chooseLocation(range);
    return range;
}

void Session::choosePlace(Stored& range) {
    constexpr std::array offsets{lowest,    lowest + 5,    -100LL,      -1LL,   0LL,
                                 1LL,       50LL,          100LL,       101LL,  1LL << 31,
                                 1LL << 40, highest - 100, highest - 1, highest};
    constexpr std::array lengths{smallest, -100, -50, -1, 0, 1, 50, 100, 101, largest};
    constexpr std::array marks{0LL, 1LL << 30, 1LL * largest, 3LL << 30, 2LL * largest};
    if (shape == Shape::wild) {
        range.offset = any(offsets);
        range.len = any(lengths);
    } else if (shape == Shape::longest) {
        const long long one = any(marks) + below(3);
        const long long other = any(marks) + below(3);
        range.offset = base + std::min(one, other);
        range.len = static_cast<int>(std::min(std::abs(one - other), 1LL * largest));
    } else {
        const int unit = below(2) == 0 || sectorSize > 4096 ? 1 : sectorSize;
        range.offset = base + 1LL * below(span) * unit;
        range.len = below(16) == 0 ? 0 : static_cast<int>(1 + below(longestRange)) * unit;
    }
}

// In one of a few files that run along with the device, nowhere, or just beside its place.
void Session::chooseLocation(Stored& range) {
    const unsigned which = below(16);
    range.number = static_cast<int>(which % 2) * 200;
    range.majorVer = static_cast<int>(which / 2 % 2);
    const long long distance = wrapping::subtract(range.offset, base);
    range.fileOffset = static_cast<int>(Data::fileDistance(distance, sectorSize));
    if (which == 15) range.fileOffset = wrapping::add(range.fileOffset, 1);
    if (which > 12 && which < 15) range.fileOffset = range.majorVer = range.minorVer = -1;
}

void Session::step() {
    Pair& pair = pairs[below(2)];
    switch (below(16)) {
        case 0: {
            const Stored request = range();
            change(
                pair, [&] { return pair.map->compareAndRelease(request); },
                [&](MapModel& model, std::size_t limit) {
                    return limit > 0 ? model.compareAndRelease(request) : 0;
                });
            break;
        }
        case 1:
            change(
                pair, [&] { return pair.map->release(); },
                [](MapModel& model, std::size_t limit) { return limit > 0 ? model.release() : 0; },
                0);
            break;
        case 2:
            copy(pairs[below(2)], pair);
            break;
        case 3:
            replace(pair);
            break;
        case 4:
            sweep();
            break;
        case 5:
        case 6:
            query(pair);
            break;
        case 7:
        case 8:
        case 9: {
            const Stored request = range();
            Stored target = request;
            if (below(4) == 0) choosePlace(target);
            chooseLocation(target);
            target.offset = request.offset;
            change(
                pair, [&] { return pair.map->compareAndSet(request, target); },
                [&](MapModel& model, std::size_t limit) {
                    return model.compareAndSet(request, target, limit);
                });
            break;
        }
        default:
            insert(pair);
            break;
    }
    check();
}

// Makes a call that changes the map, perhaps with a fault, and the same change of the model, which
// may also make the first `limit` pieces of it only. `room`: the least without which it is refused.
template <typename Call, typename Outcome>
void Session::change(Pair& pair, Call call, Outcome outcome, int room) {
    const bool faulty = below(3) == 0;
    const Kind kind = any(std::array{Kind::allocation, Kind::allocationsFrom, Kind::charge,
                                     Kind::limit, Kind::javaCall, Kind::globalReference});
    const int n = kind == Kind::limit ? any(std::array{23, 31, 47})
                                      : static_cast<int>(1 + below(below(2) == 0 ? 40 : 6));
    java.thrownClass.clear();
    long long result = 0;
    bool lacksReference = false;
    if (faulty) {
        const Fault fault(kind, n);
        result = call();
        lacksReference = kind == Kind::globalReference && Fault::reached();
    } else {
        result = call();
    }
    const bool failed = !java.thrownClass.empty();
    require(!failed || faulty, java.thrownMessage.c_str());
    require(failed || !faulty || kind != Kind::limit || n >= room, "not refused");
    if (failed) {
        require(java.thrownClass == (kind == Kind::javaCall ? "java/lang/RuntimeException"
                                                            : "java/lang/OutOfMemoryError"),
                java.thrownClass.c_str());
    }

    const Snapshot found = snapshotOf(**pair.map);
    if (shape == Shape::wild) {
        pair.model.state = found;
        return;
    }
    const MapModel before = pair.model;
    const long long expected = outcome(pair.model, std::numeric_limits<std::size_t>::max());
    if (failed) {
        const Snapshot complete = pair.model.state;
        for (std::size_t done = 0; pair.model.state == complete || pair.model.state != found;) {
            pair.model = before;
            outcome(pair.model, done++);
            if (pair.model.state == complete) break;
        }
        require(found != complete || complete == before.state, "failed, and yet done");
    } else {
        require(result == expected, "result");
        if (lacksReference) adoptMissingReference(pair, found);
    }
}

// One buffer that a call stored has no reference, and reads as given back.
void Session::adoptMissingReference(Pair& pair, const Snapshot& found) const {
    Ranges& ranges = pair.model.state.ranges;
    for (std::size_t i = 0; i < std::min(ranges.size(), found.ranges.size()); ++i) {
        if (ranges[i].memory == nullptr || found.ranges[i].memory != nullptr) continue;
        ranges[i].memory = nullptr;
        ranges[i].bufferStart = ranges[i].bufferLength = 0;
        return;
    }
}

void Session::insert(Pair& pair) {
    Stored added = range();
    const unsigned kind = below(4);
    added.type = kind < 2;
    // Empty locations fuse, and then one's buffer would be shorter than the range that holds it.
    if (kind == 0 && !added.isEmpty() && shape != Shape::wild) added = buffered(java, added);
    change(
        pair,
        [&] {
            pair.map->insert(added);
            return 0;
        },
        [&](MapModel& model, std::size_t limit) {
            if (limit > 0) model.insert(added);
            return 0;
        },
        Node::charge);
}

void Session::copy(Pair& from, Pair& to) {
    change(
        to,
        [&] {
            from.map->copyTo(*to.map);
            return 0;
        },
        [&](MapModel& model, std::size_t limit) {
            const MapModel& source = &from == &to ? model : from.model;
            source.copyTo(model, limit);
            return 0;
        },
        from.model.state.ranges.empty() ? 0 : Node::charge);
}

void Session::query(Pair& pair) {
    Stored asked = range();
    if (shape == Shape::grid && below(2) == 0) asked.len *= static_cast<int>(below(100));
    const long long key = wrapping::add(asked.offset, static_cast<int>(below(3)) - 1);
    require((*pair.map)->findEqualGreater(key).get() == foundByLinks(**pair.map, key), "search");
    if (shape == Shape::wild) return;
    Ranges expected = pair.model.run(asked.offset, asked.len);
    Ranges all = pair.model.state.ranges;
    for (Ranges* ranges : {&expected, &all}) {
        for (Stored& each : *ranges) each.hasBuff = each.memory != nullptr;
    }
    require(pair.map->query(asked.offset, asked.len) == expected, "query");
    require(pair.map->all() == all, "all");
    Snapshot counters = pair.model.state;
    counters.ranges.clear();
    require(pair.map->counters() == counters, "counters");
}

// Ends a map, which nothing may keep from going, and makes another one, perhaps with a fault.
void Session::replace(Pair& pair) {
    const auto onRelease = std::exchange(java.onRelease, nullptr);
    java.thrownClass.clear();
    {
        const Fault fault(Kind::allocationsFrom, 1);
        pair.map.reset();
    }
    require(java.thrownClass.empty(), "a map did not go");
    pair.model = MapModel(sectorSize);
    const int height = any(std::array{1, 2, 4, 6, 64});
    const unsigned seed = below(256);
    const long long charged = faults::chargedBytes();
    const auto kind = any(std::array{Kind::allocation, Kind::allocationsFrom, Kind::charge});
    const int n = static_cast<int>(2 + below(20));
    pair.map = std::make_unique<TestMap>(java, sectorSize, height, seed);
    {
        const Fault fault(kind, n);
        const TestMap another(java, sectorSize, height);
        require(another.handle > 0 ? !Fault::reached() : another.handle == -3, "create");
    }
    require(faults::chargedBytes() == charged + 384, "charges of a new map");
    java.onRelease = onRelease;
}

// Sums up what is charged, perhaps without the memory for it.
void Session::sweep() {
    const long long charged = faults::chargedBytes();
    java.thrownClass.clear();
    MemoryStat::lastAccessTm = 0;
    {
        const Fault fault(Kind::allocation, static_cast<int>(1 + below(6)));
        native::getStats(java.env(), nullptr);
        require(Fault::reached() != java.thrownClass.empty(), "sweep without memory");
    }
    if (java.thrownClass.empty()) require(java.array[6] == charged, "swept total");
}

void Session::check() {
    long long charged = chargedBefore;
    int held = 0;
    for (const Pair& pair : pairs) {
        const Snapshot found = snapshotOf(**pair.map);
        if (found != pair.model.state) {
            throw std::logic_error("map: " + textOf(found) +
                                   "\nmodel: " + textOf(pair.model.state));
        }
        charged += 384 + 104 * found.size;
        for (const Stored& each : found.ranges) {
            if (each.hasBuff) charged += 32;
            if (each.memory != nullptr) ++held;
        }
    }
    require(java.localRefs == 0, "local references left");
    require(java.globalRefs == held && java.retained() == held, "references of buffers");
    require(faults::chargedBytes() == charged, "bytes charged");
    require(wasWholeAtRelease, "a buffer was given back in the middle of a change");
}

// Whether both maps count right and, but for wild ones, are in order: so also whenever Java is
// called.
bool Session::isOrdered() const {
    for (const Pair& pair : pairs) {
        const SkipList& map = **pair.map;
        int count = 0;
        long long end = lowest;
        for (const Node* node = map.head->next(0).get(); node != map.tail.get(); ++count) {
            const bool follows = node->getOffset() >= end && node->getLen() >= 0;
            if (!follows && shape != Shape::wild) return false;
            end = node->getEnd();
            node = node->next(0).get();
        }
        if (count != map.size) return false;
    }
    return true;
}
