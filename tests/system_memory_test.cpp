// What a map takes from the system and gives back. Not for the sanitizers, which keep memory of
// their own.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <fstream>
#include <string>

#include "support/TestMap.h"

namespace {

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
    ADD_FAILURE() << "no " << figure << " in /proc/self/status";
    return 0;
}

void fill(TestMap& map, int ranges) {
    // In steps that meet all ranges once, for neighbours not to lie side by side.
    for (long long i = 0; i < ranges; ++i) map.insert(inFile(i * 7919 % ranges * 1024, 512, 0));
}

TEST(SystemMemory, GoesBackWithTheRanges) {
    for (const int ranges : {3000, 200000}) {
        FakeJava java;
        TestMap map(java, 512, 12);
        const long long before = memoryOfProcess("VmRSS:");
        for (int round = 0; round < (ranges < 10000 ? 20 : 3) && !HasFailure(); ++round) {
            fill(map, ranges);
            const auto held = static_cast<double>(memoryOfProcess("VmRSS:") - before);
            EXPECT_GE(map->size, ranges);
            EXPECT_LT(held / map->size, ranges < 10000 ? 200 : 160);
            map.insert(inFile(0, ranges * 1024, 0));
            EXPECT_EQ(map->size, 1);
            EXPECT_LT(memoryOfProcess("VmRSS:") - before, 5 << 20);
        }
    }
}

TEST(SystemMemory, ItsEndLeavesTheMapAsItWas) {
    FakeJava java;
    TestMap map(java, 512, 12);
    fill(map, 50000);
    const Snapshot before = snapshotOf(*map);
    rlimit unlimited{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &unlimited), 0);
    const rlimit tight{static_cast<rlim_t>(memoryOfProcess("VmSize:") + (1 << 20)),
                       unlimited.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    bool refused = false;
    constexpr long long beyond = 1LL << 40;
    int added = 0;
    for (; !refused && added < 100000; ++added) {
        try {
            map.insert(inFile(beyond + added * 1024LL, 512, 0));
        } catch (const std::bad_alloc&) {
            refused = true;
        }
    }
    setrlimit(RLIMIT_AS, &unlimited);
    EXPECT_TRUE(refused);
    EXPECT_EQ(map->size, 50000 + added - 1);
    map.insert(inFile(beyond, added * 1024, 0));
    map.insert(inFile(beyond, 512, 0, 9));
    const Snapshot after = snapshotOf(*map);
    EXPECT_EQ(after.ranges.size(), before.ranges.size() + 2);
    EXPECT_TRUE(std::equal(before.ranges.begin(), before.ranges.end(), after.ranges.begin()));
}

}  // namespace
