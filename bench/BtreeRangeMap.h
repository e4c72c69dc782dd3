// A rival of the benchmarks: the same range map over a B-tree, which keeps many ranges in one block
// of memory and so reads fewer of them on the way.
//
// An insert or erase moves the ranges beside it, so no iterator outlives one: an insert of a range
// first finds all that gives way, erases it at once, and then puts in what stays.
// Ownership: the map owns its nodes. Threads: not thread-safe.
// Cost: O(log size + ranges replaced), a walk O(log size + ranges visited).
#pragma once

#include <absl/container/btree_map.h>

#include "RangeRules.h"
#include "RangeTree.h"

class BtreeRangeMap : public RangeTree<absl::btree_map<long long, RangeEntry>> {
  public:
    static constexpr const char* name = "btree-map";

    // Afterwards the bytes of the range lie at its location, and all others where they were.
    // REQUIRES: range.len > 0 and range.end() does not overflow.
    void insert(const Range& range);

    bool compareAndSet(const Range& range, const Location& expected) {
        return redirect(*this, range, expected);
    }

  private:
    Node claimStart(const Range& range, Node first, Range& stored);
    Node claimEnd(const Range& range, Node last, Range& stored, Range& rest);
    void replace(Node first, Node last, const Range& stored, const Range& rest);
    Node put(Node hint, const Range& range);
};
