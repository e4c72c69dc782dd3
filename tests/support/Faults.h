// Makes the n-th step of some kind fail: an allocation of the calling thread, a charge, or what the
// stand-in JVM is asked for.
#pragma once

namespace faults {

enum class Kind {
    allocation,       // the n-th throws std::bad_alloc
    allocationsFrom,  // all from the n-th on do
    charge,           // the memory limit is 0 from the n-th allocation on
    limit,            // the memory limit leaves room for n bytes
    javaCall,         // the n-th call that makes a slice or an array returns null
    globalReference,  // the n-th cannot be made
    badAlloc,         // the n-th allocation or call of Java throws std::bad_alloc,
    exception,        // a std::runtime_error,
    unknown,          // or a number
};

// The fault lasts while it lives.
class Fault {
  public:
    Fault(Kind kind, int n);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    // Whether the operation got as far as the n-th step.
    static bool reached();
};

// For the places where something may fail: whether this is the step that does.
bool isDue(Kind kind);
void throwIfDue();

// While it lives, this thread's steps do not count: for what the JVM would do on its own.
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
// Those in use as of a sweep made now.
long long sweptTotal();

}  // namespace faults
