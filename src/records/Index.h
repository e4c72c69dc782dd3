// A logical byte range of the device: the key under which a map stores a file location.
//
// The range is half-open, [offset, end). Its end is computed here and nowhere else.
// Accounting: 24 bytes from any constructor to the destructor; a constructor throws jni_bad_alloc
//   when that charge does not fit.
// Threads: none at the same time as `set`.
#pragma once

#include <list>
#include <memory>

#include "records/Wrapping.h"

class Index {
  public:
    Index(long long offset, int len);
    Index(const Index& src);
    // A move charges like a copy and so may throw like one.
    Index(Index&& src);  // NOLINT(performance-noexcept-move-constructor)
    Index& operator=(const Index&) = delete;
    ~Index();

    static std::unique_ptr<Index> create(long long offset, int len);
    static std::unique_ptr<std::list<std::unique_ptr<Index>>> createList();

    // The end of a range, exclusive, in bytes. Wraps for a range that reaches past the last
    // 64-bit position.
    static long long endOf(long long offset, int len) { return wrapping::add(offset, len); }

    // Makes it another range; the charge stays the same.
    void set(long long newOffset, int newLen) {
        offset = newOffset;
        len = newLen;
    }

    long long getOffset() const { return offset; }
    int getLen() const { return len; }
    long long getEnd() const { return endOf(offset, len); }

    long long offset;  // bytes
    int len;           // bytes

  private:
    static constexpr int charge = 24;
};
