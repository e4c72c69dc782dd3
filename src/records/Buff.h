// A handle on a Java `io.netty.buffer.ByteBuf` that still holds the bytes of a stored range.
//
// `Env` carries the Java environment of the thread that called into a map last; the map and all
// its buffers share one. `Buff` owns one Java global reference to a retained slice.
//
// Invariants
//   (1) While a `Buff` holds its slice, the Java buffer's reference count is one higher for it.
//   (2) The slice is released and its global reference deleted exactly once.
//   (3) An `Env` credits on destruction exactly what has been charged for it (its `size`).
// Ownership: a `Buff` is owned by one `Data`. The Java buffer it was made from stays the caller's.
// Threads: make, copy and release a `Buff` only on the thread whose environment its `Env` holds.
//   The method identifiers may be looked up by several threads at once.
// Cost: two to three calls into the JVM to make one, two to give one back.
// Failure: a failing Java call is written to standard error and thrown as std::runtime_error; a
//   Java exception that it raised stays pending. If a constructor's charge is refused, its global
//   reference is not given back; `create` asks first, so that this takes a limit that is lowered,
//   or a sweep, between the question and the charge.
//   If the JVM has no memory for a global reference, the handle is made without a slice and reads
//   as given back.
#pragma once

#include <jni.h>

#include <atomic>
#include <memory>

struct Env {
    Env() = default;
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;
    ~Env();

    // A new holder of `jniEnv`, charged 32 bytes. Throws jni_bad_alloc.
    static std::shared_ptr<Env> create(JNIEnv* jniEnv);

    int size = 0;  // bytes charged for this record
    JNIEnv* jniEnv = nullptr;
};

class Buff {
  public:
    // Looks the ByteBuf methods up and caches them; false, with the Java exception of the failed
    // lookup pending, if one is missing. A later call tries again.
    static bool envInit(JNIEnv* jniEnv);

    // A handle on a retained slice of the whole Java buffer, or of `length` bytes from `index`.
    // These two run envInit first; the constructors do not. All four ask whether the charge would
    // fit before they call Java, because a constructor that is refused has its slice already, and
    // charge in a batch, which needs no memory for the thread's record.
    static std::unique_ptr<Buff> create(std::shared_ptr<Env> env, jobject const& byteBuf);
    static std::unique_ptr<Buff> create(std::shared_ptr<Env> env, jobject const& byteBuf, int index,
                                        int length);
    // A handle of its own on a retained slice of src's slice.
    // REQUIRES: `src` is not null. A copy of a handle without a slice has none either.
    static std::unique_ptr<Buff> create(std::unique_ptr<Buff> const& src);
    static std::unique_ptr<Buff> create(std::unique_ptr<Buff> const& src, int index, int length);

    Buff(std::shared_ptr<Env>& env, jobject const& byteBuf);
    Buff(std::shared_ptr<Env>& env, jobject const& byteBuf, int index, int length);
    Buff(Buff const& src);
    Buff(Buff const& src, int index, int length);
    Buff& operator=(const Buff&) = delete;
    ~Buff();

    // The global reference held, null once released. It stays this handle's.
    jobject getBuff() const { return buff; }

    // Gives the slice back to Java now. Again: does nothing.
    void release();

    std::shared_ptr<Env> env;  // empty after release
    jobject buff = nullptr;

    // The release method is stored last and marks all three as set. In the default order: who sees
    // it set must see the other two.
    static std::atomic<jmethodID> m_jmethod_byte_buf_retained_slice;
    static std::atomic<jmethodID> m_jmethod_byte_buf_retained_slice_params;
    static std::atomic<jmethodID> m_jmethod_byte_buf_release;

  private:
    static constexpr int charge = 32;

    // Takes the retained slice that a Java call returned; null means that the call failed.
    void adopt(jobject slice, const char* method);
};
