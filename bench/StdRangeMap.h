// The first rival of the benchmarks: the same range map over std::map, as a program would have it
// that needs no Java, no buffers, no limit of its memory and no recovery from failed allocations.
//
// A tree of disjoint ranges keyed by their start. An insert edits the nodes that it finds where it
// can: a fused range grows in place, a node whose start stays is written over, one whose start
// moves is taken out and put back without an allocation.
//
// Ownership: the map owns its nodes. Threads: not thread-safe.
// Cost: O(log size + ranges replaced), a walk O(log size + ranges visited); one node of 80 bytes
//   per range.
#pragma once

#include <map>

#include "RangeRules.h"
#include "RangeTree.h"

class StdRangeMap : public RangeTree<std::map<long long, RangeEntry>> {
  public:
    static constexpr const char* name = "std-map";

    // Afterwards the bytes of the range lie at its location, and all others where they were.
    // REQUIRES: range.len > 0 and range.end() does not overflow.
    void insert(const Range& range);

    bool compareAndSet(const Range& range, const Location& expected) {
        return redirect(*this, range, expected);
    }

  private:
    Node claimStart(const Range& range, Node& next);
    Node claimEnd(const Range& range, Node& next, Node place);
    Node moveStart(Node node, long long start);
    void split(Node around, const Range& range);
};
