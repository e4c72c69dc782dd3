#include "StdRangeMap.h"

#include <iterator>
#include <utility>

void StdRangeMap::insert(const Range& range) {
    Node next = tree.lower_bound(range.offset);
    if (next != tree.begin()) {
        const Node before = std::prev(next);
        if (endOf(before) > range.end()) {
            if (!connected(range, rangeOf(before))) split(before, range);
            return;
        }
    }
    Node place = claimStart(range, next);
    while (next != tree.end() && endOf(next) <= range.end()) next = tree.erase(next);
    place = claimEnd(range, next, place);
    if (place == tree.end()) {
        tree.emplace_hint(next, range.offset, RangeEntry{range.len, range.location});
    }
}

// Cuts or takes over what begins before the range or with it. Returns the node that now stands for
// the start of the range up to its end, or end() if that has to be found elsewhere; `next` becomes
// the first node behind it.
StdRangeMap::Node StdRangeMap::claimStart(const Range& range, Node& next) {
    if (next != tree.begin()) {
        const Node before = std::prev(next);
        const long long joined = range.end() - before->first;
        if (endOf(before) >= range.offset && fitsLength(joined) &&
            connected(range, rangeOf(before))) {
            before->second.len = static_cast<int>(joined);
            return before;
        }
        if (endOf(before) > range.offset) {
            before->second.len = static_cast<int>(range.offset - before->first);
        }
    }
    // A node that ends behind the range is left to claimEnd.
    if (next == tree.end() || next->first != range.offset || endOf(next) > range.end()) {
        return tree.end();
    }
    next->second = RangeEntry{range.len, range.location};
    return next++;
}

// Cuts or takes over the node `next` if it reaches or touches the end of the range. `place` and the
// result are as in claimStart; `next` becomes the first node behind the range.
StdRangeMap::Node StdRangeMap::claimEnd(const Range& range, Node& next, Node place) {
    if (next == tree.end() || next->first > range.end()) return place;
    const long long start = place == tree.end() ? range.offset : place->first;
    const long long joined = endOf(next) - start;
    if (fitsLength(joined) && connected(range, rangeOf(next))) {
        if (place == tree.end()) {
            place = moveStart(next, start);
            place->second.location = range.location;
        } else {
            tree.erase(next);
        }
        place->second.len = static_cast<int>(joined);
        next = std::next(place);
    } else if (next->first < range.end()) {
        const Location location = advanced(next->second.location, range.end() - next->first);
        const auto len = static_cast<int>(endOf(next) - range.end());
        next = moveStart(next, range.end());
        next->second = RangeEntry{len, location};
    }
    return place;
}

// Gives a node another start, between those of its neighbours.
StdRangeMap::Node StdRangeMap::moveStart(Node node, long long start) {
    const Node after = std::next(node);
    auto taken = tree.extract(node);
    taken.key() = start;
    return tree.insert(after, std::move(taken));
}

// Puts the range into the middle of a node that begins before it and ends behind it.
void StdRangeMap::split(Node around, const Range& range) {
    const Location rest = advanced(around->second.location, range.end() - around->first);
    const auto restLen = static_cast<int>(endOf(around) - range.end());
    around->second.len = static_cast<int>(range.offset - around->first);
    const Node behind =
        tree.emplace_hint(std::next(around), range.end(), RangeEntry{restLen, rest});
    tree.emplace_hint(behind, range.offset, RangeEntry{range.len, range.location});
}
