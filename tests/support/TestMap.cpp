#include "support/TestMap.h"

#include "support/Native.h"

using namespace native;

TestMap::TestMap(FakeJava& fake, int sectorSize, int height, unsigned seed)
    : java(fake), handle(createSkipList(fake.env(), nullptr, height, sectorSize)) {
    if (handle > 0) (*this)->engine->seed(seed);
}

TestMap::~TestMap() {
    if (handle > 0) destorySkipList(java.env(), nullptr, handle);
}

void TestMap::insert(const Stored& range) {
    const auto number = static_cast<jbyte>(range.number);
    if (range.type) {
        FakeJava::ByteBuf whole{range.memory, range.bufferStart, range.bufferLength};
        insertWithBuff(java.env(), nullptr, handle, range.offset, range.len, range.fileOffset,
                       range.majorVer, range.minorVer, number,
                       range.hasBuff ? reinterpret_cast<jobject>(&whole) : nullptr);
    } else {
        native::insert(java.env(), nullptr, handle, range.offset, range.len, range.fileOffset,
                       range.majorVer, range.minorVer, number);
    }
}

bool TestMap::compareAndSet(const Stored& request, const Stored& target) {
    return native::compareAndSet(java.env(), nullptr, handle, request.offset, request.len,
                                 request.fileOffset, request.majorVer, request.minorVer,
                                 static_cast<jbyte>(request.number), target.fileOffset,
                                 target.majorVer, target.minorVer,
                                 static_cast<jbyte>(target.number)) == JNI_TRUE;
}

long long TestMap::compareAndRelease(const Stored& request) {
    return native::compareAndRelease(java.env(), nullptr, handle, request.offset, request.len,
                                     request.fileOffset, request.majorVer, request.minorVer,
                                     static_cast<jbyte>(request.number));
}

long long TestMap::release() {
    return native::release(java.env(), nullptr, handle);
}

void TestMap::copyTo(const TestMap& destination) const {
    copySkipList(java.env(), nullptr, handle, destination.handle);
}

Ranges TestMap::query(long long offset, int len) const {
    getNodes(java.env(), nullptr, handle, offset, len);
    return readRun();
}

Ranges TestMap::all() const {
    getAllNodes(java.env(), nullptr, handle);
    return readRun();
}

Ranges TestMap::readRun() const {
    JNIEnv* const env = java.env();
    Ranges ranges;
    for (jlong node = java.array[0]; node != java.array[1]; node = nextNode(env, nullptr, node)) {
        Stored range{getNodeIndexOffset(env, nullptr, node),
                     getNodeIndexLen(env, nullptr, node),
                     getNodeFileType(env, nullptr, node) == JNI_TRUE,
                     static_cast<unsigned char>(getNodeFileNumber(env, nullptr, node)),
                     getNodeFileOffset(env, nullptr, node),
                     getMajorVer(env, nullptr, node),
                     getMinorVer(env, nullptr, node)};
        if (const jobject slice = getNodeFileBuff(env, nullptr, node)) {
            const FakeJava::ByteBuf& buffer = FakeJava::bufferOf(slice);
            range.hasBuff = true;
            range.memory = buffer.memory;
            range.bufferStart = buffer.start;
            range.bufferLength = buffer.length;
            env->DeleteLocalRef(slice);
        }
        ranges.push_back(range);
    }
    return ranges;
}

Snapshot TestMap::counters() const {
    JNIEnv* const env = java.env();
    return {{},
            getValidLen(env, nullptr, handle),
            getSize(env, nullptr, handle),
            getRawLen(env, nullptr, handle),
            getRawCount(env, nullptr, handle)};
}

Stored buffered(FakeJava& java, Stored range) {
    range.type = range.hasBuff = true;
    range.memory = FakeJava::bufferOf(java.newBuffer(range.len)).memory;
    range.bufferLength = range.len;
    return range;
}
