#include "Cases.h"

#include <benchmark/benchmark.h>

#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "NativeMap.h"
#include "StdRangeMap.h"
#include "Trace.h"
#include "Workloads.h"

namespace {

struct Workload {
    Operations setUp;
    Operations timed;
};

std::string textOf(const Range& range) {
    const Location& location = range.location;
    std::ostringstream text;
    text << "[" << range.offset << ", " << range.end() << ") in file " << int{location.number}
         << " at " << location.fileOffset << " (" << location.majorVer << ", " << location.minorVer
         << ")";
    return text.str();
}

[[noreturn]] void refuse(const std::string& difference) {
    throw std::runtime_error("the maps differ: " + difference);
}

void compareAnswers(NativeMap& skipList, StdRangeMap& stdMap, const Operations& operations) {
    for (std::size_t i = 0; i < operations.size(); ++i) {
        const Range& range = operations[i].range;
        if (operations[i].kind == Operation::Kind::insert) {
            skipList.insert(range);
            stdMap.insert(range);
        } else if (skipList.walk(range.offset, range.len) != stdMap.walk(range.offset, range.len)) {
            refuse("operation " + std::to_string(i) + ", a walk over " + textOf(range));
        }
    }
}

// Returns how many ranges both maps hold.
std::size_t compareContents(NativeMap& skipList, const StdRangeMap& stdMap) {
    const std::vector<Range> ours = skipList.ranges();
    const std::vector<Range> theirs = stdMap.ranges();
    for (std::size_t i = 0; i < ours.size() && i < theirs.size(); ++i) {
        if (ours[i] == theirs[i]) continue;
        refuse("range " + std::to_string(i) + " is " + textOf(ours[i]) + " in the skip list, " +
               textOf(theirs[i]) + " in the std::map");
    }
    if (ours.size() != theirs.size()) {
        refuse(std::to_string(ours.size()) + " ranges in the skip list, " +
               std::to_string(theirs.size()) + " in the std::map");
    }
    return ours.size();
}

// A workload made and checked on first use, shared by the competitors.
class Case {
  public:
    explicit Case(std::function<Workload()> maker) : make(std::move(maker)) {}

    const Workload& workload() {
        if (!made) {
            made = make();
            check();
        }
        return *made;
    }

    // How many ranges a map holds after the workload.
    std::size_t ranges() const { return rangesAfter; }

  private:
    void check() {
        NativeMap skipList;
        StdRangeMap stdMap;
        compareAnswers(skipList, stdMap, made->setUp);
        compareAnswers(skipList, stdMap, made->timed);
        rangesAfter = compareContents(skipList, stdMap);
    }

    std::function<Workload()> make;
    std::optional<Workload> made;
    std::size_t rangesAfter = 0;
};

// The processor time of this thread: whoever shares the processor does not count.
class Stopwatch {
  public:
    double seconds() const { return now() - start; }

  private:
    static double now() {
        std::timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    }

    double start = now();
};

template <typename Map>
std::unique_ptr<Map> filledMap(const Operations& operations) {
    auto map = std::make_unique<Map>();
    serve(*map, operations);
    return map;
}

template <typename Map>
void serveTimed(benchmark::State& state, Map& map, const Operations& operations) {
    const Stopwatch stopwatch;
    const unsigned long long sum = serve(map, operations);
    state.SetIterationTime(stopwatch.seconds());
    benchmark::DoNotOptimize(sum);
}

void report(benchmark::State& state, std::size_t operations, std::size_t ranges) {
    using benchmark::Counter;
    const double served = static_cast<double>(state.iterations()) * static_cast<double>(operations);
    state.counters["per_op"] = Counter(served, Counter::kIsRate | Counter::kInvert);
    state.counters["ranges"] = Counter(static_cast<double>(ranges));
}

// What is timed of a case. Changes need a new map each time, walks leave it as it is.
struct Changes {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload& workload = measured.workload();
        for (auto _ : state) {
            const auto map = filledMap<Map>(workload.setUp);
            serveTimed(state, *map, workload.timed);
        }
        report(state, workload.timed.size(), measured.ranges());
    }
};

struct Walks {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload& workload = measured.workload();
        const auto map = filledMap<Map>(workload.setUp);
        for (auto _ : state) serveTimed(state, *map, workload.timed);
        report(state, workload.timed.size(), measured.ranges());
    }
};

// Per range that the map held.
struct Destruction {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload& workload = measured.workload();
        for (auto _ : state) {
            auto map = filledMap<Map>(workload.setUp);
            const Stopwatch stopwatch;
            map.reset();
            state.SetIterationTime(stopwatch.seconds());
        }
        report(state, measured.ranges(), measured.ranges());
    }
};

template <typename Timed, typename Map>
void registerFor(const std::string& name, const std::shared_ptr<Case>& measured) {
    const auto run = [measured](benchmark::State& state) {
        Timed::template run<Map>(state, *measured);
    };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime()->Unit(benchmark::kMillisecond);
}

template <typename Timed>
void registerCase(const std::string& name, const std::string& size,
                  std::function<Workload()> make) {
    const auto measured = std::make_shared<Case>(std::move(make));
    registerFor<Timed, NativeMap>(name + "/skip-list/" + size, measured);
    registerFor<Timed, StdRangeMap>(name + "/std-map/" + size, measured);
}

}  // namespace

void registerCases(const std::string& tracePath) {
    for (const int count : {10'000, 100'000, 1'000'000}) {
        const std::string size = std::to_string(count);
        registerCase<Changes>("insert", size, [count] {
            return Workload{{}, fillRandomly(count)};
        });
        registerCase<Changes>("append", size, [count] {
            return Workload{{}, fillSequentially(count)};
        });
        registerCase<Changes>("overwrite", size, [count] {
            return Workload{fillRandomly(count), overwriteRandomly(count)};
        });
        registerCase<Walks>("find", size, [count] {
            return Workload{fillRandomly(count), walkRandomly(count)};
        });
        registerCase<Destruction>("destroy", size, [count] {
            return Workload{fillRandomly(count), {}};
        });
    }
    registerCase<Changes>("trace", "recorded", [tracePath] {
        return Workload{{}, readTrace(tracePath)};
    });
}
