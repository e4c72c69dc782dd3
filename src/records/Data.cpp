#include "records/Data.h"

#include <utility>

#include "records/Wrapping.h"

namespace {

constexpr long long sectorOverhead = 8;  // bytes a file adds after every sector

int advance(int offset, int skip, int sectorSize) {
    // File offsets are 32 bits wide and wrap there.
    return static_cast<int>(offset + FileLocation::fileDistance(skip, sectorSize));
}

}  // namespace

FileLocation::FileLocation(int typeFlag, int fileOffset, int major, int minor,
                           unsigned char fileNumber, std::unique_ptr<Buff> buffer)
    : type(typeFlag != 0),
      number(fileNumber),
      offset(fileOffset),
      majorVer(major),
      minorVer(minor),
      buff(std::move(buffer)) {}

FileLocation::FileLocation(const FileLocation& src)
    : FileLocation(src.type ? 1 : 0, src.offset, src.majorVer, src.minorVer, src.number,
                   src.buff ? Buff::create(src.buff) : nullptr) {}

FileLocation::FileLocation(const FileLocation& src, int skip, int len, int sectorSize)
    : FileLocation(src.type ? 1 : 0, advance(src.offset, skip, sectorSize), src.majorVer,
                   src.minorVer, src.number,
                   src.buff ? Buff::create(src.buff, skip, len) : nullptr) {}

long long FileLocation::fileDistance(long long logical, int sectorSize) {
    return wrapping::add(logical, wrapping::multiply(logical / sectorSize, sectorOverhead));
}

void FileLocation::skip(int bytes, int sectorSize) {
    offset = advance(offset, bytes, sectorSize);
}

void FileLocation::swap(FileLocation& other) noexcept {
    std::swap(type, other.type);
    std::swap(number, other.number);
    std::swap(offset, other.offset);
    std::swap(majorVer, other.majorVer);
    std::swap(minorVer, other.minorVer);
    buff.swap(other.buff);
}

int FileLocation::releaseBuff() {
    if (!buff) return 0;
    buff->release();
    buff.reset();
    return 1;
}

Data::Data(int typeFlag, int fileOffset, int major, int minor, unsigned char fileNumber)
    : Data(typeFlag, fileOffset, major, minor, fileNumber, nullptr) {}

Data::Data(int typeFlag, int fileOffset, int major, int minor, unsigned char fileNumber,
           std::unique_ptr<Buff>&& buffer)
    : FileLocation(typeFlag, fileOffset, major, minor, fileNumber, std::move(buffer)) {
    MemoryStat::statsMem(charge);
}

Data::Data(const Data& src) : FileLocation(src) {
    MemoryStat::statsMem(charge);
}

Data::Data(const Data& src, int skip, int len, int sectorSize)
    : FileLocation(src, skip, len, sectorSize) {
    MemoryStat::statsMem(charge);
}

Data::~Data() {
    buff.reset();
    MemoryStat::statsMem(-charge);
}

std::unique_ptr<Data> Data::create(int type, int offset, int majorVer, int minorVer,
                                   unsigned char number) {
    return std::make_unique<Data>(type, offset, majorVer, minorVer, number);
}

std::unique_ptr<Data> Data::create(int type, int offset, int majorVer, int minorVer,
                                   unsigned char number, std::unique_ptr<Buff>&& buff) {
    return std::make_unique<Data>(type, offset, majorVer, minorVer, number, std::move(buff));
}

std::unique_ptr<Data> Data::create(const Data& src) {
    return std::make_unique<Data>(src);
}

std::unique_ptr<Data> Data::createEmpty() {
    return std::make_unique<Data>();
}

std::unique_ptr<Data> Data::sliceData(const std::unique_ptr<Data>& src, int skip, int len,
                                      int sectorSize) {
    return std::make_unique<Data>(*src, skip, len, sectorSize);
}

bool Data::equalsVer(std::unique_ptr<Data> other) const {
    return majorVer == other->majorVer && minorVer == other->minorVer;
}
