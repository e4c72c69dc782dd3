// A stand-in for the JVM: a function table of the ten functions that the library may call, with
// Netty-like buffers. It counts references and notes what it was asked; what fails is chosen by
// Faults.h. A call of any other function is a null pointer and so ends the test.
#pragma once

#include <jni.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

class FakeJava {
  public:
    // A buffer and all slices of it share one count, as in Netty.
    struct Memory {
        int refCnt = 1;
    };
    struct ByteBuf {
        Memory* memory;
        int start;
        int length;
    };
    // One attached thread.
    struct Thread : JNIEnv {
        FakeJava* java = nullptr;
    };

    FakeJava();

    JNIEnv* env() { return &threads.front(); }
    JNIEnv* otherEnv() { return &threads.back(); }

    jobject newBuffer(int length);
    static const ByteBuf& bufferOf(jobject reference) {
        return *reinterpret_cast<ByteBuf*>(reference);
    }

    // The sum of the counts of all buffers beyond the one that each was made with.
    int retained() const;

    // What there is, and what was done.
    int globalRefs = 0;
    int localRefs = 0;
    int lookups = 0;
    std::string thrownClass;
    std::string thrownMessage;
    JNIEnv* lastReleaser = nullptr;
    std::deque<Memory> memories;
    std::deque<ByteBuf> buffers;
    std::vector<jlong> array;

    std::string missing;              // a class, or a method with its signature
    std::function<void()> onRelease;  // runs whenever a buffer is given back

  private:
    JNINativeInterface_ functions{};
    std::deque<Thread> threads;
};
