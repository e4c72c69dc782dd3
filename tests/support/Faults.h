// Makes the n-th allocation of the calling thread fail, or refuses the charge that follows it.
#pragma once

namespace faults {

enum class Kind { allocation, allocationsFrom, charge };

// While it lives, the n-th allocation (from 1) throws std::bad_alloc (`allocation`), all from the
// n-th on do (`allocationsFrom`), or the memory limit is 0 from then on (`charge`).
class Fault {
  public:
    Fault(Kind kind, int n);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    // Whether the operation got as far as the n-th allocation.
    static bool reached();
};

// While it lives, this thread's allocations do not count: for what the JVM would do on its own.
class Pause {
  public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

  private:
    bool wasArmed;
};

// Bytes charged and not yet credited, over all threads, whether swept or not.
long long chargedBytes();

}  // namespace faults
