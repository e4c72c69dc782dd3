// Per-thread byte counts and the registry through which a sweep finds them.
//
// `Stats` is one running count of bytes with its own lock; `StatsMap` maps a thread's id to its
// current record. The same class serves as the global total and as a sweep's collector.
//
// Invariants
//   (1) A retired record has count 0 and refuses every later charge.
//   (2) The registry holds at most one record per thread id, and never drops one that still
//       carries a count: what a thread charged stays reachable until a sweep has moved it.
//   (3) No two locks of this file are ever held at the same time.
// Ownership: a record is shared by its thread, the registry and the lists of running sweeps.
// Threads: everything may be called from any thread.
// Cost: a charge is one uncontended lock; the registry is touched when a thread makes a record.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class Stats {
  public:
    Stats() = default;
    Stats(std::thread::id id, std::shared_ptr<Stats> parent);
    Stats(const Stats&) = delete;
    Stats& operator=(const Stats&) = delete;

    // Adds `delta` bytes to the count; false, and nothing added, once the record is retired.
    bool changeAndTryMove(long long delta) {
        const std::lock_guard lock(mutex);
        if (retired) return false;
        count.store(count.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
        return true;
    }

    // Moves the count into `target`, or retires the record if there is nothing to move.
    // True exactly when it retired the record.
    bool moveAndTryClean(const std::shared_ptr<Stats>& target);

    // REQUIRES: `mutex` is held.
    bool shouldClean();

    bool isRetired();

    std::thread::id threadId;
    std::shared_ptr<Stats> parent;
    // Written under `mutex` only, which orders the writes. Atomic so that the global total can be
    // read without the lock: relaxed suffices, since a reader uses the number alone, no other data
    // goes with it, and the limit is defined by any recent value.
    std::atomic<long long> count{0};
    int idleSweeps = 0;
    bool retired = false;
    std::mutex mutex;
};

class StatsMap {
  public:
    StatsMap() = default;
    StatsMap(const StatsMap&) = delete;
    StatsMap& operator=(const StatsMap&) = delete;

    // Registers `stats` as the record of thread `id` in place of any earlier one.
    // Throws std::bad_alloc with the registry unchanged.
    void put(std::thread::id id, std::shared_ptr<Stats> stats);

    // The record registered under `id`, or null.
    std::shared_ptr<Stats> find(std::thread::id id);

    // Appends every registered record to `out`.
    void clone(std::vector<std::shared_ptr<Stats>>& out);

    // Forgets the thread of each record listed, unless it has registered a live one since.
    void clean(const std::vector<std::shared_ptr<Stats>>& retired);

    std::unordered_map<std::thread::id, std::shared_ptr<Stats>> map;
    std::mutex mutex;
};
