// The native methods of stor.device.skiplist.JniSkipListNative: each turns its handles and Java
// arguments into those of one operation, and runs it guarded.
//
// Handles are plain addresses and are not checked: the Java side calls with live ones only, and
// runs nothing beside a change of a map. The methods that pass `env` to getSkipList make the
// calling thread's environment that of the map; the others leave it as it is.
//
// The order is that of the Java class. All are defined with C linkage, so that one whose parameters
// differ from the generated header does not compile.
#include "stor_device_skiplist_JniSkipListNative.h"

#include <array>
#include <functional>
#include <memory>

#include "jni/Guard.h"
#include "memory/Memorystatistics.h"
#include "records/Buff.h"
#include "records/Diagnostics.h"
#include "skiplist/Node.h"
#include "skiplist/SkipList.h"

namespace {

constexpr const char* endsLine = " \n";
constexpr const char* runsOn = "";

// A method that changes a map: running out of memory is an OutOfMemoryError.
constexpr Texts changing(const char* method, const char* exceptionEnd) {
    return {.method = method, .hasBadAllocClause = true, .exceptionEnd = exceptionEnd};
}

// Any other method: every failure is a RuntimeException.
constexpr Texts other(const char* method, const char* exceptionEnd = endsLine) {
    return {.method = method, .hasBadAllocClause = false, .exceptionEnd = exceptionEnd};
}

jlong refuse(JNIEnv* env, const char* line, const char* message, jlong result) {
    writeDiagnostic("%s", line);
    raise(env, "java/lang/RuntimeException", message);
    return result;
}

Node* nodeOf(jlong handle) {
    return reinterpret_cast<Node*>(handle);
}

template <typename T>
jlong handleOf(const T* object) {
    return reinterpret_cast<jlong>(object);
}

template <typename Result, typename Accessor>
Result readNode(JNIEnv* env, const char* method, jlong node, Accessor accessor) {
    return guarded(env, other(method),
                   [&] { return static_cast<Result>(std::invoke(accessor, *nodeOf(node))); });
}

template <typename Result, typename Field>
Result readMap(JNIEnv* env, const char* method, jlong handle, Field field) {
    return guarded(env, other(method), [&] {
        return static_cast<Result>(std::invoke(field, *SkipList::getSkipList(handle, nullptr)));
    });
}

template <std::size_t Length>
jlongArray toJava(JNIEnv* env, const std::array<jlong, Length>& values) {
    constexpr auto length = static_cast<jsize>(Length);
    const jlongArray array = env->NewLongArray(length);
    // Without an array an OutOfMemoryError is on its way already.
    if (array != nullptr) env->SetLongArrayRegion(array, 0, length, values.data());
    return array;
}

// The run of nodes that `search` finds in the map, as the handles of its two ends.
template <typename Search>
jlongArray nodeRun(JNIEnv* env, const char* method, jlong handle, Search search) {
    return guarded(env, other(method), [&] {
        const SkipList::Run run = search(*SkipList::getSkipList(handle, nullptr));
        return toJava(env, std::array<jlong, 2>{handleOf(run.first), handleOf(run.last)});
    });
}

}  // namespace

extern "C" {

// --- Lifecycle -----------------------------------------------------------------------------------

jint Java_stor_device_skiplist_JniSkipListNative_init(JNIEnv* env, jclass, jlong maxMem) {
    constexpr Texts texts{.method = "init",
                          .hasBadAllocClause = false,
                          .exceptionEnd = endsLine,
                          .unknownEnd = " unknown exception \n"};
    return guarded(env, texts, [&]() -> jint {
        MemoryStat::setMaxMem(maxMem);
        return Buff::envInit(env) ? 0 : -1;
    });
}

jlong Java_stor_device_skiplist_JniSkipListNative_createSkipList(JNIEnv* env, jclass, jint height,
                                                                 jint sectorSize) {
    if (height <= 0) {
        return refuse(env, "createSkipList height is invalid \n", "height is invalid", -1);
    }
    if (sectorSize <= 0) {
        return refuse(env, "createSkipList sectorSize is invalid \n", "sectorSize is invalid", -2);
    }
    return guarded(env, changing("createSkipList", runsOn),
                   [&]() -> jlong {
                       std::shared_ptr<Env> mapEnv = Env::create(env);
                       return handleOf(new SkipList(mapEnv, height, sectorSize));
                   },
                   {.afterBadAlloc = -3, .afterException = -4, .afterUnknown = -5});
}

void Java_stor_device_skiplist_JniSkipListNative_destorySkipList(JNIEnv* env, jclass,
                                                                 jlong handle) {
    guarded(env, other("destorySkipList", runsOn),
            [&] { const std::unique_ptr<SkipList> map(SkipList::getSkipList(handle, env)); });
}

// --- Changes -------------------------------------------------------------------------------------

void Java_stor_device_skiplist_JniSkipListNative_insert(JNIEnv* env, jclass, jlong handle,
                                                        jlong offset, jint len, jint fileOffset,
                                                        jint majorVer, jint minorVer,
                                                        jbyte number) {
    guarded(env, changing("insert", runsOn), [&] {
        SkipList::getSkipList(handle, env)
            ->insert(offset, len, fileOffset, majorVer, minorVer,
                     static_cast<unsigned char>(number));
    });
}

void Java_stor_device_skiplist_JniSkipListNative_insertWithBuff(JNIEnv* env, jclass, jlong handle,
                                                                jlong offset, jint len,
                                                                jint fileOffset, jint majorVer,
                                                                jint minorVer, jbyte number,
                                                                jobject buf) {
    guarded(env, changing("insertWithBuff", endsLine), [&] {
        SkipList* const map = SkipList::getSkipList(handle, env);
        std::unique_ptr<Buff> buff;
        if (buf != nullptr) buff = Buff::create(map->env, buf);
        map->insert(offset, len, fileOffset, majorVer, minorVer, static_cast<unsigned char>(number),
                    std::move(buff));
    });
}

jboolean Java_stor_device_skiplist_JniSkipListNative_compareAndSet(
    JNIEnv* env, jclass, jlong handle, jlong offset, jint len, jint expFileOffset, jint expMajorVer,
    jint expMinorVer, jbyte expNumber, jint newFileOffset, jint newMajorVer, jint newMinorVer,
    jbyte newNumber) {
    return guarded(env, changing("compareAndSet", endsLine), [&]() -> jboolean {
        return SkipList::getSkipList(handle, env)
                       ->compareAndSet(offset, len, expFileOffset, expMajorVer, expMinorVer,
                                       static_cast<unsigned char>(expNumber), newFileOffset,
                                       newMajorVer, newMinorVer,
                                       static_cast<unsigned char>(newNumber))
                   ? JNI_TRUE
                   : JNI_FALSE;
    });
}

jlong Java_stor_device_skiplist_JniSkipListNative_compareAndRelease(JNIEnv* env, jclass,
                                                                    jlong handle, jlong offset,
                                                                    jint len, jint fileOffset,
                                                                    jint majorVer, jint minorVer,
                                                                    jbyte number) {
    return guarded(env, changing("compareAndRelease", endsLine), [&]() -> jlong {
        return SkipList::getSkipList(handle, env)
            ->compareAndRelease(offset, len, fileOffset, majorVer, minorVer,
                                static_cast<unsigned char>(number));
    });
}

jlong Java_stor_device_skiplist_JniSkipListNative_release(JNIEnv* env, jclass, jlong handle) {
    return guarded(env, other("release"),
                   [&]() -> jlong { return SkipList::getSkipList(handle, env)->release(); });
}

void Java_stor_device_skiplist_JniSkipListNative_copySkipList(JNIEnv* env, jclass, jlong srcHandle,
                                                              jlong dstHandle) {
    guarded(env, changing("copySkipList", endsLine), [&] {
        SkipList* const source = SkipList::getSkipList(srcHandle, nullptr);
        source->copyTo(SkipList::getSkipList(dstHandle, nullptr));
    });
}

jint Java_stor_device_skiplist_JniSkipListNative_tryTest(JNIEnv*, jclass) {
    return 0;
}

// --- Nodes ---------------------------------------------------------------------------------------

jlong Java_stor_device_skiplist_JniSkipListNative_nextNode(JNIEnv* env, jclass, jlong node) {
    return guarded(env, other("nextNode"),
                   [&]() -> jlong { return handleOf(nodeOf(node)->next(0).get()); });
}

jlong Java_stor_device_skiplist_JniSkipListNative_getNodeIndexOffset(JNIEnv* env, jclass,
                                                                     jlong node) {
    return readNode<jlong>(env, "getNodeIndexOffset", node, &Node::getOffset);
}

jint Java_stor_device_skiplist_JniSkipListNative_getNodeIndexLen(JNIEnv* env, jclass, jlong node) {
    return readNode<jint>(env, "getNodeIndexLen", node, &Node::getLen);
}

jboolean Java_stor_device_skiplist_JniSkipListNative_getNodeFileType(JNIEnv* env, jclass,
                                                                     jlong node) {
    return readNode<jboolean>(env, "getNodeFileType", node, &Node::getFileType);
}

jint Java_stor_device_skiplist_JniSkipListNative_getNodeFileOffset(JNIEnv* env, jclass,
                                                                   jlong node) {
    return readNode<jint>(env, "getNodeFileOffset", node, &Node::getFileOffset);
}

jint Java_stor_device_skiplist_JniSkipListNative_getNodeFileMajorVer(JNIEnv* env, jclass,
                                                                     jlong node) {
    return readNode<jint>(env, "getNodeFileMajorVer", node, &Node::getFileMajorVer);
}

jint Java_stor_device_skiplist_JniSkipListNative_getNodeFileMinorVer(JNIEnv* env, jclass,
                                                                     jlong node) {
    return readNode<jint>(env, "getNodeFileMinorVer", node, &Node::getFileMinorVer);
}

jbyte Java_stor_device_skiplist_JniSkipListNative_getNodeFileNumber(JNIEnv* env, jclass,
                                                                    jlong node) {
    return readNode<jbyte>(env, "getNodeFileNumber", node, &Node::getFileNumber);
}

jobject Java_stor_device_skiplist_JniSkipListNative_getNodeFileBuff(JNIEnv* env, jclass,
                                                                    jlong node) {
    return guarded(env, other("getNodeFileBuff"), [&]() -> jobject {
        Buff* const buff = nodeOf(node)->getFileBuff();
        const jobject held = buff == nullptr ? nullptr : buff->getBuff();
        return held == nullptr ? nullptr : env->NewLocalRef(held);
    });
}

// --- Counters ------------------------------------------------------------------------------------

jlong Java_stor_device_skiplist_JniSkipListNative_getSkipListValidLen(JNIEnv* env, jclass,
                                                                      jlong handle) {
    return readMap<jlong>(env, "getSkipListValidLen", handle, &SkipList::validLen);
}

jlong Java_stor_device_skiplist_JniSkipListNative_getSkipLIstRawLen(JNIEnv* env, jclass,
                                                                    jlong handle) {
    return readMap<jlong>(env, "getSkipLIstRawLen", handle, &SkipList::rawLen);
}

jint Java_stor_device_skiplist_JniSkipListNative_getSkipListRawCount(JNIEnv* env, jclass,
                                                                     jlong handle) {
    return readMap<jint>(env, "getSkipListRawCount", handle, &SkipList::rawCount);
}

jint Java_stor_device_skiplist_JniSkipListNative_getSkipListSize(JNIEnv* env, jclass,
                                                                 jlong handle) {
    return readMap<jint>(env, "getSkipListSize", handle, &SkipList::size);
}

jlongArray Java_stor_device_skiplist_JniSkipListNative_getStats(JNIEnv* env, jclass) {
    return guarded(env, other("getStats"), [&] {
        const std::atomic<long long>* const info = MemoryStat::getStatisInfo();
        std::array<jlong, MemoryStat::infoLength> values{};
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = info[i].load(std::memory_order_relaxed);
        }
        return toJava(env, values);
    });
}

// --- Queries -------------------------------------------------------------------------------------

jlongArray Java_stor_device_skiplist_JniSkipListNative_getNodes(JNIEnv* env, jclass, jlong handle,
                                                                jlong offset, jint len) {
    return nodeRun(env, "getNodes", handle,
                   [&](const SkipList& map) { return map.runOver(offset, len); });
}

jlongArray Java_stor_device_skiplist_JniSkipListNative_getAllNodes(JNIEnv* env, jclass,
                                                                   jlong handle) {
    return nodeRun(env, "getAllNodes", handle,
                   [](const SkipList& map) { return map.runOverAll(); });
}

}  // extern "C"
