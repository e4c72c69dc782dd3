// The memory that nodes lie in: none is handed out twice, and all of it goes back.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>

#include "memory/BlockPool.h"
#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

// Takes and gives back at random, and looks for bytes of a block that were written through another.
class Pool : public testing::Test {
  protected:
    struct Block {
        Slab* slab;
        unsigned char* bytes;
        std::size_t size;
        unsigned char mark;
    };

    void take(std::size_t kind) {
        const std::size_t size = 136 + 16 * kind;
        Slab& slab = pool->slabFor(kind, size);
        const Block block{&slab, static_cast<unsigned char*>(slab.take()), size,
                          static_cast<unsigned char>(random())};
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block.bytes) % alignof(void*), 0U);
        std::memset(block.bytes, block.mark, block.size);
        inUse.push_back(block);
    }

    void giveAnyBack() {
        std::swap(inUse[random() % inUse.size()], inUse.back());
        const Block block = inUse.back();
        inUse.pop_back();
        EXPECT_EQ(std::count(block.bytes, block.bytes + block.size, block.mark), block.size);
        block.slab->give(block.bytes);
    }

    const Setting<bool> slabsOfOne{BlockPool::slabsOfOne, false};
    std::minstd_rand random{1};
    std::unique_ptr<BlockPool> pool = std::make_unique<BlockPool>();
    std::vector<Block> inUse;
};

TEST_F(Pool, BlocksInUseShareNoByteAndOutliveTheirPool) {
    int failures = 0;
    inUse.reserve(300000);
    for (int step = 0; step < 300000; ++step) {
        // Grows for a time, into chunks, and shrinks for a time.
        const unsigned int takes = step / 60000 % 2 == 0 ? 7 : 1;
        if (random() % 8 >= takes && !inUse.empty()) {
            giveAnyBack();
            continue;
        }
        const std::size_t kind = random() % (BlockPool::kindCount + 1);
        try {
            const faults::Fault fault(faults::Kind::allocation, 1 + step % 4);
            take(kind);
        } catch (const std::bad_alloc&) {
            ++failures;
        }
    }
    EXPECT_GT(failures, 300);
    EXPECT_GT(inUse.size(), 40000U);
    pool.reset();
    while (!inUse.empty()) giveAnyBack();
}

TEST_F(Pool, BlocksGivenBackAreTakenAgain) {
    for (int i = 0; i < 1000; ++i) take(0);
    std::set<unsigned char*> seen;
    for (int i = 0; i < 100000; ++i) {
        // Ten at a time, which their slabs have to remember.
        if (i % 10 == 0) {
            while (inUse.size() > 990) giveAnyBack();
        }
        take(0);
        seen.insert(inUse.back().bytes);
    }
    EXPECT_LT(seen.size(), 1300U);
    while (!inUse.empty()) giveAnyBack();
}

TEST_F(Pool, NodeOutlivesItsMap) {
    FakeJava java;
    std::shared_ptr<Node> kept;
    {
        TestMap map(java);
        for (int i = 0; i < 1000; ++i) map.insert(inFile(i * 1024, 512, 0));
        kept = map->findEqualGreater(512 * 1024);
    }
    EXPECT_EQ(kept->getOffset(), 512 * 1024);
}

// A figure of the process's memory, in bytes.
long long memoryOfProcess(const std::string& figure) {
    malloc_trim(0);
    std::ifstream file("/proc/self/status");
    for (std::string word; file >> word;) {
        if (word != figure) continue;
        long long kibibytes = 0;
        file >> kibibytes;
        return kibibytes * 1024;
    }
    return -1;
}

// Not for the sanitizers, which keep memory of their own.
TEST_F(Pool, MemoryGoesBackToTheSystemWithTheRanges) {
    for (const int ranges : {3000, 200000}) {
        FakeJava java;
        TestMap map(java, 512, 12);
        const long long resident = memoryOfProcess("VmRSS:");
        const long long mapped = memoryOfProcess("VmSize:");
        for (int round = 0; round < (ranges < 10000 ? 20 : 3) && !HasFailure(); ++round) {
            // In steps that meet all ranges once, for neighbours not to lie side by side.
            for (long long i = 0; i < ranges; ++i) {
                map.insert(inFile(i * 7919 % ranges * 1024, 512, 0));
            }
            const auto held = static_cast<double>(memoryOfProcess("VmRSS:") - resident);
            EXPECT_GE(map->size, ranges);
            EXPECT_LT(held / map->size, ranges < 10000 ? 200 : 160);
            map.insert(inFile(0, ranges * 1024, 0));
            EXPECT_EQ(map->size, 1);
            EXPECT_LT(memoryOfProcess("VmRSS:") - resident, 5 << 20);
            EXPECT_LT(memoryOfProcess("VmSize:") - mapped, 12 << 20);
        }
    }
}

}  // namespace
