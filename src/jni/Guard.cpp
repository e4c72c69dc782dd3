#include "jni/Guard.h"

#include <exception>
#include <new>

#include "records/Diagnostics.h"

namespace {

constexpr const char* outOfMemoryError = "java/lang/OutOfMemoryError";
constexpr const char* runtimeException = "java/lang/RuntimeException";

Clause reportException(JNIEnv* env, const Texts& texts, const char* what) noexcept {
    writeDiagnostic("%s exception, msg:%s%s", texts.method, what, texts.exceptionEnd);
    raise(env, runtimeException, what);
    return Clause::exception;
}

}  // namespace

void raise(JNIEnv* env, const char* javaClass, const char* message) noexcept {
    const jclass type = env->FindClass(javaClass);
    if (type != nullptr) env->ThrowNew(type, message);
}

Clause reportCurrentException(JNIEnv* env, const Texts& texts) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc& e) {
        if (!texts.hasBadAllocClause) return reportException(env, texts, e.what());
        writeDiagnostic("%s bad_alloc, msg:%s", texts.method, e.what());
        raise(env, outOfMemoryError, e.what());
        return Clause::badAlloc;
    } catch (const std::exception& e) {
        return reportException(env, texts, e.what());
    } catch (...) {
        writeDiagnostic("%s exception%s", texts.method, texts.unknownEnd);
        raise(env, runtimeException, "unknown exception");
        return Clause::unknown;
    }
}
