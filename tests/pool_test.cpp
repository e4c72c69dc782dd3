// The memory that nodes lie in: none is handed out twice, and it stays as long as a node.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "memory/BlockPool.h"
#include "support/TestMap.h"

namespace {

struct Block {
    Slab* slab;
    unsigned char* bytes;
    std::size_t size;
    unsigned char mark;
};

// Takes and gives back at random, the more the longer, and looks for marks that another wrote over.
TEST(BlockPool, BlocksInUseShareNoByte) {
    auto pool = std::make_unique<BlockPool>();
    std::vector<Block> inUse;
    std::minstd_rand random(1);
    const auto giveBack = [](const Block& block) {
        const bool untouched = std::all_of(block.bytes, block.bytes + block.size,
                                           [&](unsigned char byte) { return byte == block.mark; });
        EXPECT_TRUE(untouched) << "a block of " << block.size << " bytes";
        block.slab->give(block.bytes);
    };
    for (int step = 0; step < 250000; ++step) {
        const bool grows = step / 50000 % 2 == 0;
        if (random() % 8 < (grows ? 6U : 2U) || inUse.empty()) {
            const std::size_t kind = random() % (BlockPool::kindCount + 1);
            const std::size_t size = 136 + 16 * kind;
            Slab& slab = pool->slabFor(kind, size);
            Block block{&slab, static_cast<unsigned char*>(slab.take()), size,
                        static_cast<unsigned char>(random())};
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block.bytes) % alignof(void*), 0U);
            std::memset(block.bytes, block.mark, size);
            inUse.push_back(block);
        } else {
            std::swap(inUse[random() % inUse.size()], inUse.back());
            giveBack(inUse.back());
            inUse.pop_back();
        }
    }
    EXPECT_GT(inUse.size(), 20000U);
    pool.reset();
    for (const Block& block : inUse) giveBack(block);
}

TEST(BlockPool, NodeOutlivesItsMap) {
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
