// The rules of the map, as the rivals of the benchmarks share them, written apart from the
// library's.
//
// Ranges that touch or overlap are stored as one if both locations are empty, or if file and
// versions are the same and the places lie exactly as far apart in the file as on the device, as
// long as the length fits into 32 bits.
#pragma once

#include <algorithm>
#include <limits>
#include <vector>

#include "Operation.h"

inline bool fitsLength(long long length) {
    return length <= std::numeric_limits<int>::max();
}

// Whether two ranges that touch or overlap may be stored as one.
inline bool connected(const Range& a, const Range& b) {
    if (a.location.isEmpty() || b.location.isEmpty()) {
        return a.location.isEmpty() && b.location.isEmpty();
    }
    return a.location.number == b.location.number && a.location.majorVer == b.location.majorVer &&
           a.location.minorVer == b.location.minorVer &&
           fileDistance(a.offset - b.offset) ==
               static_cast<long long>(a.location.fileOffset) - b.location.fileOffset;
}

// The location of what begins `skip` bytes into a range.
inline Location advanced(Location location, long long skip) {
    location.fileOffset = static_cast<int>(location.fileOffset + fileDistance(skip));
    return location;
}

// What of a range lies in [start, end). REQUIRES: something does.
inline Range part(const Range& range, long long start, long long end) {
    start = std::max(start, range.offset);
    return {start, static_cast<int>(std::min(end, range.end()) - start),
            advanced(range.location, start - range.offset)};
}

// Redirects those parts of the range that still lie where `expected` says; true if any did.
template <typename Map>
bool redirect(Map& map, const Range& range, const Location& expected) {
    const Range before{range.offset, range.len, expected};
    std::vector<Range> parts;
    map.forEach(range.offset, range.len, [&](const Range& stored) {
        if (connected(stored, before)) parts.push_back(part(range, stored.offset, stored.end()));
    });
    for (const Range& each : parts) map.insert(each);
    return !parts.empty();
}
