// The native methods as the JVM calls them: texts, return values, environments, and buffers.

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "memory/Memorystatistics.h"
#include "support/Faults.h"
#include "support/Native.h"
#include "support/TestMap.h"

namespace {

using namespace native;
using faults::Fault, faults::Kind;

constexpr const char* outOfMemoryError = "java/lang/OutOfMemoryError";
constexpr const char* runtimeException = "java/lang/RuntimeException";
constexpr long long noLimit = std::numeric_limits<long long>::max();

class Native : public testing::Test {
  protected:
    ~Native() override {
        map.reset();
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
        EXPECT_EQ(java.globalRefs, 0);
        EXPECT_EQ(java.localRefs, 0);
        EXPECT_EQ(java.retained(), 0);
    }

    // Runs `call`, and expects this line and this Java exception of it.
    void expectFailure(const std::string& line, const std::string& javaClass,
                       const std::string& message, const std::function<void()>& call) {
        testing::internal::CaptureStderr();
        java.thrownClass.clear();
        java.thrownMessage.clear();
        call();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
        EXPECT_EQ(java.thrownClass, javaClass);
        EXPECT_EQ(java.thrownMessage, message);
    }

    static void forgetMethods() {
        Buff::m_jmethod_byte_buf_retained_slice = nullptr;
        Buff::m_jmethod_byte_buf_retained_slice_params = nullptr;
        Buff::m_jmethod_byte_buf_release = nullptr;
    }

    long long chargedBefore = faults::chargedBytes();
    FakeJava java;
    JNIEnv* env = java.env();
    std::unique_ptr<TestMap> map = std::make_unique<TestMap>(java);
    jlong handle = map->handle;
};

// Every method whose body calls what may throw, with each kind of exception thrown there.
TEST_F(Native, FailuresBecomeTheLinesExceptionsAndValuesOfTheirMethods) {
    struct Method {
        std::string name;
        bool hasBadAlloc;
        std::string exceptionEnd;
        std::function<jlong()> call;
        std::array<jlong, 3> results{};
        std::string unknownEnd = ", msg:unknown exception";
    };
    const auto address = [](auto reference) { return reinterpret_cast<jlong>(reference); };
    map->insert(buffered(java, inFile(0, 10, 0)));
    map->insert(inFile(20, 9, 0));
    getAllNodes(env, nullptr, handle);
    const jlong node = java.array[0];
    const jobject buffer = java.newBuffer(10);
    const std::vector<Method> methods{
        {"createSkipList",
         true,
         "",
         [&] { return createSkipList(env, nullptr, 4, 512); },
         {-3, -4, -5}},
        {"insert", true, "", [&] { return insert(env, nullptr, handle, 9, 9, 0, 1, 2, 3), 0; }},
        {"insertWithBuff", true, " \n",
         [&] { return insertWithBuff(env, nullptr, handle, 9, 9, 0, 1, 2, 3, buffer), 0; }},
        {"compareAndSet", true, " \n",
         [&] { return compareAndSet(env, nullptr, handle, 20, 9, 0, 1, 2, 3, 7, 7, 7, 7); }},
        {"compareAndRelease", true, " \n",
         [&] { return compareAndRelease(env, nullptr, handle, 0, 10, 0, 1, 2, 3); }},
        {"release", false, " \n", [&] { return release(env, nullptr, handle); }},
        {"copySkipList", true, " \n",
         [&] { return copySkipList(env, nullptr, handle, handle), 0; }},
        {"getNodeFileBuff", false, " \n",
         [&] { return address(getNodeFileBuff(env, nullptr, node)); }},
        {"getNodes", false, " \n", [&] { return address(getNodes(env, nullptr, handle, 0, 9)); }},
        {"getAllNodes", false, " \n", [&] { return address(getAllNodes(env, nullptr, handle)); }},
        {"getStats", false, " \n",
         [&] { return MemoryStat::lastAccessTm = 0, address(getStats(env, nullptr)); }},
        {"init",
         false,
         " \n",
         [&] { return forgetMethods(), init(env, nullptr, noLimit), 0; },
         {},
         " unknown exception \n"},
    };
    for (const Method& method : methods) {
        const auto failing = [&](Kind kind, const std::string& end, const char* type,
                                 const std::string& message, std::size_t clause) {
            expectFailure(method.name + end, type, message, [&] {
                const Fault fault(kind, 1);
                EXPECT_EQ(method.call(), method.results[clause]) << method.name;
            });
        };
        const std::string start = " exception, msg:";
        if (method.hasBadAlloc) {
            failing(Kind::badAlloc, " bad_alloc, msg:std::bad_alloc", outOfMemoryError,
                    "std::bad_alloc", 0);
        } else {
            failing(Kind::badAlloc, start + "std::bad_alloc" + method.exceptionEnd,
                    runtimeException, "std::bad_alloc", 1);
        }
        failing(Kind::exception, start + "why" + method.exceptionEnd, runtimeException, "why", 1);
        failing(Kind::unknown, " exception" + method.unknownEnd, runtimeException,
                "unknown exception", 2);
    }
    EXPECT_TRUE(Buff::envInit(env));
    const auto unlinked = Node::create(Index(0, 1), -1);
    const std::string range = "vector::_M_range_check";
    expectFailure("nextNode exception, msg:" + range + " \n", runtimeException, range,
                  [&] { EXPECT_EQ(nextNode(env, nullptr, address(unlinked.get())), 0); });
}

TEST_F(Native, ArgumentsOfCreateAndTheLimitAreRefusedWithTheirOwnTexts) {
    expectFailure("createSkipList height is invalid \n", runtimeException, "height is invalid",
                  [&] { EXPECT_EQ(createSkipList(env, nullptr, 0, 0), -1); });
    expectFailure("createSkipList sectorSize is invalid \n", runtimeException,
                  "sectorSize is invalid",
                  [&] { EXPECT_EQ(createSkipList(env, nullptr, 1, 0), -2); });
    destorySkipList(env, nullptr, 0);
    const long long used = faults::sweptTotal();
    EXPECT_EQ(init(env, nullptr, 16), 0);
    const std::string message =
        "JNI memory exceeds the set maximum. memMax: 16 old:" + std::to_string(used) + " used:32";
    expectFailure("createSkipList bad_alloc, msg:" + message, outOfMemoryError, message,
                  [&] { EXPECT_EQ(createSkipList(env, nullptr, 4, 512), -3); });
    // A class that is not found leaves the exception of its lookup.
    java.missing = outOfMemoryError;
    expectFailure("createSkipList bad_alloc, msg:" + message, "", "",
                  [&] { EXPECT_EQ(createSkipList(env, nullptr, 4, 512), -3); });
    EXPECT_EQ(init(env, nullptr, noLimit), 0);
}

TEST_F(Native, FailuresOfBuffersAreWrittenWhereTheyHappen) {
    map->insert(buffered(java, inFile(0, 10, 0)));
    const jobject buffer = java.newBuffer(10);
    const auto expectBoth = [&](const std::string& text, const std::string& method, const char* end,
                                const std::function<void()>& call) {
        expectFailure(text + " \n" + method + " exception, msg:" + text + end, runtimeException,
                      text, call);
    };
    const auto insertBuffer = [&] {
        insertWithBuff(env, nullptr, handle, 9, 9, 0, 1, 2, 3, buffer);
    };
    const std::string slice = "Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice";
    expectBoth(slice + ") failed", "insertWithBuff", " \n", [&] {
        const Fault fault(Kind::javaCall, 1);
        insertBuffer();
    });
    expectBoth(slice + "_params) failed", "insert", "", [&] {
        const Fault fault(Kind::javaCall, 1);
        insert(env, nullptr, handle, 5, 2, 0, 1, 2, 3);
    });
    forgetMethods();
    expectBoth("Buff::~Buff JNI jmethod_byte_buf_release not initialized", "release", " \n",
               [&] { EXPECT_EQ(release(env, nullptr, handle), 0); });
    for (const char* missing :
         {"io/netty/buffer/ByteBuf", "release()Z", "retainedSlice()Lio/netty/buffer/ByteBuf;",
          "retainedSlice(II)Lio/netty/buffer/ByteBuf;"}) {
        java.missing = missing;
        java.localRefs = 0;  // a class that was found stays until the native method ends
        EXPECT_EQ(init(env, nullptr, noLimit), -1);
        EXPECT_EQ(Buff::m_jmethod_byte_buf_retained_slice, nullptr);
        expectBoth("Buff::create JNIEnv initialize failed", "insertWithBuff", " \n", insertBuffer);
    }
    java.missing.clear();
    java.localRefs = 0;
    auto shared = Env::create(env);
    const auto throws = [&](const std::string& text, const std::function<void()>& call) {
        testing::internal::CaptureStderr();
        EXPECT_THROW(call(), std::runtime_error);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "Buff::Buff JNI jmethod_" + text);
    };
    throws("byte_buf_retained_slice not initialized \n", [&] { Buff(shared, buffer); });
    throws("byte_buf_retained_slice_params not initialized \n",
           [&] { Buff(shared, buffer, 0, 1); });
    EXPECT_TRUE(Buff::envInit(env));
    const int lookups = java.lookups;
    EXPECT_TRUE(Buff::envInit(env));
    EXPECT_EQ(java.lookups, lookups);

    const auto part = Buff::create(shared, buffer, 2, 5);
    EXPECT_EQ(FakeJava::bufferOf(part->getBuff()).start, 2);
    part->release();
    part->release();
    EXPECT_EQ(part->getBuff(), nullptr);
}

TEST_F(Native, OnlyChangingMethodsTakeOverTheCallersEnvironment) {
    map->insert(buffered(java, inFile(0, 10, 0)));
    const jobject buffer = java.newBuffer(10);
    const auto refreshes = [&](const std::function<void(JNIEnv*)>& call) {
        (*map)->setJNIEnv(env);
        call(java.otherEnv());
        return (*map)->env->jniEnv == java.otherEnv();
    };
    for (const auto& changing : std::vector<std::function<void(JNIEnv*)>>{
             [&](JNIEnv* e) { insert(e, nullptr, handle, 50, 1, 0, 0, 0, 0); },
             [&](JNIEnv* e) { insertWithBuff(e, nullptr, handle, 60, 10, 0, 0, 0, 0, buffer); },
             [&](JNIEnv* e) { compareAndSet(e, nullptr, handle, 50, 1, 0, 0, 0, 0, 5, 5, 5, 5); },
             [&](JNIEnv* e) { compareAndRelease(e, nullptr, handle, 60, 10, 0, 0, 0, 0); },
             [&](JNIEnv* e) { release(e, nullptr, handle); }}) {
        EXPECT_TRUE(refreshes(changing));
    }
    for (const auto& reading : std::vector<std::function<void(JNIEnv*)>>{
             [&](JNIEnv* e) { copySkipList(e, nullptr, handle, handle); },
             [&](JNIEnv* e) { getNodes(e, nullptr, handle, 0, 100); },
             [&](JNIEnv* e) { getAllNodes(e, nullptr, handle); },
             [&](JNIEnv* e) { getSize(e, nullptr, handle); }}) {
        EXPECT_FALSE(refreshes(reading));
    }
    map->insert(buffered(java, inFile(0, 10, 0)));
    // A copied buffer is given back through the environment of its own map, as all are at its end.
    const jlong copy = createSkipList(java.otherEnv(), nullptr, 4, 512);
    copySkipList(env, nullptr, handle, copy);
    EXPECT_EQ(release(java.env(), nullptr, handle), 10);
    EXPECT_EQ(java.lastReleaser, java.env());
    destorySkipList(java.otherEnv(), nullptr, copy);
    EXPECT_EQ(java.lastReleaser, java.otherEnv());
}

TEST_F(Native, LimitAndStatisticsAreOfTheWholeProcess) {
    EXPECT_EQ(tryTest(env, nullptr), 0);
    EXPECT_EQ(init(env, nullptr, 1000), 0);
    EXPECT_EQ(MemoryStat::memMax, 1000);
    EXPECT_EQ(init(env, nullptr, noLimit), 0);
    MemoryStat::lastAccessTm = 0;
    getStats(env, nullptr);
    EXPECT_EQ(java.array, (std::vector<jlong>{0, 0, 0, 0, 0, 0, faults::chargedBytes()}));
}

}  // namespace
