// A map of the library behind its native methods, called as Java calls them.
//
// What a benchmark of it does not contain is the way of a JVM into native code and back.
// Ownership: owns the map. Threads: not thread-safe.
#pragma once

#include <vector>

#include "Operation.h"
#include "StandInJvm.h"

class NativeMap {
  public:
    NativeMap();
    ~NativeMap();
    NativeMap(const NativeMap&) = delete;
    NativeMap& operator=(const NativeMap&) = delete;

    void insert(const Range& range);

    // The sum of the digests of the ranges that share a byte with [offset, offset + len).
    unsigned long long walk(long long offset, int len);

    // Everything stored, in order.
    std::vector<Range> ranges();

  private:
    static constexpr int height = 12;

    Range rangeOf(jlong node);

    StandInJvm jvm;
    jlong handle;
};
