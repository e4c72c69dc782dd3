#include "NativeMap.h"

#include "skiplist/SkipList.h"
#include "stor_device_skiplist_JniSkipListNative.h"

NativeMap::NativeMap()
    : handle(Java_stor_device_skiplist_JniSkipListNative_createSkipList(jvm.env(), nullptr, height,
                                                                        sectorSize)) {
    // A map draws its levels from the time of day: fixed, for two runs to do the same.
    SkipList::getSkipList(handle, nullptr)->engine->seed(7);
}

NativeMap::~NativeMap() {
    Java_stor_device_skiplist_JniSkipListNative_destorySkipList(jvm.env(), nullptr, handle);
}

void NativeMap::insert(const Range& range) {
    const Location& location = range.location;
    Java_stor_device_skiplist_JniSkipListNative_insert(
        jvm.env(), nullptr, handle, range.offset, range.len, location.fileOffset, location.majorVer,
        location.minorVer, static_cast<jbyte>(location.number));
}

unsigned long long NativeMap::walk(long long offset, int len) {
    Java_stor_device_skiplist_JniSkipListNative_getNodes(jvm.env(), nullptr, handle, offset, len);
    const auto [first, last] = jvm.pair();
    unsigned long long sum = 0;
    for (jlong node = first; node != last;
         node = Java_stor_device_skiplist_JniSkipListNative_nextNode(jvm.env(), nullptr, node)) {
        sum += digest(rangeOf(node));
    }
    return sum;
}

std::vector<Range> NativeMap::ranges() {
    Java_stor_device_skiplist_JniSkipListNative_getAllNodes(jvm.env(), nullptr, handle);
    const auto [first, last] = jvm.pair();
    std::vector<Range> all;
    for (jlong node = first; node != last;
         node = Java_stor_device_skiplist_JniSkipListNative_nextNode(jvm.env(), nullptr, node)) {
        all.push_back(rangeOf(node));
    }
    return all;
}

Range NativeMap::rangeOf(jlong node) {
    JNIEnv* const env = jvm.env();
    return {
        Java_stor_device_skiplist_JniSkipListNative_getNodeIndexOffset(env, nullptr, node),
        Java_stor_device_skiplist_JniSkipListNative_getNodeIndexLen(env, nullptr, node),
        {Java_stor_device_skiplist_JniSkipListNative_getNodeFileOffset(env, nullptr, node),
         Java_stor_device_skiplist_JniSkipListNative_getNodeFileMajorVer(env, nullptr, node),
         Java_stor_device_skiplist_JniSkipListNative_getNodeFileMinorVer(env, nullptr, node),
         static_cast<unsigned char>(
             Java_stor_device_skiplist_JniSkipListNative_getNodeFileNumber(env, nullptr, node))}};
}
