// The accounting: limit, records of threads, sweeps, batches.

#include "memory/Memorystatistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "records/Index.h"
#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

using faults::Fault, faults::Kind, faults::sweptTotal;

const long long limitAtStart = MemoryStat::memMax;

// Leaves the accounting as it was.
class Memory : public testing::Test {
  protected:
    ~Memory() override {
        MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
        EXPECT_EQ(faults::chargedBytes(), chargedBefore);
    }

    // Charges this thread, and has the next two sweeps take the charge and retire its record.
    static void chargeAndRetire(long long bytes) {
        MemoryStat::statsMem(bytes);
        sweptTotal();
        sweptTotal();
    }

    long long chargedBefore = faults::chargedBytes();
};

TEST_F(Memory, LimitIsJudgedAgainstTheSweptTotalAndMayBeReachedExactly) {
    EXPECT_EQ(limitAtStart, 10737418240);
    const Index before(0, 1);
    const long long swept = sweptTotal();
    MemoryStat::setMaxMem(swept + 24);
    const Index exact(0, 1);
    const Index unswept(0, 1);  // the total of the last sweep does not know of `exact`
    MemoryStat::setMaxMem(swept + 23);
    EXPECT_THROW(Index(0, 1), jni_bad_alloc);
}

TEST_F(Memory, SweepsAreFiveSecondsApart) {
    const long long swept = sweptTotal();
    const Index later(0, 1);
    EXPECT_EQ(MemoryStat::getStatisInfo()[6], swept);
    MemoryStat::lastAccessTm = MemoryStat::getTimeStamp() - 4900;
    EXPECT_EQ(MemoryStat::getStatisInfo()[6], swept);
    MemoryStat::lastAccessTm = MemoryStat::getTimeStamp() - 5001;
    EXPECT_EQ(MemoryStat::getStatisInfo()[6], swept + 24);
    MemoryStat::statsMem(-swept - 100);
    EXPECT_EQ(sweptTotal(), 0) << "a negative total";
    MemoryStat::statsMem(swept + 100);
}

TEST_F(Memory, IdleRecordIsRetiredAndReplacedByTheNextCharge) {
    const auto id = std::this_thread::get_id();
    MemoryStat::statsMem(1);
    const std::shared_ptr<Stats> mine = thr_local_stats;
    sweptTotal();
    EXPECT_FALSE(mine->isRetired());
    sweptTotal();
    EXPECT_TRUE(mine->isRetired());
    EXPECT_EQ(MemoryStat::statsMap.find(id), nullptr);
    EXPECT_FALSE(mine->changeAndTryMove(1));
    MemoryStat::statsMem(-1);
    EXPECT_NE(thr_local_stats, mine);
    // A retired record that its thread has replaced does not take the new one with it.
    MemoryStat::statsMap.put(id, mine);
    EXPECT_EQ(MemoryStat::statsMap.find(id), mine);
    MemoryStat::statsMap.put(id, thr_local_stats);
    MemoryStat::statsMap.clean({mine});
    EXPECT_EQ(MemoryStat::statsMap.find(id), thr_local_stats);
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

TEST_F(Memory, SweepWithoutMemoryMovesNothingOrAll) {
    for (int n = 1; n < 12; ++n) {
        // Half of the records are idle, and so retired in the midst of those that are moved.
        std::vector<std::thread> threads;
        std::barrier all(8);
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&all, i] {
                MemoryStat::statsMem(10);
                if (i % 2 == 0) MemoryStat::statsMem(-10);
                all.arrive_and_wait();
            });
        }
        for (std::thread& thread : threads) thread.join();
        const long long charged = faults::chargedBytes();
        MemoryStat::lastAccessTm = 0;
        try {
            const Fault fault(Kind::allocation, n);
            MemoryStat::getStatisInfo();
        } catch (const std::bad_alloc&) {
        }
        EXPECT_EQ(faults::chargedBytes(), charged) << "allocation " << n;
        MemoryStat::statsMem(-40);
    }
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
        EXPECT_EQ(sweptTotal(), swept + 24);
    }
    EXPECT_EQ(sweptTotal(), swept);
}

TEST_F(Memory, CreditsAndBatchesAreRecordedEvenWhenNoRecordCanBeMade) {
    chargeAndRetire(24);
    {
        const Fault fault(Kind::allocationsFrom, 1);
        EXPECT_THROW(MemoryStat::statsMem(24), std::bad_alloc);
        MemoryStat::statsMem(-24);
    }
    chargeAndRetire(24);
    {
        const Fault fault(Kind::allocationsFrom, 1);
        const ChargeBatch batch;
        MemoryStat::statsMem(24);
    }
    EXPECT_EQ(faults::chargedBytes(), chargedBefore + 48);
    MemoryStat::statsMem(-48);
}

// Each lock of a record and of the registry is met: what one guards, the others read or write.
TEST_F(Memory, RecordsAndTheRegistryAreSharedByThreads) {
    for (int round = 0; round < 20; ++round) {
        StatsMap registry;
        const auto total = std::make_shared<Stats>();
        const auto record = std::make_shared<Stats>(std::thread::id(), total);
        std::atomic<int> charged{0};
        std::barrier start(4);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                if (i < 2 && record->changeAndTryMove(1)) ++charged;
                registry.put(std::this_thread::get_id(), record);
                registry.find(std::thread::id());
                std::vector<std::shared_ptr<Stats>> records;
                registry.clone(records);
                if (record->moveAndTryClean(total)) registry.clean({record});
                record->isRetired();
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(total->count + record->count, charged);
    }
}

// Maps of their own, one map that threads change one by one and search together, records, sweeps
// and limits: all at once.
TEST_F(Memory, ThreadsBalance) {
    {
        FakeJava java;
        TestMap shared(java);
        std::shared_mutex sharedLock;
        std::atomic<bool> done{false};
        std::thread sweeper([&] {
            while (!done) {
                sweptTotal();
                MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
            }
        });
        std::vector<std::thread> workers;
        for (int seed = 0; seed < 3; ++seed) {
            workers.emplace_back([&, seed] {
                FakeJava own;
                TestMap map(own, 512, 6);
                for (int i = 0; i < 3000; ++i) {
                    map.insert(buffered(own, inFile((seed + i * 7919LL) % 500 * 10, 25, 0, i % 5)));
                    if (i % 100 == 0) map.release();
                    if (i % 6 == 0) {
                        const std::lock_guard changing(sharedLock);
                        shared.insert(buffered(java, inFile(i * 5LL, 7, 0, seed)));
                    } else {
                        const std::shared_lock searching(sharedLock);
                        const auto found = shared->findEqualGreater(i * 5LL);
                        EXPECT_EQ(shared->runOver(i * 5LL, 1).first, found.get());
                    }
                }
            });
        }
        for (int i = 0; i < 200; ++i) std::thread([] { const Index index(0, 1); }).join();
        for (std::thread& worker : workers) worker.join();
        done = true;
        sweeper.join();
    }
    sweptTotal();
    EXPECT_EQ(MemoryStat::globalStats->count, chargedBefore);
}

}  // namespace
