#include "memory/Memorystatistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <thread>
#include <vector>

#include "records/Index.h"
#include "support/Faults.h"

namespace {

long long sweptTotal() {
    MemoryStat::lastAccessTm = 0;
    return MemoryStat::getStatisInfo()[6];
}

// Leaves the accounting as a fresh process has it.
class Memory : public testing::Test {
  protected:
    ~Memory() override {
        MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
    }

    long long chargedBefore = faults::chargedBytes();
};

TEST_F(Memory, LimitIsJudgedAgainstTheSweptTotalAndMayBeReachedExactly) {
    const Index before(0, 1);
    const long long swept = sweptTotal();
    MemoryStat::setMaxMem(swept + 24);
    const Index exact(0, 1);
    const Index unswept(0, 1);  // the total of the last sweep does not know of `exact`
    MemoryStat::setMaxMem(swept + 23);
    try {
        const Index refused(0, 1);
        FAIL() << "a charge above the limit went through";
    } catch (const jni_bad_alloc& e) {
        EXPECT_EQ(std::string(e.what()),
                  "JNI memory exceeds the set maximum. memMax: " + std::to_string(swept + 23) +
                      " old:" + std::to_string(swept) + " used:24");
    }
}

TEST_F(Memory, SweepsAreFiveSecondsApart) {
    const long long swept = sweptTotal();
    const Index later(0, 1);
    EXPECT_EQ(MemoryStat::getStatisInfo()[6], swept);
    MemoryStat::lastAccessTm = MemoryStat::getTimeStamp() - 5001;
    EXPECT_EQ(MemoryStat::getStatisInfo()[6], swept + 24);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(MemoryStat::getStatisInfo()[i], 0);
}

TEST_F(Memory, NegativeTotalReadsAsZero) {
    const long long swept = sweptTotal();
    MemoryStat::statsMem(-swept - 100);
    EXPECT_EQ(sweptTotal(), 0);
    MemoryStat::statsMem(swept + 100);
    EXPECT_EQ(sweptTotal(), swept);
}

TEST_F(Memory, IdleRecordIsRetiredAndReplacedByTheNextCharge) {
    MemoryStat::statsMem(1);
    const std::shared_ptr<Stats> mine = thr_local_stats;
    sweptTotal();
    EXPECT_FALSE(mine->isRetired());
    sweptTotal();
    EXPECT_TRUE(mine->isRetired());
    EXPECT_EQ(MemoryStat::statsMap.find(std::this_thread::get_id()), nullptr);
    EXPECT_FALSE(mine->changeAndTryMove(1));
    MemoryStat::statsMem(-1);
    EXPECT_NE(thr_local_stats, mine);
    // A retired record that its thread has replaced does not take the new one with it.
    MemoryStat::statsMap.clean({mine});
    EXPECT_EQ(MemoryStat::statsMap.find(std::this_thread::get_id()), thr_local_stats);
}

TEST_F(Memory, EndedThreadsLoseNothingAlthoughTheirIdsAreUsedAgain) {
    constexpr int threads = 500;
    std::vector<std::thread::id> ids;
    for (int i = 0; i < threads; ++i) {
        std::thread thread([] { MemoryStat::statsMem(10); });
        ids.push_back(thread.get_id());
        thread.join();
        if (i % 100 == 50) sweptTotal();
    }
    std::sort(ids.begin(), ids.end());
    ASSERT_NE(std::unique(ids.begin(), ids.end()), ids.end()) << "no id was used again";
    EXPECT_EQ(faults::chargedBytes(), chargedBefore + threads * 10);
    EXPECT_EQ(sweptTotal(), faults::chargedBytes());
    sweptTotal();
    EXPECT_EQ(MemoryStat::globalStats->count, chargedBefore + threads * 10);
    MemoryStat::statsMem(-threads * 10);
}

TEST_F(Memory, EndedThreadDropsItsRecord) {
    std::weak_ptr<Stats> record;
    std::thread([&] {
        const Index index(0, 1);
        record = thr_local_stats;
    }).join();
    sweptTotal();  // retires it
    EXPECT_TRUE(record.expired());
}

TEST_F(Memory, BatchRecordsOnceAtItsEndAndNoLimitMissesWhatItHolds) {
    const long long swept = sweptTotal();
    {
        const ChargeBatch outer;
        const Index first(0, 1);
        {
            const ChargeBatch inner;
            const Index second(0, 1);
        }
        EXPECT_EQ(sweptTotal(), swept);
        MemoryStat::statsMem(ChargeBatch::bound);  // more than a batch holds back
        EXPECT_EQ(sweptTotal(), swept + 24 + ChargeBatch::bound);
        MemoryStat::setMaxMem(sweptTotal() + 23);
        EXPECT_THROW(Index(0, 1), jni_bad_alloc);
        MemoryStat::statsMem(-ChargeBatch::bound);
    }
    EXPECT_EQ(sweptTotal(), swept);
}

TEST_F(Memory, BatchIsRecordedEvenWhenNoRecordCanBeMade) {
    MemoryStat::statsMem(24);
    sweptTotal();
    sweptTotal();  // retires this thread's record
    {
        const faults::Fault fault(faults::Kind::allocationsFrom, 1);
        const ChargeBatch batch;
        MemoryStat::statsMem(24);
    }
    EXPECT_EQ(faults::chargedBytes(), chargedBefore + 48);
    MemoryStat::statsMem(-48);
}

TEST_F(Memory, CreditIsRecordedEvenWhenNoRecordCanBeMade) {
    MemoryStat::statsMem(24);
    sweptTotal();
    sweptTotal();  // retires this thread's record
    {
        const faults::Fault fault(faults::Kind::allocationsFrom, 1);
        EXPECT_THROW(MemoryStat::statsMem(24), std::bad_alloc);
        MemoryStat::statsMem(-24);
        EXPECT_TRUE(faults::Fault::reached());
    }
}

}  // namespace
