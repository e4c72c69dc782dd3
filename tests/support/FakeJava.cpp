#include "support/FakeJava.h"

#include <algorithm>
#include <cstdarg>

#include "support/Faults.h"

namespace {

// The identities of the methods: all that matters of an identifier is its address.
int wholeMethod, partMethod, releaseMethod;

jmethodID idOf(int& identity) {
    return reinterpret_cast<jmethodID>(&identity);
}

FakeJava& javaOf(JNIEnv* env) {
    return *static_cast<FakeJava::Thread*>(env)->java;
}

jclass findClass(JNIEnv* env, const char* name) {
    faults::throwIfDue();
    const faults::Pause pause;
    FakeJava& java = javaOf(env);
    ++java.lookups;
    if (java.missing == name) return nullptr;
    ++java.localRefs;
    // The name itself stands for the class: callers pass literals.
    return reinterpret_cast<jclass>(const_cast<char*>(name));
}

jint throwNew(JNIEnv* env, jclass type, const char* message) {
    const faults::Pause pause;
    FakeJava& java = javaOf(env);
    --java.localRefs;  // the reference to the class ends with the native method
    java.thrownClass = reinterpret_cast<const char*>(type);
    java.thrownMessage = message;
    return 0;
}

jmethodID getMethodId(JNIEnv* env, jclass, const char* name, const char* signature) {
    const faults::Pause pause;
    const std::string method = std::string(name) + signature;
    if (javaOf(env).missing == method) return nullptr;
    if (method == "retainedSlice()Lio/netty/buffer/ByteBuf;") return idOf(wholeMethod);
    if (method == "retainedSlice(II)Lio/netty/buffer/ByteBuf;") return idOf(partMethod);
    return method == "release()Z" ? idOf(releaseMethod) : nullptr;
}

jobject release(JNIEnv* env, const FakeJava::ByteBuf& buffer) {
    const faults::Pause pause;
    FakeJava& java = javaOf(env);
    java.lastReleaser = env;
    --buffer.memory->refCnt;
    if (java.onRelease) java.onRelease();
    // What a JVM returns for a boolean called as an object: no reference.
    return reinterpret_cast<jobject>(1);
}

jobject slice(FakeJava& java, const FakeJava::ByteBuf& buffer, int index, int length) {
    if (faults::isDue(faults::Kind::javaCall)) return nullptr;
    const faults::Pause pause;
    if (index < 0 || length < 0 || index + length > buffer.length) return nullptr;
    ++buffer.memory->refCnt;
    ++java.localRefs;
    java.buffers.push_back({buffer.memory, buffer.start + index, length});
    return reinterpret_cast<jobject>(&java.buffers.back());
}

jobject callObjectMethodV(JNIEnv* env, jobject object, jmethodID method, va_list arguments) {
    faults::throwIfDue();
    const FakeJava::ByteBuf& buffer = FakeJava::bufferOf(object);
    if (method == idOf(releaseMethod)) return release(env, buffer);
    if (method == idOf(wholeMethod)) return slice(javaOf(env), buffer, 0, buffer.length);
    const int index = va_arg(arguments, int);
    return slice(javaOf(env), buffer, index, va_arg(arguments, int));
}

}  // namespace

FakeJava::FakeJava() : threads(2) {
    functions.FindClass = findClass;
    functions.ThrowNew = throwNew;
    functions.GetMethodID = getMethodId;
    functions.CallObjectMethodV = callObjectMethodV;
    functions.NewGlobalRef = [](JNIEnv* env, jobject object) {
        if (faults::isDue(faults::Kind::globalReference)) return jobject{};
        ++javaOf(env).globalRefs;
        return object;
    };
    functions.DeleteGlobalRef = [](JNIEnv* env, jobject) { --javaOf(env).globalRefs; };
    functions.NewLocalRef = [](JNIEnv* env, jobject object) {
        faults::throwIfDue();
        ++javaOf(env).localRefs;
        return object;
    };
    functions.DeleteLocalRef = [](JNIEnv* env, jobject) { --javaOf(env).localRefs; };
    functions.NewLongArray = [](JNIEnv* env, jsize length) {
        faults::throwIfDue();
        if (faults::isDue(faults::Kind::javaCall)) return jlongArray{};
        const faults::Pause pause;
        javaOf(env).array.assign(static_cast<std::size_t>(length), 0);
        return reinterpret_cast<jlongArray>(&javaOf(env).array);
    };
    functions.SetLongArrayRegion = [](JNIEnv*, jlongArray target, jsize start, jsize length,
                                      const jlong* from) {
        auto& values = *reinterpret_cast<std::vector<jlong>*>(target);
        std::copy(from, from + length, values.begin() + start);
    };
    for (Thread& thread : threads) {
        thread.functions = &functions;
        thread.java = this;
    }
}

jobject FakeJava::newBuffer(int length) {
    memories.emplace_back();
    buffers.push_back({&memories.back(), 0, length});
    return reinterpret_cast<jobject>(&buffers.back());
}

int FakeJava::retained() const {
    int sum = 0;
    for (const Memory& memory : memories) sum += memory.refCnt - 1;
    return sum;
}
