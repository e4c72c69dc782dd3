#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

#include "support/Session.h"

namespace {

// A session that fails names its seed; SKIPLIST_TEST_SEED=<seed> runs that one alone.
TEST(Random, MapsEqualTheirModelsAfterEachCall) {
    const char* const alone = std::getenv("SKIPLIST_TEST_SEED");
    const unsigned first = alone != nullptr ? static_cast<unsigned>(std::stoul(alone)) : 0;
    // A line for each provoked failure, and what a sanitizer says: to be seen with a seed only.
    if (alone == nullptr) testing::internal::CaptureStderr();
    for (unsigned seed = first; seed < (alone != nullptr ? first + 1 : 600) && !HasFailure();
         ++seed) {
        std::cout << seed << ' ' << std::flush;  // for one that crashes
        std::mt19937 random(seed);
        std::vector<unsigned char> bytes(1200);
        for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
        try {
            Session(bytes).run();
        } catch (const std::exception& e) {
            ADD_FAILURE() << "SKIPLIST_TEST_SEED=" << seed << ": " << e.what();
        }
    }
    if (alone == nullptr) testing::internal::GetCapturedStderr();
}

}  // namespace
