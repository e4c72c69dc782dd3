// Coverage-guided fuzzing of the native methods: the input chooses the calls of a session.

#include <cstdio>
#include <cstdlib>

#include "support/Session.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    try {
        Session({data, data + size}).run();
    } catch (const std::exception& e) {
        // Standard error belongs to the library's diagnostics.
        std::printf("fuzz: %s\n", e.what());
        std::fflush(stdout);
        std::abort();
    }
    return 0;
}
