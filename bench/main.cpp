// The benchmark program: Google Benchmark's own, with two more flags.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <string>
#include <string_view>
#include <thread>

#include "Cases.h"
#include "Commit.h"
#include "NativeMap.h"
#include "StdRangeMap.h"
#include "Trace.h"

namespace {

constexpr const char* usage =
    "usage: skiplist-bench [--trace=FILE] [--replay-once=skip-list|std-map]\n"
    "                      [--benchmark_...]\n"
    "\n"
    "  --trace=FILE      replay this recorded block trace\n"
    "  --replay-once=M   replay the trace once into one map, and measure nothing: for a profiler\n"
    "  --benchmark_...   flags of Google Benchmark, such as\n"
    "                      --benchmark_filter=REGEX --benchmark_list_tests=true\n"
    "                      --benchmark_repetitions=N --benchmark_report_aggregates_only=true\n"
    "                      --benchmark_enable_random_interleaving=true\n"
    "                      --benchmark_out=FILE --benchmark_out_format=json\n";

// A second thread that waits until the end. As long as a process has one thread only, the standard
// library counts references without atomic operations and the allocator takes no locks; in a JVM
// there is no such time.
class WaitingThread {
  public:
    WaitingThread() : thread([this] { end.get_future().wait(); }) {}
    WaitingThread(const WaitingThread&) = delete;
    WaitingThread& operator=(const WaitingThread&) = delete;
    ~WaitingThread() {
        end.set_value();
        thread.join();
    }

  private:
    std::promise<void> end;
    std::thread thread;
};

struct Options {
    std::string trace = BENCH_TRACE;
    std::string replayOnce;
};

bool takeValue(std::string_view argument, std::string_view flag, std::string& value) {
    if (argument.substr(0, flag.size()) != flag) return false;
    value = argument.substr(flag.size());
    return true;
}

// Whether all arguments are known.
bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        if (takeValue(argv[i], "--trace=", options.trace)) continue;
        if (takeValue(argv[i], "--replay-once=", options.replayOnce)) continue;
        std::fprintf(stderr, "skiplist-bench: unknown argument %s\n%s", argv[i], usage);
        return false;
    }
    return true;
}

template <typename Map>
int replayOnce(const Operations& operations) {
    Map map;
    const unsigned long long sum = serve(map, operations);
    std::printf("%zu operations, %zu ranges, digest of the walks %llu\n", operations.size(),
                map.ranges().size(), sum);
    return EXIT_SUCCESS;
}

int replayOnce(const Options& options) {
    const Operations operations = readTrace(options.trace);
    if (options.replayOnce == "skip-list") return replayOnce<NativeMap>(operations);
    if (options.replayOnce == "std-map") return replayOnce<StdRangeMap>(operations);
    std::fprintf(stderr, "skiplist-bench: no such map: %s\n%s", options.replayOnce.c_str(), usage);
    return EXIT_FAILURE;
}

int measure(const Options& options) {
    benchmark::AddCustomContext("compiler", BENCH_COMPILER);
    benchmark::AddCustomContext("build_type", BENCH_BUILD_TYPE);
    benchmark::AddCustomContext("flags", BENCH_FLAGS);
    benchmark::AddCustomContext("commit", BENCH_COMMIT);
    registerCases(options.trace);
    return benchmark::RunSpecifiedBenchmarks() == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv, [] { std::fputs(usage, stdout); });
    Options options;
    if (!parse(argc, argv, options)) return EXIT_FAILURE;
    const WaitingThread waiting;
    try {
        return options.replayOnce.empty() ? measure(options) : replayOnce(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "skiplist-bench: %s\n", e.what());
        return EXIT_FAILURE;
    }
}
