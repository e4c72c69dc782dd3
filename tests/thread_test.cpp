#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <mutex>
#include <thread>

#include "memory/Memorystatistics.h"
#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

// A sweep whenever asked, not only every five seconds.
void sweep() {
    MemoryStat::lastAccessTm = 0;
    MemoryStat::getStatisInfo();
}

void workOnOwnMap(unsigned seed) {
    FakeJava java;
    TestMap map(java, 512, 6);
    for (unsigned i = 0; i < 3000; ++i) {
        const long long offset = (seed + i * 7919LL) % 500 * 10;
        map.insertBuffered(inFile(offset, 25, 0, static_cast<int>(i % 5)));
        if (i % 100 == 0) map->release();
    }
}

TEST(Threads, OwnMapsSharedMapSweepsAndLimitChangesBalance) {
    const long long chargedBefore = faults::chargedBytes();
    {
        FakeJava java;
        TestMap shared(java);
        std::mutex sharedLock;
        std::atomic<bool> done{false};
        std::thread sweeper([&] {
            while (!done) {
                sweep();
                MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
            }
        });
        std::vector<std::thread> workers;
        for (unsigned seed = 0; seed < 3; ++seed) {
            workers.emplace_back([&, seed] {
                workOnOwnMap(seed);
                // A map may be handed from thread to thread under a lock.
                for (int i = 0; i < 500; ++i) {
                    const std::lock_guard lock(sharedLock);
                    shared.insertBuffered(inFile(i * 5LL, 7, 0, static_cast<int>(seed)));
                }
            });
        }
        for (int i = 0; i < 200; ++i) std::thread([] { const Index index(0, 1); }).join();
        for (std::thread& worker : workers) worker.join();
        done = true;
        sweeper.join();
    }
    EXPECT_EQ(faults::chargedBytes(), chargedBefore);
    sweep();
    EXPECT_EQ(MemoryStat::globalStats->count, chargedBefore);
}

}  // namespace
