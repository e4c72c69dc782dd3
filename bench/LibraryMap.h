// A map of the library behind its native methods, called as Java calls them.
//
// What a benchmark of it does not contain is the way of a JVM into native code and back.
// Ownership: owns the map. Threads: changed by the thread that made it, and read by any.
#pragma once

#include "Operation.h"
#include "StandInJvm.h"
#include "stor_device_skiplist_JniSkipListNative.h"

class LibraryMap {
  public:
    static constexpr const char* name = "skip-list";

    LibraryMap();
    ~LibraryMap();
    LibraryMap(const LibraryMap&) = delete;
    LibraryMap& operator=(const LibraryMap&) = delete;

    void insert(const Range& range);
    bool compareAndSet(const Range& range, const Location& expected);
    void copyTo(LibraryMap& other) const;

    // Visits the ranges that share a byte with [offset, offset + len), in order.
    template <typename Visit>
    void forEach(long long offset, int len, Visit visit) const {
        StandInJvm& jvm = StandInJvm::ofThread();
        Java_stor_device_skiplist_JniSkipListNative_getNodes(jvm.env(), nullptr, handle, offset,
                                                             len);
        visitPair(jvm, visit);
    }

    // Visits everything stored, in order.
    template <typename Visit>
    void forEach(Visit visit) const {
        StandInJvm& jvm = StandInJvm::ofThread();
        Java_stor_device_skiplist_JniSkipListNative_getAllNodes(jvm.env(), nullptr, handle);
        visitPair(jvm, visit);
    }

  protected:
    JNIEnv* env = StandInJvm::ofThread().env();
    jlong handle;

  private:
    template <typename Visit>
    void visitPair(const StandInJvm& jvm, Visit visit) const {
        const auto [first, last] = jvm.pair();
        for (jlong node = first; node != last;
             node = Java_stor_device_skiplist_JniSkipListNative_nextNode(env, nullptr, node)) {
            visit(rangeOf(node));
        }
    }

    Range rangeOf(jlong node) const;
};

// The same, with a buffer for each range.
class BufferedLibraryMap : public LibraryMap {
  public:
    void insert(const Range& range);
};

inline Range LibraryMap::rangeOf(jlong node) const {
    return {
        Java_stor_device_skiplist_JniSkipListNative_getNodeIndexOffset(env, nullptr, node),
        Java_stor_device_skiplist_JniSkipListNative_getNodeIndexLen(env, nullptr, node),
        {Java_stor_device_skiplist_JniSkipListNative_getNodeFileOffset(env, nullptr, node),
         Java_stor_device_skiplist_JniSkipListNative_getNodeFileMajorVer(env, nullptr, node),
         Java_stor_device_skiplist_JniSkipListNative_getNodeFileMinorVer(env, nullptr, node),
         static_cast<unsigned char>(
             Java_stor_device_skiplist_JniSkipListNative_getNodeFileNumber(env, nullptr, node))}};
}
