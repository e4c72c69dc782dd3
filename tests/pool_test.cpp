// The memory that nodes lie in: none is handed out twice, and all of it goes back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <vector>

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

    static std::size_t sizeOf(std::size_t kind) { return 136 + 16 * kind; }

    void take(std::size_t kind) {
        Slab& slab = pool->slabFor(kind, sizeOf(kind));
        const Block block{&slab, static_cast<unsigned char*>(slab.take()), sizeOf(kind),
                          static_cast<unsigned char>(random())};
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block.bytes) % alignof(void*), 0U);
        std::memset(block.bytes, block.mark, block.size);
        inUse.push_back(block);
    }

    void giveAnyBack() {
        std::swap(inUse[random() % inUse.size()], inUse.back());
        const Block block = inUse.back();
        inUse.pop_back();
        EXPECT_TRUE(std::all_of(block.bytes, block.bytes + block.size,
                                [&](unsigned char byte) { return byte == block.mark; }))
            << "a block of " << block.size << " bytes";
        block.slab->give(block.bytes);
    }

    const SlabSizes slabSizes{false};
    std::minstd_rand random{1};
    std::unique_ptr<BlockPool> pool = std::make_unique<BlockPool>();
    std::vector<Block> inUse;
};

TEST_F(Pool, BlocksInUseShareNoByteAndOutliveTheirPool) {
    for (int step = 0; step < 300000; ++step) {
        // Grows for a time, into chunks, and shrinks for a time.
        const unsigned int takes = step / 60000 % 2 == 0 ? 7 : 1;
        if (random() % 8 < takes || inUse.empty()) {
            take(random() % (BlockPool::kindCount + 1));
        } else {
            giveAnyBack();
        }
    }
    EXPECT_GT(inUse.size(), 40000U);
    pool.reset();
    while (!inUse.empty()) giveAnyBack();
}

TEST_F(Pool, BlocksGivenBackAreTakenAgain) {
    for (int i = 0; i < 1000; ++i) take(0);
    std::set<unsigned char*> seen;
    for (int i = 0; i < 100000; ++i) {
        giveAnyBack();
        take(0);
        seen.insert(inUse.back().bytes);
    }
    EXPECT_LT(seen.size(), 1300U);
    while (!inUse.empty()) giveAnyBack();
}

TEST_F(Pool, FailedAllocationChangesNothing) {
    const auto fails = [&](int n) {
        const faults::Fault fault(faults::Kind::allocation, n);
        try {
            pool->slabFor(0, sizeOf(0));
            return false;
        } catch (const std::bad_alloc&) {
            return true;
        }
    };
    int failures = 0;
    while (inUse.size() < 60000) {
        for (int n = 1; fails(n); ++n) ++failures;
        take(0);
    }
    EXPECT_GT(failures, 300);  // three for each slab, more where it begins a chunk
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

}  // namespace
