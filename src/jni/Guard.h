// The one place where native exceptions become lines on standard error and Java exceptions.
//
// Each native method runs its body in `guarded`, and states the texts of its lines and the value
// it returns after a failure. Nothing is thrown past `guarded`.
// Threads: any; no state.
// Cost: none unless the body throws.
#pragma once

#include <jni.h>

#include <type_traits>

// The parts in which the lines of one method differ from those of another.
struct Texts {
    const char* method;
    // Whether std::bad_alloc has a clause of its own and becomes an OutOfMemoryError; without one
    // it is a std::exception like any other and becomes a RuntimeException.
    bool hasBadAllocClause;
    // What ends the line of a std::exception; lines without an end run on into the next output.
    const char* exceptionEnd;
    // What follows "<method> exception" in the line of anything else that is thrown.
    const char* unknownEnd = ", msg:unknown exception";
};

enum class Clause { badAlloc, exception, unknown };

// What a method returns after each clause.
template <typename Result>
struct Failed {
    Result afterBadAlloc{};
    Result afterException = afterBadAlloc;
    Result afterUnknown = afterBadAlloc;

    constexpr Result after(Clause clause) const {
        switch (clause) {
            case Clause::badAlloc:
                return afterBadAlloc;
            case Clause::exception:
                return afterException;
            default:
                return afterUnknown;
        }
    }
};

template <>
struct Failed<void> {};

// Raises a Java exception of the named class. If the class is not found, the exception that its
// lookup raised stays in its place.
void raise(JNIEnv* env, const char* javaClass, const char* message) noexcept;

// Writes the line of the exception being handled and raises its Java exception.
// REQUIRES: called from a catch clause.
Clause reportCurrentException(JNIEnv* env, const Texts& texts) noexcept;

template <typename Body, typename Result = std::invoke_result_t<Body>>
Result guarded(JNIEnv* env, const Texts& texts, Body body, Failed<Result> failed = {}) noexcept {
    try {
        return body();
    } catch (...) {
        const Clause clause = reportCurrentException(env, texts);
        if constexpr (!std::is_void_v<Result>) return failed.after(clause);
    }
}
