// What the benchmarks do to a map, in a form that favours no competitor.
//
// Plain values, made in full before any time is taken.
#pragma once

#include <vector>

constexpr int sectorSize = 512;  // bytes

// The distance in a file of two bytes `logical` bytes apart on the device: every sector is
// followed by 8 bytes of the file's own.
constexpr long long fileDistance(long long logical) {
    return logical + logical / sectorSize * 8;
}

struct Location {
    int fileOffset;
    int majorVer;
    int minorVer;
    unsigned char number;

    bool isEmpty() const { return fileOffset == -1 && majorVer == -1 && minorVer == -1; }
    bool operator==(const Location&) const = default;
};

constexpr Location nowhere{-1, -1, -1, 0};

struct Range {
    long long offset;  // bytes
    int len;           // bytes
    Location location;

    long long end() const { return offset + len; }
    bool operator==(const Range&) const = default;
};

struct Operation {
    enum class Kind { insert, walk, compareAndSet };

    Kind kind;
    Range range;                  // a walk has no use for the location
    Location expected = nowhere;  // by a compareAndSet
};

using Operations = std::vector<Operation>;

// A number that depends on everything that the competitors store of a range.
inline unsigned long long digest(const Range& range) {
    return static_cast<unsigned long long>(range.offset) * 31 +
           static_cast<unsigned long long>(range.len) * 7 +
           static_cast<unsigned long long>(range.location.fileOffset) * 5 +
           static_cast<unsigned long long>(range.location.majorVer) +
           static_cast<unsigned long long>(range.location.minorVer) + range.location.number;
}
