// What the rivals over an ordered tree have in common: disjoint ranges keyed by their start, and
// how to read them.
#pragma once

#include <iterator>

#include "Operation.h"

struct RangeEntry {
    int len;
    Location location;
};

template <typename Tree>
class RangeTree {
  public:
    // Visits the ranges that share a byte with [offset, offset + len), in order.
    template <typename Visit>
    void forEach(long long offset, int len, Visit visit) const {
        const long long end = offset + len;
        auto node = tree.upper_bound(offset);
        if (node != tree.begin() && endOf(std::prev(node)) > offset) --node;
        for (; node != tree.end() && node->first < end; ++node) visit(rangeOf(node));
    }

    // Visits everything stored, in order.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (auto node = tree.begin(); node != tree.end(); ++node) visit(rangeOf(node));
    }

    void copyTo(RangeTree& empty) const { empty.tree = tree; }

  protected:
    using Node = typename Tree::iterator;
    using ConstNode = typename Tree::const_iterator;

    static long long endOf(ConstNode node) { return node->first + node->second.len; }
    static Range rangeOf(ConstNode node) {
        return {node->first, node->second.len, node->second.location};
    }

    Tree tree;
};
