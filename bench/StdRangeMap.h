// The rival of the benchmarks: the same range map over std::map, as a program would have it that
// needs no Java, no buffers, no limit of its memory and no recovery from failed allocations.
//
// A tree of disjoint ranges keyed by their start. An insert edits the nodes that it finds where it
// can: a fused range grows in place, a node whose start stays is written over, one whose start
// moves is taken out and put back without an allocation.
//
// Rules, those of the skip list: ranges that touch or overlap are stored as one if both locations
// are empty, or if file and versions are the same and the places lie exactly as far apart in the
// file as on the device, as long as the length fits into 32 bits.
// Ownership: the map owns its nodes. Threads: not thread-safe.
// Cost: O(log size + ranges replaced), a walk O(log size + ranges visited); one node of 80 bytes
//   per range.
#pragma once

#include <map>
#include <vector>

#include "Operation.h"

class StdRangeMap {
  public:
    // Afterwards the bytes of the range lie at its location, and all others where they were.
    // REQUIRES: range.len > 0 and range.end() does not overflow.
    void insert(const Range& range);

    // The sum of the digests of the ranges that share a byte with [offset, offset + len).
    unsigned long long walk(long long offset, int len) const;

    // Everything stored, in order.
    std::vector<Range> ranges() const;

  private:
    struct Entry {
        int len;
        Location location;
    };
    using Tree = std::map<long long, Entry>;
    using Node = Tree::iterator;

    static long long endOf(Tree::const_iterator node) { return node->first + node->second.len; }
    static Range rangeOf(Tree::const_iterator node) {
        return {node->first, node->second.len, node->second.location};
    }

    Node claimStart(const Range& range, Node& next);
    Node claimEnd(const Range& range, Node& next, Node place);
    Node moveStart(Node node, long long start);
    void split(Node around, const Range& range);

    Tree tree;
};
