// A map with its stand-in JVM, and ways to fill it in one line.
#pragma once

#include <functional>
#include <memory>

#include "skiplist/SkipList.h"
#include "support/FakeJava.h"
#include "support/MapModel.h"

// A map made as Java would have it made, with a fixed seed.
class TestMap {
  public:
    explicit TestMap(FakeJava& java, int sectorSize = 512, int height = 4, JNIEnv* env = nullptr);

    SkipList* operator->() { return map.get(); }
    SkipList& operator*() { return *map; }

    void insert(const Stored& range);
    // As a memory-type range with a new buffer of its length; returns it as it is then stored.
    Stored insertBuffered(Stored range);
    bool compareAndSet(const Stored& request, const Stored& target);
    long long compareAndRelease(const Stored& request);

    FakeJava& java;
    std::shared_ptr<Env> env;
    std::unique_ptr<SkipList> map;
};

// A range in a file, by its location.
inline Stored inFile(long long offset, int len, int fileOffset, int majorVer = 1, int minorVer = 2,
                     int number = 3) {
    return {offset, len, false, number, fileOffset, majorVer, minorVer};
}

// While it lives, each node is an allocation of its own, or none is, whatever the build.
class SlabSizes {
  public:
    explicit SlabSizes(bool ofOne) { BlockPool::slabsOfOne = ofOne; }
    ~SlabSizes() { BlockPool::slabsOfOne = before; }
    SlabSizes(const SlabSizes&) = delete;
    SlabSizes& operator=(const SlabSizes&) = delete;

  private:
    const bool before = BlockPool::slabsOfOne;
};

// Runs `body` on a thread with a 256 KiB stack.
void onSmallStack(const std::function<void()>& body);
