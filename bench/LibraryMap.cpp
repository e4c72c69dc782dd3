#include "LibraryMap.h"

#include "skiplist/SkipList.h"

namespace {

constexpr int height = 12;

jbyte numberOf(const Location& location) {
    return static_cast<jbyte>(location.number);
}

}  // namespace

LibraryMap::LibraryMap()
    : handle(Java_stor_device_skiplist_JniSkipListNative_createSkipList(env, nullptr, height,
                                                                        sectorSize)) {
    // A map draws its levels from the time of day: fixed, for two runs to do the same.
    SkipList::getSkipList(handle, nullptr)->engine->seed(7);
}

LibraryMap::~LibraryMap() {
    Java_stor_device_skiplist_JniSkipListNative_destorySkipList(env, nullptr, handle);
}

void LibraryMap::insert(const Range& range) {
    const Location& location = range.location;
    Java_stor_device_skiplist_JniSkipListNative_insert(
        env, nullptr, handle, range.offset, range.len, location.fileOffset, location.majorVer,
        location.minorVer, numberOf(location));
}

bool LibraryMap::compareAndSet(const Range& range, const Location& expected) {
    const Location& location = range.location;
    return Java_stor_device_skiplist_JniSkipListNative_compareAndSet(
               env, nullptr, handle, range.offset, range.len, expected.fileOffset,
               expected.majorVer, expected.minorVer, numberOf(expected), location.fileOffset,
               location.majorVer, location.minorVer, numberOf(location)) != JNI_FALSE;
}

void LibraryMap::copyTo(LibraryMap& other) const {
    Java_stor_device_skiplist_JniSkipListNative_copySkipList(env, nullptr, handle, other.handle);
}

void BufferedLibraryMap::insert(const Range& range) {
    const Location& location = range.location;
    StandInJvm::Buffer buffer{range.len};
    Java_stor_device_skiplist_JniSkipListNative_insertWithBuff(
        env, nullptr, handle, range.offset, range.len, location.fileOffset, location.majorVer,
        location.minorVer, numberOf(location), buffer.reference());
}
