#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "records/Buff.h"
#include "records/Data.h"
#include "records/Index.h"
#include "skiplist/Node.h"
#include "support/FakeJava.h"
#include "support/Faults.h"

namespace {

void forgetMethods() {
    Buff::m_jmethod_byte_buf_retained_slice = nullptr;
    Buff::m_jmethod_byte_buf_retained_slice_params = nullptr;
    Buff::m_jmethod_byte_buf_release = nullptr;
}

// Expects `action` to throw a std::runtime_error with `text` and to write it as a line.
template <typename Action>
void expectFailure(const std::string& text, Action action) {
    testing::internal::CaptureStderr();
    try {
        action();
        ADD_FAILURE() << "nothing was thrown, expected: " << text;
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(e.what(), text);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), text + " \n");
}

class Records : public testing::Test {
  protected:
    ~Records() override { EXPECT_EQ(faults::chargedBytes(), chargedBefore); }

    long long chargedBefore = faults::chargedBytes();
    FakeJava java;
};

TEST_F(Records, ChargesAreFixedPerRecord) {
    const auto charged = [this] { return faults::chargedBytes() - chargedBefore; };
    Index index(0, 4096);
    EXPECT_EQ(charged(), 24);
    const Index copy(index);
    const Index moved(std::move(index));
    EXPECT_EQ(charged(), 72);
    const auto data = Data::create(5, 100, 1, 2, 3);
    EXPECT_TRUE(data->getType());
    const auto slice = Data::sliceData(data, 1, 1, 512);
    EXPECT_EQ(charged(), 72 + 64);
    const auto node = Node::create(Index::create(0, 1), Data::create(*data), 3);
    EXPECT_EQ(charged(), 72 + 64 + 24 + 32 + 48);
}

TEST_F(Records, FileOffsetAdvancesByEightBytesForEveryWholeSectorSkipped) {
    const auto source = Data::create(0, 1000, 1, 2, 3);
    EXPECT_EQ(Data::sliceData(source, 4095, 512, 4096)->getOffset(), 5095);
    EXPECT_EQ(Data::sliceData(source, 4096, 512, 4096)->getOffset(), 5104);
    EXPECT_EQ(Data::sliceData(source, 8192, 512, 4096)->getOffset(), 9208);
    EXPECT_EQ(Data::fileDistance(-512, 512), -520);
    EXPECT_EQ(Data::fileDistance(-511, 512), -511);
}

TEST_F(Records, EmptinessIsAMatterOfOffsetAndVersions) {
    EXPECT_TRUE(Data::createEmpty()->isEmpty());
    EXPECT_TRUE(Data::create(1, -1, -1, -1, 7)->isEmpty());
    EXPECT_FALSE(Data::create(0, -1, 0, -1, 0)->isEmpty());
    EXPECT_FALSE(Data::sliceData(Data::createEmpty(), 5, 5, 512)->isEmpty());
    EXPECT_TRUE(Data::create(0, 1, 2, 3, 4)->equalsVer(Data::create(1, 9, 2, 3, 5)));
    EXPECT_FALSE(Data::create(0, 1, 2, 3, 4)->equalsVer(Data::create(0, 1, 2, 4, 4)));
}

TEST_F(Records, PerLevelArraysAreRangeChecked) {
    const auto sentinel = Node::create(Index::create(0, 1), Data::createEmpty(), -1);
    try {
        sentinel->nextNode();
        ADD_FAILURE() << "a node without levels has a successor";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "vector::_M_range_check");
    }
    EXPECT_THROW(Node::clearArr(3, Node::createArr(2)), std::out_of_range);
    EXPECT_THROW(Node::createArr(-1), std::bad_alloc);
}

TEST_F(Records, MethodLookupIsTriedAgainUntilAllThreeAreFound) {
    forgetMethods();
    const auto env = Env::create(java.env());
    const jobject buffer = java.newBuffer(10);
    for (const char* missing :
         {"io/netty/buffer/ByteBuf", "release()Z", "retainedSlice()Lio/netty/buffer/ByteBuf;",
          "retainedSlice(II)Lio/netty/buffer/ByteBuf;"}) {
        java.missing = missing;
        expectFailure("Buff::create JNIEnv initialize failed", [&] { Buff::create(env, buffer); });
        EXPECT_EQ(Buff::m_jmethod_byte_buf_release, nullptr);
    }
    std::shared_ptr<Env> shared = env;
    expectFailure("Buff::Buff JNI jmethod_byte_buf_retained_slice not initialized",
                  [&] { Buff(shared, buffer); });
    expectFailure("Buff::Buff JNI jmethod_byte_buf_retained_slice_params not initialized",
                  [&] { Buff(shared, buffer, 0, 1); });

    java.missing.clear();
    EXPECT_TRUE(Buff::envInit(java.env()));
    const int lookups = java.lookups;
    EXPECT_TRUE(Buff::envInit(java.env()));
    EXPECT_EQ(java.lookups, lookups);
}

TEST_F(Records, BufferIsHeldByASliceAndGivenBackOnce) {
    const auto env = Env::create(java.env());
    auto whole = Buff::create(env, java.newBuffer(10));
    auto data = Data::create(1, 0, 1, 2, 3, Buff::create(env, java.newBuffer(20), 4, 12));
    const auto copy = Data::create(*data);
    const auto slice = Data::sliceData(data, 3, 5, 512);
    EXPECT_EQ(FakeJava::bufferOf(slice->getBuff()->getBuff()).start, 4 + 3);
    EXPECT_EQ(FakeJava::bufferOf(slice->getBuff()->getBuff()).length, 5);
    EXPECT_EQ(java.globalRefs, 4);
    EXPECT_EQ(java.retained(), 4);

    whole->release();
    whole->release();
    EXPECT_EQ(whole->getBuff(), nullptr);
    EXPECT_EQ(data->releaseBuff(), 1);
    EXPECT_EQ(data->releaseBuff(), 0);
    EXPECT_TRUE(copy->hasBuff());
    EXPECT_EQ(java.retained(), 2);
    EXPECT_EQ(java.globalRefs, 2);
    EXPECT_EQ(java.localRefs, 0);
}

TEST_F(Records, FailedJavaCallLeavesNothingBehind) {
    const auto env = Env::create(java.env());
    const jobject buffer = java.newBuffer(10);
    const auto buff = Buff::create(env, buffer);
    java.failSliceAfter = 0;
    expectFailure("Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice) failed",
                  [&] { Buff::create(env, buffer); });
    expectFailure("Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice_params) failed",
                  [&] { Buff::create(buff, 8, 3); });
    EXPECT_EQ(java.retained(), 1);
    EXPECT_EQ(java.globalRefs, 1);
    EXPECT_EQ(env.use_count(), 2);
}

}  // namespace
