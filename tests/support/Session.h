// The random harness: calls of the native methods on two maps, chosen by a stream of bytes, which
// is the fuzzer's or that of a seed. After each call both maps are sound and equal their models,
// and what is charged and referenced is exactly what they hold.
//
// A third of the calls run with a fault. One that fails must have stopped before one of its pieces,
// and what it did before must stand.
#pragma once

#include <array>
#include <limits>
#include <memory>
#include <vector>

#include "support/FakeJava.h"
#include "support/Faults.h"
#include "support/MapModel.h"
#include "support/TestMap.h"

class Session {
  public:
    explicit Session(std::vector<unsigned char> bytes);
    ~Session() { java.onRelease = nullptr; }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Throws std::logic_error on the first difference.
    void run();

  private:
    struct Pair {
        std::unique_ptr<TestMap> map;
        MapModel model;
    };

    // Where ranges lie.
    enum class Shape {
        grid,     // side by side, and judged by the model like the next
        longest,  // their joins reach the longest length
        wild,     // of any length at any place; only links, counts and ownership are judged
    };

    unsigned below(unsigned bound);
    template <typename Values>
    auto any(const Values& values) {
        return values[below(static_cast<unsigned>(std::size(values)))];
    }

    Stored range();
    void choosePlace(Stored& range);
    void chooseLocation(Stored& range);
    void step();
    template <typename Call, typename Outcome>
    void change(Pair& pair, Call call, Outcome outcome, int room = Data::charge);
    void adoptMissingReference(Pair& pair, const Snapshot& found) const;
    void insert(Pair& pair);
    void copy(Pair& from, Pair& to);
    void query(Pair& pair);
    void replace(Pair& pair);
    void sweep();
    void check();
    bool isOrdered() const;

    std::vector<unsigned char> input;
    std::size_t position = 0;
    FakeJava java;
    Shape shape;
    int sectorSize;
    long long base = 0;
    unsigned span;  // of a grid, and below
    unsigned longestRange;
    bool wasWholeAtRelease = true;
    const long long chargedBefore = faults::chargedBytes();
    Setting<bool> slabsOfOne;
    // Signposts for maps of a few ranges, in chunks of a few nodes, or none.
    Setting<int> fewestRanges;
    Setting<std::size_t> entriesPerChunk{Signposts::entriesPerChunk, 4};
    Setting<int> longestWalk{Signposts::longestWalk, 2};
    std::array<Pair, 2> pairs;
};
