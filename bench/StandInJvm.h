// The least of a JVM that the library needs to be called without one: its answers cost next to
// nothing, so what is measured is the library.
//
// Each thread has an environment of its own, with room for one array at a time in place of the
// garbage-collected ones of a JVM. A buffer is its length; a slice is an object that lives while
// there is a global reference to it. Whatever else the library asks of Java would be a failure of
// it, and ends the program: either with a message, if it raises an exception, or as a call of a
// null pointer.
#pragma once

#include <jni.h>

#include <array>

class StandInJvm : private JNIEnv {
  public:
    struct Buffer {
        int length;

        jobject reference() { return reinterpret_cast<jobject>(this); }
    };

    static StandInJvm& ofThread();

    StandInJvm(const StandInJvm&) = delete;
    StandInJvm& operator=(const StandInJvm&) = delete;

    JNIEnv* env() { return this; }

    // The array that the last call returned.
    const std::array<jlong, 2>& pair() const { return elements; }

    // How many slices are retained and not released, and how many global references there are.
    long long retained() const { return slices; }
    long long globalReferences() const { return references; }

  private:
    StandInJvm();

    static StandInJvm& of(JNIEnv* env) { return *static_cast<StandInJvm*>(env); }
    static jclass findClass(JNIEnv* env, const char* name);
    static jmethodID getMethodId(JNIEnv*, jclass, const char* name, const char* signature);
    static jobject callMethod(JNIEnv* env, jobject object, jmethodID method, va_list arguments);
    static jobject newGlobalRef(JNIEnv* env, jobject object);
    static void deleteGlobalRef(JNIEnv* env, jobject object);
    static jlongArray newLongArray(JNIEnv* env, jsize);
    static void setLongArrayRegion(JNIEnv* env, jlongArray, jsize start, jsize length,
                                   const jlong* from);
    jobject slice(const Buffer& buffer, int index, int length);

    JNINativeInterface_ table{};
    std::array<jlong, 2> elements{};
    long long slices = 0;
    long long references = 0;
};
