// Hands out file locations one after another, as a log-structured store does: what is written in
// sequence lies in sequence. Files are filled up to a fixed size and reused in turn under the next
// major version; logs of different minor versions share no place.
#pragma once

#include "Operation.h"

class SegmentLog {
  public:
    explicit SegmentLog(int minorVer = 0) : place{0, 1, minorVer, 0} {}

    // The place for `len` bytes. REQUIRES: len is positive and fits into one file.
    Location append(int len) {
        const auto span = static_cast<int>(fileDistance(len));
        if (place.fileOffset > fileSize - span) startNextFile();
        const Location appended = place;
        place.fileOffset += span;
        return appended;
    }

    // As above, with a sector left free behind it, so that no other place continues this one.
    Location appendApart(int len) { return append(len + sectorSize); }

  private:
    static constexpr int fileSize = 1 << 26;  // bytes

    void startNextFile() {
        place.fileOffset = 0;
        ++place.number;
        if (place.number == 0) ++place.majorVer;
    }

    Location place;
};
