#include "Cases.h"

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "Competitors.h"
#include "Equality.h"
#include "Trace.h"
#include "Workloads.h"

namespace {

// A workload that is compared before its first use. It is made anew for each use: several at a
// time would fill the memory.
class Case {
  public:
    Case(std::function<Workload()> maker, std::size_t (*comparison)(const Workload&))
        : make(std::move(maker)), compare(comparison) {}

    Workload workload() {
        Workload made = make();
        if (!rangesAfter) rangesAfter = compare(made);
        return made;
    }

    // How many ranges a map holds after the workload. REQUIRES: it has been used.
    std::size_t ranges() const { return *rangesAfter; }

  private:
    std::function<Workload()> make;
    std::size_t (*compare)(const Workload&);
    std::optional<std::size_t> rangesAfter;
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
std::unique_ptr<Map> mapAfter(const Workload& workload) {
    auto map = filledMap<Map>(workload.setUp);
    serve(*map, workload.timed);
    return map;
}

template <typename Timed>
void timeOnce(benchmark::State& state, Timed timed) {
    const Stopwatch stopwatch;
    timed();
    state.SetIterationTime(stopwatch.seconds());
}

template <typename Map>
void serveTimed(benchmark::State& state, Map& map, const Operations& operations) {
    timeOnce(state, [&] { benchmark::DoNotOptimize(serve(map, operations)); });
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
        const Workload workload = measured.workload();
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
        const Workload workload = measured.workload();
        const auto map = filledMap<Map>(workload.setUp);
        for (auto _ : state) serveTimed(state, *map, workload.timed);
        report(state, workload.timed.size(), measured.ranges());
    }
};

// Per range that the map held.
struct Destruction {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload workload = measured.workload();
        for (auto _ : state) {
            auto map = mapAfter<Map>(workload);
            timeOnce(state, [&] { map.reset(); });
        }
        report(state, measured.ranges(), measured.ranges());
    }
};

// Into an empty map, per range.
struct Copying {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const auto map = mapAfter<Map>(measured.workload());
        for (auto _ : state) {
            Map copy;
            timeOnce(state, [&] { map->copyTo(copy); });
        }
        report(state, measured.ranges(), measured.ranges());
    }
};

// What the process has mapped for data, less what its heap keeps free.
long long bytesInUse() {
    std::ifstream figures("/proc/self/statm");
    long long pages = 0;
    constexpr int dataField = 6;
    for (int field = 1; field <= dataField; ++field) figures >> pages;
    return pages * sysconf(_SC_PAGESIZE) - static_cast<long long>(mallinfo2().fordblks);
}

// What the map takes of the memory of the machine.
struct Memory {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload workload = measured.workload();
        long long bytes = 0;
        for (auto _ : state) {
            const long long before = bytesInUse();
            const auto map = mapAfter<Map>(workload);
            bytes = bytesInUse() - before;
            state.SetIterationTime(1);
        }
        const auto ranges = static_cast<double>(measured.ranges());
        state.counters["bytes_per_range"] = static_cast<double>(bytes) / ranges;
        state.counters["ranges"] = ranges;
    }
};

// By the clock, from when all threads are ready until the last one has served the map that `mapOf`
// gives it.
template <typename MapOf>
double secondsOfThreads(int count, const Operations& timed, MapOf mapOf) {
    std::barrier together(count + 1);
    const auto work = [&] {
        const auto map = mapOf();
        together.arrive_and_wait();
        benchmark::DoNotOptimize(serve(*map, timed));
        together.arrive_and_wait();
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(work);
    together.arrive_and_wait();
    const auto start = std::chrono::steady_clock::now();
    together.arrive_and_wait();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Per operation of all threads: the inverse of the throughput.
template <int count, typename MapOf>
void timeThreads(benchmark::State& state, const Workload& workload, std::size_t ranges,
                 MapOf mapOf) {
    for (auto _ : state) {
        state.SetIterationTime(secondsOfThreads(count, workload.timed, mapOf));
    }
    report(state, workload.timed.size() * count, ranges);
}

// Each thread has a map of its own.
template <int count>
struct Threads {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload workload = measured.workload();
        timeThreads<count>(state, workload, measured.ranges(),
                           [&] { return filledMap<Map>(workload.setUp); });
    }
};

// All threads read one map.
template <int count>
struct Readers {
    template <typename Map>
    static void run(benchmark::State& state, Case& measured) {
        const Workload workload = measured.workload();
        const std::shared_ptr<Map> shared = filledMap<Map>(workload.setUp);
        timeThreads<count>(state, workload, measured.ranges(), [&] { return shared; });
    }
};

// A workload and the maps that compete on it. Whatever is timed of it shares its comparison.
template <std::size_t (*compare)(const Workload&), typename... Maps>
class Competition {
  public:
    Competition(std::string ranges, std::function<Workload()> make)
        : size(std::move(ranges)), measured(std::make_shared<Case>(std::move(make), compare)) {}

    template <typename Timed>
    const Competition& time(const char* name) const {
        (registerFor<Timed, Maps>(name), ...);
        return *this;
    }

  private:
    template <typename Timed, typename Map>
    void registerFor(const std::string& name) const {
        const std::string full = name + "/" + Map::name + "/" + size;
        const auto run = [shared = measured](benchmark::State& state) {
            Timed::template run<Map>(state, *shared);
        };
        benchmark::RegisterBenchmark(full.c_str(), run)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }

    std::string size;
    std::shared_ptr<Case> measured;
};

using Rivals = Competition<compareRivals, LibraryMap, StdRangeMap, BtreeRangeMap, IclRangeMap>;
// No rival: what a buffer costs is the counting of references on the Java side, which none has.
using WithBuffers = Competition<compareWithBuffers, BufferedLibraryMap>;

Operations partlyOverwritten(int pages) {
    Operations operations = fillRandomly(pages);
    const Operations later = overwrites(pages, pages / 4, Spread::uniform);
    operations.insert(operations.end(), later.begin(), later.end());
    return operations;
}

void registerSize(int pages) {
    constexpr int mostTimed = 1'000'000;
    const int count = std::min(pages, mostTimed);
    const std::string size = std::to_string(pages);
    const auto fill = [pages] { return Workload{{}, fillRandomly(pages)}; };
    const auto filledAnd = [=](auto generate, auto... spread) {
        return [=] { return Workload{fillRandomly(pages), generate(pages, count, spread...)}; };
    };

    Rivals(size, fill)
        .time<Changes>("insert")
        .time<Copying>("copy")
        .time<Destruction>("destroy")
        .time<Memory>("memory");
    Rivals(size, [pages] { return Workload{{}, fillSequentially(pages)}; }).time<Changes>("append");
    Rivals(size, filledAnd(overwrites, Spread::uniform))
        .time<Changes>("overwrite")
        .time<Threads<1>>("threads-1")
        .time<Threads<2>>("threads-2");
    Rivals(size, filledAnd(overwrites, Spread::hotSpot)).time<Changes>("overwrite-hot");
    Rivals(size, filledAnd(walks, Spread::uniform))
        .time<Walks>("find")
        .time<Readers<1>>("readers-1")
        .time<Readers<2>>("readers-2");
    Rivals(size, filledAnd(walks, Spread::hotSpot)).time<Walks>("find-hot");
    Rivals(size, [=] {
        return Workload{partlyOverwritten(pages), moves(pages, count)};
    }).time<Changes>("compare-and-set");
    WithBuffers(size, fill).time<Changes>("insert-buffers").time<Copying>("copy-buffers");
    WithBuffers(size, filledAnd(overwrites, Spread::uniform)).time<Changes>("overwrite-buffers");
}

}  // namespace

void registerCases(const std::string& tracePath, int maxRanges) {
    for (long long pages = 10'000; pages <= maxRanges; pages *= 10) {
        registerSize(static_cast<int>(pages));
    }
    Rivals("recorded", [tracePath] {
        return Workload{{}, readTrace(tracePath)};
    }).time<Changes>("trace");
}
