// The cases of the benchmark program: each is a workload that is timed on all competitors, once all
// have been shown to give the same answers and to hold the same after it.
#pragma once

#include <string>

// Hands every case to Google Benchmark, for 10,000 ranges and each power of ten up to `maxRanges`.
// Workloads are made, and competitors compared, when a case is first run, so that those left out by
// a filter cost nothing. If competitors differ, or the trace cannot be read, that run throws
// std::runtime_error.
void registerCases(const std::string& tracePath, int maxRanges);
