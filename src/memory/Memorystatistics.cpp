#include "memory/Memorystatistics.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>
#include <vector>

// All that is thread-local here, in one place, so that an operation looks it up once.
//
// It has no destructor. One would be registered with the system for each thread, which then keeps
// the library mapped until the thread ends: a pool thread would hold the copy of every class loader
// that ever worked on it. The reference to the record is dropped by `DropAtThreadEnd` instead.
struct ThreadAccount {
    // What `reference` holds: read on every charge.
    Stats* record = nullptr;

    // The batches open on this thread, and what they have not recorded yet.
    int openBatches = 0;
    long long unrecorded = 0;  // bytes

    // Room for a reference; whether it has been made there.
    bool hasReference = false;
    alignas(std::shared_ptr<Stats>) std::byte reference[sizeof(std::shared_ptr<Stats>)] = {};
};

namespace {

constexpr long long defaultLimit = 10737418240;  // 10 GiB
constexpr long long sweepInterval = 5000;        // milliseconds

constinit thread_local ThreadAccount accountOfThread;

std::shared_ptr<Stats>& referenceIn(ThreadAccount& account) {
    if (!account.hasReference) ::new (account.reference) std::shared_ptr<Stats>;
    account.hasReference = true;
    return *std::launder(reinterpret_cast<std::shared_ptr<Stats>*>(account.reference));
}

// Has threads drop their references as they end.
//
// Made when the library is loaded and gone when it is unloaded, after which the system calls
// nobody: the records of threads that still live then stay allocated. So do those of threads that
// end where the system had no key left to give, or no memory to remember a thread's account. What
// nothing in the library can exclude: a thread inside `drop` while the library is unmapped.
class DropAtThreadEnd {
  public:
    DropAtThreadEnd() : isMade(pthread_key_create(&key, drop) == 0) {}
    DropAtThreadEnd(const DropAtThreadEnd&) = delete;
    DropAtThreadEnd& operator=(const DropAtThreadEnd&) = delete;
    ~DropAtThreadEnd() {
        if (isMade) pthread_key_delete(key);
    }

    void watch(ThreadAccount& account) const {
        if (isMade) pthread_setspecific(key, &account);
    }

  private:
    static void drop(void* ofEndingThread) {
        auto& account = *static_cast<ThreadAccount*>(ofEndingThread);
        account.record = nullptr;
        referenceIn(account).reset();
    }

    pthread_key_t key{};
    bool isMade;
};
const DropAtThreadEnd dropAtThreadEnd;

long long globalTotal() {
    return std::max(0LL, MemoryStat::globalStats->count.load(std::memory_order_relaxed));
}

// Makes a thread's record the one that takes `delta`.
void renewRecord(ThreadAccount& account, long long delta) {
    const auto id = std::this_thread::get_id();
    std::shared_ptr<Stats>& reference = referenceIn(account);
    // The system reuses thread ids. A record left by a thread that ended under this id may still
    // hold a count, so it is carried on rather than replaced: nobody else charges it any more.
    if (!reference) reference = MemoryStat::statsMap.find(id);
    while (!reference || !reference->changeAndTryMove(delta)) {
        auto fresh = std::make_shared<Stats>(id, MemoryStat::globalStats);
        // Registered before it is used: a record that no sweep can find would lose its charges.
        MemoryStat::statsMap.put(id, fresh);
        reference = std::move(fresh);
    }
    account.record = reference.get();
    dropAtThreadEnd.watch(account);
}

// Records `delta` for a thread, making a record if there is none that takes it.
void recordOn(ThreadAccount& account, long long delta) {
    if (account.record != nullptr && account.record->changeAndTryMove(delta)) return;
    renewRecord(account, delta);
}

// As above. If no record can be made, the global total takes it, so that it is not lost.
void recordAnyway(ThreadAccount& account, long long delta) noexcept {
    try {
        recordOn(account, delta);
    } catch (const std::bad_alloc&) {
        MemoryStat::globalStats->changeAndTryMove(delta);
    }
}

void recordBatch(ThreadAccount& account) noexcept {
    if (account.unrecorded != 0) recordAnyway(account, std::exchange(account.unrecorded, 0));
}

[[noreturn]] void refuse(long long max, long long old, long long delta) {
    throw jni_bad_alloc("JNI memory exceeds the set maximum. memMax: " + std::to_string(max) +
                        " old:" + std::to_string(old) + " used:" + std::to_string(delta));
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

thread_local std::shared_ptr<Stats>& thr_local_stats = referenceIn(accountOfThread);

jni_bad_alloc::jni_bad_alloc(std::string text) : message(std::move(text)) {}

const char* jni_bad_alloc::what() const noexcept {
    return message.c_str();
}

void MemoryStat::statsMem(long long delta) {
    if (delta > 0) checkMem(delta);
    record(delta);
}

void MemoryStat::record(long long delta) {
    ThreadAccount& account = accountOfThread;
    if (account.openBatches > 0) {
        account.unrecorded += delta;
        if (std::abs(account.unrecorded) >= ChargeBatch::bound) recordBatch(account);
    } else if (delta > 0) {
        recordOn(account, delta);
    } else {
        recordAnyway(account, delta);
    }
}

void MemoryStat::checkMem(long long delta) {
    const long long max = memMax.load(std::memory_order_relaxed);
    const long long old = globalTotal();
    if (delta + old > max) refuse(max, old, delta);
}

bool MemoryStat::fits(long long delta) {
    return delta + globalTotal() <= memMax.load(std::memory_order_relaxed);
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

ChargeBatch::ChargeBatch() : account(accountOfThread) {
    ++account.openBatches;
}

ChargeBatch::~ChargeBatch() {
    if (--account.openBatches == 0) recordBatch(account);
}
