// The cases of the benchmark program: each is a workload that is timed on both competitors, once
// both have been shown to give the same answers and to hold the same ranges after it.
#pragma once

#include <string>

#include "Operation.h"

// Hands every case to Google Benchmark. Workloads are made, and competitors compared, when a case
// is first run, so that those left out by a filter cost nothing. If competitors differ, or the
// trace cannot be read, that run throws std::runtime_error.
void registerCases(const std::string& tracePath);

// Does the operations; the result depends on all that the walks have seen. Never inlined: a
// profiler is told to count inside it.
template <typename Map>
[[gnu::noinline]] unsigned long long serve(Map& map, const Operations& operations) {
    unsigned long long sum = 0;
    for (const Operation& operation : operations) {
        const Range& range = operation.range;
        if (operation.kind == Operation::Kind::insert) {
            map.insert(range);
        } else {
            sum += map.walk(range.offset, range.len);
        }
    }
    return sum;
}
