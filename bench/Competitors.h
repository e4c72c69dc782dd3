// The maps that compete, and what is done to each of them in the same way.
//
// A map has a name, insert(range), compareAndSet(range, expected), forEach(offset, len, visit),
// forEach(visit) over everything, and copyTo(empty map of its kind).
#pragma once

#include <vector>

#include "BtreeRangeMap.h"
#include "IclRangeMap.h"
#include "LibraryMap.h"
#include "Operation.h"
#include "StdRangeMap.h"

template <typename Map>
unsigned long long digestOf(const Map& map, const Range& window) {
    unsigned long long sum = 0;
    map.forEach(window.offset, window.len, [&](const Range& range) { sum += digest(range); });
    return sum;
}

// What forEach visits, with the same arguments.
template <typename Map, typename... Window>
std::vector<Range> rangesOf(const Map& map, Window... window) {
    std::vector<Range> ranges;
    map.forEach(window..., [&](const Range& range) { ranges.push_back(range); });
    return ranges;
}

// Does the operations; the result depends on all that the walks have seen and on how many moves
// took place. Never inlined: a profiler is told to count inside it.
template <typename Map>
[[gnu::noinline]] unsigned long long serve(Map& map, const Operations& operations) {
    unsigned long long sum = 0;
    for (const Operation& operation : operations) {
        const Range& range = operation.range;
        switch (operation.kind) {
            case Operation::Kind::insert:
                map.insert(range);
                break;
            case Operation::Kind::walk:
                sum += digestOf(map, range);
                break;
            case Operation::Kind::compareAndSet:
                sum += map.compareAndSet(range, operation.expected) ? 1U : 0U;
                break;
        }
    }
    return sum;
}
