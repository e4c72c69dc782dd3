// The benchmark program: Google Benchmark's own, with three more flags.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "Cases.h"
#include "Commit.h"
#include "Competitors.h"
#include "Equality.h"
#include "Trace.h"
#include "Workloads.h"

namespace {

constexpr const char* usage =
    "usage: skiplist-bench [--trace=FILE] [--max-ranges=N] [--replay-once=MAP [--of=WORK/N]]\n"
    "                      [--benchmark_...]\n"
    "\n"
    "  --trace=FILE      replay this recorded block trace\n"
    "  --max-ranges=N    the largest maps, 1000000 by default; the smallest have 10000 ranges\n"
    "  --replay-once=MAP replay the trace once into one map, and measure nothing: for a profiler\n"
    "                      (skip-list, std-map, btree-map or icl-map)\n"
    "  --of=WORK/N       in place of the trace: find, insert or overwrite with maps of N ranges\n"
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
    std::string maxRanges = "1000000";
    std::string replayOnce;
    std::string replayed;
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
        if (takeValue(argv[i], "--max-ranges=", options.maxRanges)) continue;
        if (takeValue(argv[i], "--replay-once=", options.replayOnce)) continue;
        if (takeValue(argv[i], "--of=", options.replayed)) continue;
        std::fprintf(stderr, "skiplist-bench: unknown argument %s\n%s", argv[i], usage);
        return false;
    }
    return true;
}

// What is replayed. The first part fills the map before, and not by `serve`, in which a profiler
// counts.
Workload chooseReplay(const Options& options) {
    if (options.replayed.empty()) return {{}, readTrace(options.trace)};
    const std::size_t slash = options.replayed.find('/');
    const std::string work = options.replayed.substr(0, slash);
    const int ranges =
        slash == std::string::npos ? 0 : std::stoi(options.replayed.substr(slash + 1));
    if (ranges < 1) throw std::invalid_argument("--of: needs WORK/N, N above 0");
    if (work == "insert") return {{}, fillRandomly(ranges)};
    if (work == "find") return {fillRandomly(ranges), walks(ranges, ranges, Spread::uniform)};
    if (work == "overwrite") {
        return {fillRandomly(ranges), overwrites(ranges, ranges, Spread::uniform)};
    }
    throw std::invalid_argument("--of: no such work: " + work);
}

template <typename Map>
bool replayIf(const std::string& name, const Workload& workload) {
    if (name != Map::name) return false;
    Map map;
    for (const Operation& operation : workload.setUp) map.insert(operation.range);
    const unsigned long long sum = serve(map, workload.timed);
    std::printf("%zu operations, %zu ranges, digest of the walks %llu\n", workload.timed.size(),
                rangesOf(map).size(), sum);
    return true;
}

template <typename... Maps>
int replayOnce(const Options& options) {
    const Workload workload = chooseReplay(options);
    if ((replayIf<Maps>(options.replayOnce, workload) || ...)) return EXIT_SUCCESS;
    std::fprintf(stderr, "skiplist-bench: no such map: %s\n%s", options.replayOnce.c_str(), usage);
    return EXIT_FAILURE;
}

int measure(const Options& options) {
    benchmark::AddCustomContext("compiler", BENCH_COMPILER);
    benchmark::AddCustomContext("build_type", BENCH_BUILD_TYPE);
    benchmark::AddCustomContext("flags", BENCH_FLAGS);
    benchmark::AddCustomContext("commit", BENCH_COMMIT);
    registerCases(options.trace, std::stoi(options.maxRanges));
    return benchmark::RunSpecifiedBenchmarks() == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv, [] { std::fputs(usage, stdout); });
    Options options;
    if (!parse(argc, argv, options)) return EXIT_FAILURE;
    const WaitingThread waiting;
    try {
        if (options.replayOnce.empty()) return measure(options);
        return replayOnce<LibraryMap, StdRangeMap, BtreeRangeMap, IclRangeMap>(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "skiplist-bench: %s\n", e.what());
        return EXIT_FAILURE;
    }
}
