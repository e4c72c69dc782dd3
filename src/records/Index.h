// A logical byte range of the device, [offset, end): as a plain value, and as the key under which a
// map stores a file location.
//
// The end of a range is computed here and nowhere else.
// Accounting: an `Index` charges 24 bytes from any constructor to the destructor; a constructor
//   throws jni_bad_alloc when that charge does not fit. A `ByteRange` is free.
// Threads: none at the same time as `set`.
#pragma once

#include <list>
#include <memory>

#include "memory/Memorystatistics.h"
#include "records/Wrapping.h"

struct ByteRange {
    // The end of a range, exclusive, in bytes. Wraps for a range that reaches past the last
    // 64-bit position.
    static long long endOf(long long offset, int len) { return wrapping::add(offset, len); }

    // The length of [start, end) as far as 32 bits hold it.
    static int lengthOf(long long start, long long end) {
        return static_cast<int>(wrapping::subtract(end, start));
    }

    // Makes it another range.
    void set(long long newOffset, int newLen) {
        offset = newOffset;
        len = newLen;
    }

    long long getOffset() const { return offset; }
    int getLen() const { return len; }
    long long getEnd() const { return endOf(offset, len); }

    long long offset = 0;  // bytes
    int len = 0;           // bytes
};

class Index : public ByteRange {
  public:
    Index(long long offset, int len);
    Index(const Index& src);
    // A move charges like a copy and so may throw like one.
    Index(Index&& src);  // NOLINT(performance-noexcept-move-constructor)
    // For an owner that charges for it as well, and does not run its destructor.
    Index(ChargedByOwner, const ByteRange& range) : ByteRange(range) {}
    Index& operator=(const Index&) = delete;
    ~Index();

    static std::unique_ptr<Index> create(long long offset, int len);
    static std::unique_ptr<std::list<std::unique_ptr<Index>>> createList();

    static constexpr int charge = 24;  // bytes
};
