// A map as Java has it: made, changed and read by the native methods.
#pragma once

#include <functional>
#include <utility>

#include "skiplist/SkipList.h"
#include "support/FakeJava.h"
#include "support/MapModel.h"

class TestMap {
  public:
    // Levels come from a fixed seed.
    explicit TestMap(FakeJava& java, int sectorSize = 512, int height = 4, unsigned seed = 7);
    ~TestMap();
    TestMap(const TestMap&) = delete;
    TestMap& operator=(const TestMap&) = delete;

    SkipList* operator->() const { return &**this; }
    SkipList& operator*() const { return *SkipList::getSkipList(handle, nullptr); }

    // A range of memory type is stored with the buffer that it names, or with none.
    void insert(const Stored& range);
    bool compareAndSet(const Stored& request, const Stored& target);
    long long compareAndRelease(const Stored& request);
    long long release();
    void copyTo(const TestMap& destination) const;

    // What Java reads of the ranges that share a byte with the given one, and of all.
    Ranges query(long long offset, int len) const;
    Ranges all() const;
    Snapshot counters() const;

    FakeJava& java;
    long long handle;  // negative if no map could be made

  private:
    Ranges readRun() const;
};

// A range in a file, by its location.
inline Stored inFile(long long offset, int len, int fileOffset, int majorVer = 1, int minorVer = 2,
                     int number = 3) {
    return {offset, len, false, number, fileOffset, majorVer, minorVer};
}

// The same with a new buffer of its length.
Stored buffered(FakeJava& java, Stored range);

// While it lives, a setting of the library's that is there for tests has another value.
template <typename T>
class Setting {
  public:
    Setting(T& variable, T value) : place(variable), before(std::exchange(variable, value)) {}
    ~Setting() { place = before; }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

  private:
    T& place;
    const T before;
};
