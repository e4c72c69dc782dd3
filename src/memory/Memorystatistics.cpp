#include "memory/Memorystatistics.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr long long defaultLimit = 10737418240;  // 10 GiB
constexpr long long sweepInterval = 5000;        // milliseconds

long long globalTotal() {
    return std::max(0LL, MemoryStat::globalStats->count.load(std::memory_order_relaxed));
}

// What `thr_local_stats` points to. Read on every charge: an access to the shared pointer itself
// would first ask each time whether its destructor has been registered for this thread.
constinit thread_local Stats* currentRecord = nullptr;

// The batches open on this thread, and what they have not recorded yet.
constinit thread_local int openBatches = 0;
constinit thread_local long long unrecorded = 0;  // bytes

// Records `delta` on the calling thread's record, making one if there is none that takes it.
void recordOnThread(long long delta) {
    if (currentRecord != nullptr && currentRecord->changeAndTryMove(delta)) return;
    const auto id = std::this_thread::get_id();
    // The system reuses thread ids. A record left by a thread that ended under this id may still
    // hold a count, so it is carried on rather than replaced: nobody else charges it any more.
    if (!thr_local_stats) thr_local_stats = MemoryStat::statsMap.find(id);
    while (!thr_local_stats || !thr_local_stats->changeAndTryMove(delta)) {
        auto fresh = std::make_shared<Stats>(id, MemoryStat::globalStats);
        // Registered before it is used: a record that no sweep can find would lose its charges.
        MemoryStat::statsMap.put(id, fresh);
        thr_local_stats = std::move(fresh);
    }
    currentRecord = thr_local_stats.get();
}

// As above. If no record can be made, the global total takes it, so that it is not lost.
void recordAnyway(long long delta) noexcept {
    try {
        recordOnThread(delta);
    } catch (const std::bad_alloc&) {
        MemoryStat::globalStats->changeAndTryMove(delta);
    }
}

void recordBatch() noexcept {
    if (unrecorded != 0) recordAnyway(std::exchange(unrecorded, 0));
}

[[noreturn]] void refuse(long long max, long long old, long long delta) {
    std::ostringstream text;
    text << "JNI memory exceeds the set maximum. memMax: " << max << " old:" << old
         << " used:" << delta;
    throw jni_bad_alloc(text.str());
}

void sweep() {
    const auto collector = std::make_shared<Stats>();
    std::vector<std::shared_ptr<Stats>> records;
    MemoryStat::statsMap.clone(records);
    std::vector<std::shared_ptr<Stats>> retired;
    // Reserved up front: once a count is in the collector, nothing may fail before it has reached
    // the global total.
    retired.reserve(records.size());
    for (const auto& record : records)
        if (record->moveAndTryClean(collector)) retired.push_back(record);
    MemoryStat::statsMap.clean(retired);
    collector->moveAndTryClean(MemoryStat::globalStats);
}

}  // namespace

std::atomic<long long> MemoryStat::memMax{defaultLimit};
std::atomic<long long> MemoryStat::lastAccessTm{0};
std::atomic<long long> MemoryStat::info[infoLength] = {};
StatsMap& MemoryStat::statsMap = *new StatsMap;
std::shared_ptr<Stats>& MemoryStat::globalStats =
    *new std::shared_ptr<Stats>(std::make_shared<Stats>());

thread_local std::shared_ptr<Stats> thr_local_stats;

jni_bad_alloc::jni_bad_alloc(std::string text) : message(std::move(text)) {}

const char* jni_bad_alloc::what() const noexcept {
    return message.c_str();
}

void MemoryStat::statsMem(long long delta) {
    if (delta > 0) checkMem(delta);
    if (openBatches > 0) {
        unrecorded += delta;
        if (std::abs(unrecorded) >= ChargeBatch::bound) recordBatch();
    } else if (delta > 0) {
        recordOnThread(delta);
    } else {
        recordAnyway(delta);
    }
}

void MemoryStat::checkMem(long long delta) {
    const long long max = memMax.load(std::memory_order_relaxed);
    const long long old = globalTotal();
    if (delta + old > max) refuse(max, old, delta);
}

void MemoryStat::setMaxMem(long long max) {
    memMax.store(max, std::memory_order_relaxed);
}

const std::atomic<long long>* MemoryStat::getStatisInfo() {
    if (checkAccessTm()) sweep();
    info[infoLength - 1].store(globalTotal(), std::memory_order_relaxed);
    return info;
}

bool MemoryStat::checkAccessTm() {
    const long long now = getTimeStamp();
    if (now - lastAccessTm.load(std::memory_order_relaxed) <= sweepInterval) return false;
    lastAccessTm.store(now, std::memory_order_relaxed);
    return true;
}

long long MemoryStat::getTimeStamp() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
}

ChargeBatch::ChargeBatch() {
    ++openBatches;
}

ChargeBatch::~ChargeBatch() {
    if (--openBatches == 0) recordBatch();
}
