// Accounts for the native memory of the library's records, nodes and maps, and refuses a charge
// that would lift the total above a settable limit.
//
// What is charged: a fixed number of bytes per object, by its constructor, credited by its
// destructor: `Index` 24, `Data` 32, `Buff` 32, `Env` 32, `Node` 48, `SkipList` 144. Containers,
// control blocks and the accounting's own objects are not charged.
//
// Invariants
//   (1) Every charge is credited exactly once; a refused charge leaves no trace.
//   (2) The global total changes only in a sweep (getStatisInfo, at most one per 5000 ms) and by
//       credits for which no thread record could be allocated. The limit judges each charge
//       against that total, not against the live sum of all threads.
//   (3) A credit never fails: it runs in destructors.
//   (4) While a ChargeBatch is open on a thread, at most `ChargeBatch::bound` bytes of what that
//       thread charged or credited are not yet in its record. No limit judges them: that looks at
//       the total of the last sweep.
//   (5) No thread keeps the library mapped: what is thread-local has no destructor.
// Threads: everything may be called from any thread.
// Cost: a charge is one comparison, one look-up of what is thread-local (a call, in a library that
//   is loaded late) and one uncontended lock; in a batch an addition in place of the lock. A sweep
//   visits every thread's record.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <string>

#include "memory/Stats.h"

// Raised when a charge would exceed the memory limit.
class jni_bad_alloc : public std::bad_alloc {
  public:
    explicit jni_bad_alloc(std::string text);
    const char* what() const noexcept override;

  private:
    std::string message;
};

class MemoryStat {
  public:
    static constexpr int infoLength = 7;

    // Charges (delta > 0) or credits (delta < 0) the calling thread with `delta` bytes.
    // Throws jni_bad_alloc above the limit and std::bad_alloc if a new thread's record cannot be
    // made, with nothing recorded; for delta <= 0 it never throws.
    static void statsMem(long long delta);

    // Throws jni_bad_alloc if a charge of `delta` bytes would exceed the limit.
    static void checkMem(long long delta);

    // The same for several charges, one after the other: with nothing recorded if one of them is
    // refused, and at the cost of one.
    template <typename... Deltas>
    static void checkEach(Deltas... deltas) {
        if (!fits(std::max({deltas...}))) (checkMem(deltas), ...);
    }
    template <typename... Deltas>
    static void chargeEach(Deltas... deltas) {
        checkEach(deltas...);
        record((... + deltas));
    }

    // Sets the limit in bytes, unchecked; it applies from the next charge on.
    static void setMaxMem(long long max);

    // The statistics array, `infoLength` values: element 6 holds the bytes in use as of the last
    // sweep, never below 0, the others are 0. Sweeps first if the last sweep is more than 5000 ms
    // old.
    static const std::atomic<long long>* getStatisInfo();

    // True, and the time is noted, if more than 5000 ms have passed since the time last noted.
    static bool checkAccessTm();

    // Milliseconds of the system clock since its epoch.
    static long long getTimeStamp();

    // Relaxed suffices for these, on any processor. A limit goes with no other data: a charge that
    // meets a change of it is judged by the old one or the new one, as if it came before or after.
    static std::atomic<long long> memMax;
    // Two threads that find the interval over at once both sweep, which loses nothing: each count
    // is moved under the lock of its record.
    static std::atomic<long long> lastAccessTm;
    // Each value means something by itself. A caller of getStatisInfo reads what it stored, or what
    // a later caller did.
    static std::atomic<long long> info[infoLength];

    // Built at load and never destroyed: at process exit other threads may still be inside the
    // library, and their charges must not meet a destroyed registry.
    static StatsMap& statsMap;
    static std::shared_ptr<Stats>& globalStats;

  private:
    static bool fits(long long delta);
    static void record(long long delta);
};

// Marks the making of a record whose owner charges for it.
struct ChargedByOwner {};

struct ThreadAccount;

// While it lives, the charges and credits of the calling thread are summed up and recorded as one.
// An operation that makes and drops many records opens one. They nest; the outermost records.
class ChargeBatch {
  public:
    static constexpr long long bound = 65536;  // bytes

    ChargeBatch();
    ~ChargeBatch();
    ChargeBatch(const ChargeBatch&) = delete;
    ChargeBatch& operator=(const ChargeBatch&) = delete;

  private:
    ThreadAccount& account;
};

// The calling thread's record; empty until its first charge. The thread drops it as it ends.
extern thread_local std::shared_ptr<Stats>& thr_local_stats;
