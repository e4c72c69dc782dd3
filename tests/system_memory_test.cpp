// What a map takes from the system and gives back. Not for the sanitizers, which keep memory of
// their own.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

#include "support/TestMap.h"

namespace {

// The `field`-th figure of the process's memory in bytes: 0 all that is mapped, 1 what is resident.
long long memoryOfProcess(int field) {
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    long long pages = 0;
    for (int i = 0; i <= field; ++i) file >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

void fill(TestMap& map, int ranges) {
    // In steps that meet all ranges once, for neighbours not to lie side by side.
    for (long long i = 0; i < ranges; ++i) map.insert(inFile(i * 7919 % ranges * 1024, 512, 0));
}

TEST(SystemMemory, EmptiedMapHoldsNoMemory) {
    constexpr int ranges = 200000;
    FakeJava java;
    TestMap map(java, 512, 12);
    const long long before = memoryOfProcess(1);
    for (int round = 0; round < 3; ++round) {
        fill(map, ranges);
        const auto held = static_cast<double>(memoryOfProcess(1) - before);
        EXPECT_GE(map->size, ranges);
        EXPECT_NEAR(held / map->size, 145, 10);
        map.insert(inFile(0, ranges * 1024, 0));
        EXPECT_EQ(map->size, 1);
        EXPECT_LT(memoryOfProcess(1) - before, 5 << 20);
    }
}

TEST(SystemMemory, SystemWithoutMemoryLeavesTheMapAsItWas) {
    FakeJava java;
    TestMap map(java, 512, 12);
    fill(map, 50000);
    rlimit unlimited{};
    getrlimit(RLIMIT_AS, &unlimited);
    const rlimit tight{static_cast<rlim_t>(memoryOfProcess(0) + (4 << 20)), unlimited.rlim_max};
    setrlimit(RLIMIT_AS, &tight);
    long long offset = 1LL << 40;
    EXPECT_THROW(for (;; offset += 1024) map.insert(inFile(offset, 512, 0)), std::bad_alloc);
    setrlimit(RLIMIT_AS, &unlimited);
    EXPECT_EQ(map->size, 50000 + (offset - (1LL << 40)) / 1024);
    EXPECT_EQ(map->findEqualGreater(offset), map->tail);
    map.insert(inFile(offset, 512, 0));
    EXPECT_EQ(map->findEqualGreater(offset)->getOffset(), offset);
}

}  // namespace
