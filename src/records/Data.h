// Where the bytes of a stored range lie in a file, and optionally the Java buffer holding them: as
// a plain value, and as the record that a map stores.
//
// A file holds 8 bytes of its own after every sector of logical data, so a logical distance `d`
// is a file distance of `d + d / sectorSize * 8`; of native code `fileDistance` alone says so.
//
// Ownership: owns its `Buff`. Copying or slicing gives the new location a `Buff` of its own.
// Accounting: a `Data` charges 32 bytes from any constructor to the destructor; a constructor
// throws
//   jni_bad_alloc when that charge does not fit, and then a `Buff` already handed over is
//   destroyed. A `FileLocation` is free but for its `Buff`.
// Threads: as its `Buff`; a location without one may be read by all.
#pragma once

#include <memory>
#include <utility>

#include "memory/Memorystatistics.h"
#include "records/Buff.h"

struct FileLocation {
    FileLocation(int type, int offset, int majorVer, int minorVer, unsigned char number,
                 std::unique_ptr<Buff> buff = nullptr);
    FileLocation(const FileLocation& src);
    // The location of the `len` bytes that begin `skip` bytes into src's range.
    // REQUIRES: sectorSize != 0.
    FileLocation(const FileLocation& src, int skip, int len, int sectorSize);
    FileLocation& operator=(const FileLocation&) = delete;

    // The distance in the file of two bytes `logical` bytes apart on the device. The sectors
    // are truncated toward zero. REQUIRES: sectorSize != 0.
    static long long fileDistance(long long logical, int sectorSize);

    // True for memory type: the range was stored with a buffer, and is never fused.
    bool getType() const { return type; }
    bool isMemoryType() const { return type; }
    int getNumber() const { return number; }
    int getOffset() const { return offset; }
    int getMajorVer() const { return majorVer; }
    int getMinorVer() const { return minorVer; }
    Buff* getBuff() { return buff.get(); }
    bool hasBuff() const { return buff != nullptr; }

    // True for a location that names no place in any file; type and number do not count.
    bool isEmpty() const { return majorVer == -1 && minorVer == -1 && offset == -1; }

    // Moves the location on by `bytes` of its range.
    // REQUIRES: no buffer, since that holds the bytes from the start; sectorSize != 0.
    void skip(int bytes, int sectorSize);

    // Exchanges all of two locations, buffers included. Calls nobody and cannot fail.
    void swap(FileLocation& other) noexcept;

    // Gives the buffer back to Java; 1 if there was one, else 0.
    int releaseBuff();

    bool type;
    unsigned char number;
    int offset;
    int majorVer;
    int minorVer;
    std::unique_ptr<Buff> buff;
};

class Data : public FileLocation {
  public:
    // The empty location.
    Data() : Data(0, -1, -1, -1, 0) {}
    Data(int type, int offset, int majorVer, int minorVer, unsigned char number);
    Data(int type, int offset, int majorVer, int minorVer, unsigned char number,
         std::unique_ptr<Buff>&& buff);
    Data(const Data& src);
    Data(const Data& src, int skip, int len, int sectorSize);
    // The empty location, for an owner that charges for it as well, and does not run its
    // destructor.
    explicit Data(ChargedByOwner) : FileLocation(0, -1, -1, -1, 0) {}
    Data& operator=(const Data&) = delete;
    ~Data();

    static std::unique_ptr<Data> create(int type, int offset, int majorVer, int minorVer,
                                        unsigned char number);
    static std::unique_ptr<Data> create(int type, int offset, int majorVer, int minorVer,
                                        unsigned char number, std::unique_ptr<Buff>&& buff);
    static std::unique_ptr<Data> create(const Data& src);
    static std::unique_ptr<Data> createEmpty();
    static std::unique_ptr<Data> sliceData(const std::unique_ptr<Data>& src, int skip, int len,
                                           int sectorSize);

    bool equalsVer(std::unique_ptr<Data> other) const;

    static constexpr int charge = 32;  // bytes
};
