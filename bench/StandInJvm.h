// The least of a JVM that the library needs to be called without one: its answers cost next to
// nothing, so what is measured is the library.
//
// There is room for one array at a time, in place of the garbage-collected one of a JVM. Whatever
// else the library asks of Java would be a failure of it, and ends the program: either with a
// message, if it raises an exception, or as a call of a null pointer.
#pragma once

#include <jni.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

class StandInJvm : private JNIEnv {
  public:
    StandInJvm() : JNIEnv{} {
        functions = &table;
        table.NewLongArray = newLongArray;
        table.SetLongArrayRegion = setLongArrayRegion;
        table.FindClass = refuse;
    }
    StandInJvm(const StandInJvm&) = delete;
    StandInJvm& operator=(const StandInJvm&) = delete;

    JNIEnv* env() { return this; }

    // The array that the last call returned.
    const std::array<jlong, 2>& pair() const { return elements; }

  private:
    static jlongArray newLongArray(JNIEnv* env, jsize) {
        return reinterpret_cast<jlongArray>(&static_cast<StandInJvm*>(env)->elements);
    }
    static void setLongArrayRegion(JNIEnv* env, jlongArray, jsize start, jsize length,
                                   const jlong* from) {
        std::copy_n(from, length, static_cast<StandInJvm*>(env)->elements.begin() + start);
    }
    static jclass refuse(JNIEnv*, const char* name) {
        std::fprintf(stderr, "skiplist-bench: the library raised %s\n", name);
        std::exit(EXIT_FAILURE);
    }

    JNINativeInterface_ table{};
    std::array<jlong, 2> elements{};
};
