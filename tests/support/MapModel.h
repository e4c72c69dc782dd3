// What a map must hold: the same rules over a plain sorted vector, searched from the front.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "skiplist/SkipList.h"
#include "support/FakeJava.h"

// Throws std::logic_error unless the condition holds.
void require(bool holds, const char* what);

// One stored range with everything that can be seen of it.
struct Stored {
    long long offset;
    int len;
    bool type;
    int number;
    int fileOffset;
    int majorVer;
    int minorVer;
    // The part of a Java buffer that it holds. A handle whose reference could not be made holds
    // none.
    bool hasBuff = false;
    FakeJava::Memory* memory = nullptr;
    int bufferStart = 0;
    int bufferLength = 0;

    long long end() const { return wrapping::add(offset, len); }
    bool isEmpty() const { return fileOffset == -1 && majorVer == -1 && minorVer == -1; }
    bool operator==(const Stored&) const = default;
};

using Ranges = std::vector<Stored>;

struct Snapshot {
    Ranges ranges;
    long long validLen = 0;
    int size = 0;
    long long rawLen = 0;
    int rawCount = 0;

    bool operator==(const Snapshot&) const = default;
};

// For the messages of failed tests.
std::ostream& operator<<(std::ostream& out, const Stored& range);
std::string textOf(const Snapshot& snapshot);

// Everything that can be seen of a map, whose structure must be sound.
Snapshot snapshotOf(const SkipList& map);

class MapModel {
  public:
    explicit MapModel(int bytesPerSector) : sectorSize(bytesPerSector) {}

    void insert(const Stored& range);
    // Of the pieces that match, or of the ranges copied, the first `limit` only: what a call that
    // fails part-way leaves.
    bool compareAndSet(const Stored& request, const Stored& target, std::size_t limit = -1UL);
    long long compareAndRelease(const Stored& request);
    long long release();
    void copyTo(MapModel& destination, std::size_t limit = -1UL) const;

    // What a query answers.
    Ranges run(long long offset, int len) const;

    Snapshot state;

  private:
    std::size_t firstEndingAfter(long long key) const;
    std::pair<std::size_t, std::size_t> overlapped(const Stored& range) const;
    bool connected(const Stored& a, const Stored& b) const;
    bool sameFile(const Stored& a, const Stored& b) const;
    Stored part(const Stored& source, long long start, long long end) const;
    void place(const Stored& range);
    static long long giveBack(Stored& range);

    int sectorSize;
};
