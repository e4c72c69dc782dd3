#include "support/FakeJava.h"

#include <algorithm>
#include <cstdarg>
#include <utility>

#include "support/Faults.h"

namespace {

// The identities of the methods: all that matters of an identifier is its address.
int wholeMethod, partMethod, releaseMethod;

template <typename Id>
Id idOf(int& identity) {
    return reinterpret_cast<Id>(&identity);
}

FakeJava& javaOf(JNIEnv* env) {
    return *static_cast<FakeJava::Thread*>(env)->java;
}

jclass findClass(JNIEnv* env, const char* name) {
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
    if (method == "retainedSlice()Lio/netty/buffer/ByteBuf;") return idOf<jmethodID>(wholeMethod);
    if (method == "retainedSlice(II)Lio/netty/buffer/ByteBuf;") return idOf<jmethodID>(partMethod);
    if (method == "release()Z") return idOf<jmethodID>(releaseMethod);
    return nullptr;
}

jobject release(JNIEnv* env, const FakeJava::ByteBuf& buffer) {
    FakeJava& java = javaOf(env);
    java.lastReleaser = env;
    --buffer.memory->refCnt;
    if (java.onRelease) java.onRelease();
    // What a JVM returns for a boolean called as an object: no reference.
    return reinterpret_cast<jobject>(1);
}

jobject slice(FakeJava& java, const FakeJava::ByteBuf& buffer, int index, int length) {
    const faults::Pause pause;
    if (java.failSliceAfter >= 0 && java.failSliceAfter-- == 0) return nullptr;
    if (index < 0 || length < 0 || index + length > buffer.length) return nullptr;
    ++buffer.memory->refCnt;
    ++java.localRefs;
    java.buffers.push_back({buffer.memory, buffer.start + index, length});
    return reinterpret_cast<jobject>(&java.buffers.back());
}

jobject callObjectMethodV(JNIEnv* env, jobject object, jmethodID method, va_list arguments) {
    const FakeJava::ByteBuf& buffer = FakeJava::bufferOf(object);
    if (method == idOf<jmethodID>(releaseMethod)) return release(env, buffer);
    if (method == idOf<jmethodID>(wholeMethod)) {
        return slice(javaOf(env), buffer, 0, buffer.length);
    }
    const int index = va_arg(arguments, int);
    const int length = va_arg(arguments, int);
    return slice(javaOf(env), buffer, index, length);
}

jobject newGlobalRef(JNIEnv* env, jobject object) {
    FakeJava& java = javaOf(env);
    if (java.failGlobalRefAfter >= 0 && java.failGlobalRefAfter-- == 0) return nullptr;
    ++java.globalRefs;
    return object;
}

void deleteGlobalRef(JNIEnv* env, jobject) {
    --javaOf(env).globalRefs;
}

jobject newLocalRef(JNIEnv* env, jobject object) {
    ++javaOf(env).localRefs;
    return object;
}

void deleteLocalRef(JNIEnv* env, jobject) {
    --javaOf(env).localRefs;
}

jlongArray newLongArray(JNIEnv* env, jsize length) {
    const faults::Pause pause;
    FakeJava& java = javaOf(env);
    if (java.failArray) return nullptr;
    java.array.assign(static_cast<std::size_t>(length), 0);
    return reinterpret_cast<jlongArray>(&java.array);
}

void setLongArrayRegion(JNIEnv*, jlongArray array, jsize start, jsize length, const jlong* from) {
    auto& target = *reinterpret_cast<std::vector<jlong>*>(array);
    std::copy(from, from + length, target.begin() + start);
}

}  // namespace

FakeJava::FakeJava() : threads(2) {
    functions.FindClass = findClass;
    functions.ThrowNew = throwNew;
    functions.GetMethodID = getMethodId;
    functions.CallObjectMethodV = callObjectMethodV;
    functions.NewGlobalRef = newGlobalRef;
    functions.DeleteGlobalRef = deleteGlobalRef;
    functions.NewLocalRef = newLocalRef;
    functions.DeleteLocalRef = deleteLocalRef;
    functions.NewLongArray = newLongArray;
    functions.SetLongArrayRegion = setLongArrayRegion;
    for (Thread& thread : threads) {
        thread.functions = &functions;
        thread.java = this;
    }
}

jobject FakeJava::newBuffer(int length) {
    const faults::Pause pause;
    memories.emplace_back();
    buffers.push_back({&memories.back(), 0, length});
    return reinterpret_cast<jobject>(&buffers.back());
}

int FakeJava::retained() const {
    int sum = 0;
    for (const Memory& memory : memories) sum += memory.refCnt - 1;
    return sum;
}

std::vector<jlong> FakeJava::takeArray() {
    return std::exchange(array, {});
}
