#include "BtreeRangeMap.h"

#include <iterator>

void BtreeRangeMap::insert(const Range& range) {
    const Node next = tree.lower_bound(range.offset);
    Range rest{range.end(), 0, nowhere};  // what sticks out behind the range
    if (next != tree.begin()) {
        const Node before = std::prev(next);
        const Range around = rangeOf(before);
        if (around.end() > range.end()) {
            if (connected(range, around)) return;
            before->second.len = static_cast<int>(range.offset - around.offset);
            rest = part(around, range.end(), around.end());
            replace(next, next, range, rest);
            return;
        }
    }
    Range stored = range;
    const Node first = claimStart(range, next, stored);
    const Node last = claimEnd(range, next, stored, rest);
    replace(first, last, stored, rest);
}

// Cuts or takes over what begins before the range. Returns the first node that gives way.
BtreeRangeMap::Node BtreeRangeMap::claimStart(const Range& range, Node first, Range& stored) {
    if (first == tree.begin()) return first;
    const Node before = std::prev(first);
    const Range left = rangeOf(before);
    const long long joined = range.end() - left.offset;
    if (left.end() >= range.offset && fitsLength(joined) && connected(range, left)) {
        stored = {left.offset, static_cast<int>(joined), left.location};
        return before;
    }
    if (left.end() > range.offset) {
        before->second.len = static_cast<int>(range.offset - left.offset);
    }
    return first;
}

// Cuts or takes over what reaches or touches the end of the range. Returns the first node behind
// those that give way.
BtreeRangeMap::Node BtreeRangeMap::claimEnd(const Range& range, Node last, Range& stored,
                                            Range& rest) {
    while (last != tree.end() && endOf(last) <= range.end()) ++last;
    if (last == tree.end() || last->first > range.end()) return last;
    const Range right = rangeOf(last);
    const long long joined = right.end() - stored.offset;
    if (fitsLength(joined) && connected(range, right)) {
        stored.len = static_cast<int>(joined);
        return std::next(last);
    }
    if (right.offset == range.end()) return last;
    rest = part(right, range.end(), right.end());
    return std::next(last);
}

// Puts one or two ranges in the place of the nodes [first, last).
void BtreeRangeMap::replace(Node first, Node last, const Range& stored, const Range& rest) {
    if (first != last && first->first == stored.offset) {
        first->second = {stored.len, stored.location};
        if (rest.len == 0 && std::next(first) == last) return;
        first = tree.erase(std::next(first), last);
    } else {
        if (first != last) first = tree.erase(first, last);
        first = put(first, stored);
    }
    if (rest.len > 0) put(first, rest);
}

// Returns the node behind the new one.
BtreeRangeMap::Node BtreeRangeMap::put(Node hint, const Range& range) {
    return std::next(tree.emplace_hint(hint, range.offset, RangeEntry{range.len, range.location}));
}
