// The native methods as the JVM calls them, with the stand-in JVM: texts, handles, environments.

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

#include "jni/Guard.h"
#include "memory/Memorystatistics.h"
#include "support/Faults.h"
#include "support/Native.h"
#include "support/TestMap.h"

namespace {

using namespace native;

constexpr const char* outOfMemoryError = "java/lang/OutOfMemoryError";
constexpr const char* runtimeException = "java/lang/RuntimeException";

class Native : public testing::Test {
  protected:
    Native() { handle = createSkipList(env, nullptr, 4, 512); }

    ~Native() override {
        destorySkipList(env, nullptr, handle);
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
        EXPECT_EQ(java.globalRefs, 0);
        EXPECT_EQ(java.retained(), 0);
    }

    SkipList& map() const { return *SkipList::getSkipList(handle, nullptr); }

    // Runs `call`, and expects this line and this Java exception of it.
    void expectFailure(const std::string& line, const char* javaClass, const std::string& message,
                       const std::function<void()>& call) {
        testing::internal::CaptureStderr();
        java.thrownClass.clear();
        java.thrownMessage.clear();
        call();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        EXPECT_EQ(java.thrownClass, javaClass);
        EXPECT_EQ(java.thrownMessage, message);
    }

    void expectRefused(const std::string& method, int charge, const std::function<void()>& call) {
        MemoryStat::lastAccessTm = 0;
        const auto used = MemoryStat::getStatisInfo()[6].load();
        MemoryStat::setMaxMem(0);
        const std::string message =
            "JNI memory exceeds the set maximum. memMax: 0 old:" + std::to_string(used) +
            " used:" + std::to_string(charge);
        expectFailure(method + " bad_alloc, msg:" + message, outOfMemoryError, message, call);
        MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
    }

    void insertBuffered(jlong offset, jint len) {
        insertWithBuff(env, nullptr, handle, offset, len, 0, 1, 2, -1, java.newBuffer(len));
    }

    long long chargedBefore = faults::chargedBytes();
    FakeJava java;
    JNIEnv* env = java.env();
    jlong handle = 0;
};

TEST_F(Native, BadArgumentsOfCreateAreRefusedWithTheirOwnTexts) {
    jlong result = 0;
    expectFailure("createSkipList height is invalid \n", runtimeException, "height is invalid",
                  [&] { result = createSkipList(env, nullptr, 0, 0); });
    EXPECT_EQ(result, -1);
    expectFailure("createSkipList sectorSize is invalid \n", runtimeException,
                  "sectorSize is invalid", [&] { result = createSkipList(env, nullptr, 1, 0); });
    EXPECT_EQ(result, -2);
    expectRefused("createSkipList", 32, [&] { result = createSkipList(env, nullptr, 4, 512); });
    EXPECT_EQ(result, -3);
    destorySkipList(env, nullptr, 0);
}

TEST_F(Native, RefusedChargesAreOutOfMemoryErrorsOfTheirMethods) {
    expectRefused("insert", 24, [&] { insert(env, nullptr, handle, 0, 10, 0, 1, 2, 3); });
    expectRefused("insertWithBuff", 32, [&] { insertBuffered(0, 10); });
    EXPECT_EQ(java.retained(), 0) << "refused before the buffer is sliced, nothing is lost";
    expectRefused("compareAndSet", 24, [&] {
        EXPECT_EQ(compareAndSet(env, nullptr, handle, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0), JNI_FALSE);
    });
    expectRefused("compareAndRelease", 24,
                  [&] { EXPECT_EQ(compareAndRelease(env, nullptr, handle, 0, 1, 0, 0, 0, 0), 0); });
    insert(env, nullptr, handle, 0, 10, 0, 1, 2, 3);
    expectRefused("copySkipList", 24, [&] { copySkipList(env, nullptr, handle, handle); });
}

TEST_F(Native, OtherFailuresAreRuntimeExceptionsOfTheirMethods) {
    insertBuffered(0, 10);
    const std::string slice = "Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice) failed";
    const std::string part =
        "Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice_params) failed";
    java.failSliceAfter = 0;
    expectFailure(slice + " \ninsertWithBuff exception, msg:" + slice + " \n", runtimeException,
                  slice, [&] { insertBuffered(20, 10); });
    java.failSliceAfter = 0;
    expectFailure(slice + " \ncopySkipList exception, msg:" + slice + " \n", runtimeException,
                  slice, [&] { copySkipList(env, nullptr, handle, handle); });
    java.failSliceAfter = 0;
    expectFailure(part + " \ninsert exception, msg:" + part, runtimeException, part,
                  [&] { insert(env, nullptr, handle, 5, 2, 0, 1, 2, 3); });
    EXPECT_EQ(map().size, 1);

    const jmethodID known = Buff::m_jmethod_byte_buf_release;
    Buff::m_jmethod_byte_buf_release = nullptr;
    const std::string lost = "Buff::~Buff JNI jmethod_byte_buf_release not initialized";
    expectFailure(lost + " \nrelease exception, msg:" + lost + " \n", runtimeException, lost,
                  [&] { EXPECT_EQ(release(env, nullptr, handle), 0); });
    expectFailure(
        lost + " \ncompareAndRelease exception, msg:" + lost + " \n", runtimeException, lost,
        [&] { EXPECT_EQ(compareAndRelease(env, nullptr, handle, 0, 10, 0, 1, 2, -1), 0); });
    Buff::m_jmethod_byte_buf_release = known;
    EXPECT_EQ(release(env, nullptr, handle), 10);

    const auto unlinked = Node::create(Index::create(0, 1), Data::createEmpty(), -1);
    const std::string range = "vector::_M_range_check";
    expectFailure("nextNode exception, msg:" + range + " \n", runtimeException, range, [&] {
        EXPECT_EQ(nextNode(env, nullptr, reinterpret_cast<jlong>(unlinked.get())), 0);
    });
    expectFailure("getStats exception, msg:std::bad_alloc \n", runtimeException, "std::bad_alloc",
                  [&] {
                      MemoryStat::lastAccessTm = 0;
                      const faults::Fault fault(faults::Kind::allocation, 1);
                      EXPECT_EQ(getStats(env, nullptr), nullptr);
                  });
}

TEST_F(Native, WhateverElseIsThrownIsAnUnknownException) {
    const Texts texts{.method = "m", .hasBadAllocClause = true, .exceptionEnd = " \n"};
    expectFailure("m exception, msg:unknown exception", runtimeException, "unknown exception", [&] {
        EXPECT_EQ(guarded(env, texts, []() -> int { throw 1; }, {1, 2, 3}), 3);
    });
    // A class that is not found leaves the exception of its lookup.
    java.missing = runtimeException;
    expectFailure("m exception, msg:vector \n", "", "", [&] {
        EXPECT_EQ(
            guarded(env, texts, []() -> int { throw std::out_of_range("vector"); }, {1, 2, 3}), 2);
    });
}

TEST_F(Native, InitSetsTheLimitAndTellsWhetherTheBufferClassIsComplete) {
    Buff::m_jmethod_byte_buf_release = nullptr;
    java.missing = "release()Z";
    EXPECT_EQ(init(env, nullptr, 1000), -1);
    EXPECT_EQ(MemoryStat::memMax, 1000);
    java.missing.clear();
    EXPECT_EQ(init(env, nullptr, std::numeric_limits<long long>::max()), 0);
}

TEST_F(Native, OnlyChangingMethodsTakeOverTheCallersEnvironment) {
    const auto refreshes = [this](const std::function<void(JNIEnv*)>& call) {
        map().setJNIEnv(env);
        call(java.otherEnv());
        return map().env->jniEnv == java.otherEnv();
    };
    insertBuffered(0, 10);
    const jobject buffer = java.newBuffer(10);
    EXPECT_TRUE(refreshes([&](auto* e) { insert(e, nullptr, handle, 50, 1, 0, 0, 0, 0); }));
    EXPECT_TRUE(refreshes(
        [&](auto* e) { insertWithBuff(e, nullptr, handle, 60, 10, 0, 0, 0, 0, buffer); }));
    EXPECT_TRUE(refreshes(
        [&](auto* e) { compareAndSet(e, nullptr, handle, 50, 1, 0, 0, 0, 0, 5, 5, 5, 5); }));
    EXPECT_TRUE(
        refreshes([&](auto* e) { compareAndRelease(e, nullptr, handle, 60, 10, 0, 0, 0, 0); }));
    EXPECT_EQ(java.lastReleaser, java.otherEnv());
    EXPECT_TRUE(refreshes([&](auto* e) { release(e, nullptr, handle); }));
    for (const auto& reader : std::vector<std::function<void(JNIEnv*)>>{
             [&](JNIEnv* e) { copySkipList(e, nullptr, handle, handle); },
             [&](JNIEnv* e) { getNodes(e, nullptr, handle, 0, 100); },
             [&](JNIEnv* e) { getAllNodes(e, nullptr, handle); },
             [&](JNIEnv* e) { getSize(e, nullptr, handle); }}) {
        EXPECT_FALSE(refreshes(reader));
    }
    insertBuffered(0, 10);
    destorySkipList(java.otherEnv(), nullptr, handle);
    EXPECT_EQ(java.lastReleaser, java.otherEnv());
    handle = 0;
}

TEST_F(Native, NodesAreWalkedAndReadThroughTheirHandles) {
    insertBuffered(0, 100);
    insert(env, nullptr, handle, 200, 100, 7, 8, 9, 4);
    insertWithBuff(env, nullptr, handle, 400, 1, 0, 0, 0, 0, nullptr);
    const jlong tail = reinterpret_cast<jlong>(map().tail.get());

    getNodes(env, nullptr, handle, 100, 100);
    EXPECT_EQ(java.array[0], java.array[1]);
    getNodes(env, nullptr, handle, 50, 200);
    const jlong first = java.array[0];
    const jlong second = nextNode(env, nullptr, first);
    const jlong third = nextNode(env, nullptr, second);
    EXPECT_EQ(java.array[1], third);
    getAllNodes(env, nullptr, handle);
    EXPECT_EQ(java.array, (std::vector<jlong>{first, tail}));
    EXPECT_EQ(nextNode(env, nullptr, third), tail);
    EXPECT_EQ(nextNode(env, nullptr, tail), 0);
    EXPECT_EQ(getNodeIndexOffset(env, nullptr, tail), std::numeric_limits<jlong>::max());

    EXPECT_EQ(getNodeIndexOffset(env, nullptr, second), 200);
    EXPECT_EQ(getNodeIndexLen(env, nullptr, second), 100);
    EXPECT_EQ(getNodeFileType(env, nullptr, second), JNI_FALSE);
    EXPECT_EQ(getNodeFileOffset(env, nullptr, second), 7);
    EXPECT_EQ(getMajorVer(env, nullptr, second), 8);
    EXPECT_EQ(getMinorVer(env, nullptr, second), 9);
    EXPECT_EQ(getNodeFileNumber(env, nullptr, second), 4);
    EXPECT_EQ(getNodeFileBuff(env, nullptr, second), nullptr);
    EXPECT_EQ(getNodeFileNumber(env, nullptr, first), -1);
    EXPECT_EQ(getNodeFileType(env, nullptr, first), JNI_TRUE);
    EXPECT_EQ(getNodeFileType(env, nullptr, third), JNI_TRUE);
    EXPECT_EQ(getNodeFileBuff(env, nullptr, third), nullptr);

    const int refs = java.localRefs;
    EXPECT_EQ(FakeJava::bufferOf(getNodeFileBuff(env, nullptr, first)).length, 100);
    EXPECT_EQ(java.localRefs, refs + 1);
    EXPECT_EQ(release(env, nullptr, handle), 100);
    EXPECT_EQ(getNodeFileBuff(env, nullptr, first), nullptr);

    EXPECT_EQ(getValidLen(env, nullptr, handle), 201);
    EXPECT_EQ(getRawLen(env, nullptr, handle), 201);
    EXPECT_EQ(getRawCount(env, nullptr, handle), 3);
    EXPECT_EQ(getSize(env, nullptr, handle), 3);
    java.failArray = true;
    EXPECT_EQ(getAllNodes(env, nullptr, handle), nullptr);
}

TEST_F(Native, StatisticsAreSevenNumbersOfWhichTheLastIsSet) {
    MemoryStat::lastAccessTm = 0;
    getStats(env, nullptr);
    EXPECT_EQ(java.array, (std::vector<jlong>{0, 0, 0, 0, 0, 0, faults::chargedBytes()}));
}

}  // namespace
