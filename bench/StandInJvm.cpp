#include "StandInJvm.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// All that matters of an identifier is its address.
struct Method {
    std::string_view name;
    std::string_view signature;
};
constexpr Method whole{"retainedSlice", "()Lio/netty/buffer/ByteBuf;"};
constexpr Method part{"retainedSlice", "(II)Lio/netty/buffer/ByteBuf;"};
constexpr Method release{"release", "()Z"};

jmethodID idOf(const Method& method) {
    return reinterpret_cast<jmethodID>(const_cast<Method*>(&method));
}

}  // namespace

StandInJvm& StandInJvm::ofThread() {
    thread_local StandInJvm jvm;
    return jvm;
}

StandInJvm::StandInJvm() : JNIEnv{} {
    functions = &table;
    table.FindClass = findClass;
    table.GetMethodID = getMethodId;
    table.CallObjectMethodV = callMethod;
    table.NewGlobalRef = newGlobalRef;
    table.DeleteGlobalRef = deleteGlobalRef;
    table.DeleteLocalRef = [](JNIEnv*, jobject) {};
    table.NewLongArray = newLongArray;
    table.SetLongArrayRegion = setLongArrayRegion;
}

// The library looks for this class, and for those of the exceptions that it raises.
jclass StandInJvm::findClass(JNIEnv* env, const char* name) {
    if (std::strcmp(name, "io/netty/buffer/ByteBuf") == 0) return reinterpret_cast<jclass>(env);
    std::fprintf(stderr, "skiplist-bench: the library raised %s\n", name);
    std::exit(EXIT_FAILURE);
}

jmethodID StandInJvm::getMethodId(JNIEnv*, jclass, const char* name, const char* signature) {
    for (const Method* method : {&whole, &part, &release}) {
        if (method->name == name && method->signature == signature) return idOf(*method);
    }
    return nullptr;
}

jobject StandInJvm::callMethod(JNIEnv* env, jobject object, jmethodID method, va_list arguments) {
    const Buffer& buffer = *reinterpret_cast<Buffer*>(object);
    if (method == idOf(whole)) return of(env).slice(buffer, 0, buffer.length);
    if (method == idOf(release)) {
        --of(env).slices;
        return nullptr;
    }
    const int index = va_arg(arguments, int);
    const int length = va_arg(arguments, int);
    return of(env).slice(buffer, index, length);
}

jobject StandInJvm::slice(const Buffer& buffer, int index, int length) {
    if (index < 0 || length < 0 || index + length > buffer.length) return nullptr;
    ++slices;
    return (new Buffer{length})->reference();
}

jobject StandInJvm::newGlobalRef(JNIEnv* env, jobject object) {
    ++of(env).references;
    return object;
}

void StandInJvm::deleteGlobalRef(JNIEnv* env, jobject object) {
    --of(env).references;
    delete reinterpret_cast<Buffer*>(object);
}

jlongArray StandInJvm::newLongArray(JNIEnv* env, jsize) {
    return reinterpret_cast<jlongArray>(&of(env).elements);
}

void StandInJvm::setLongArrayRegion(JNIEnv* env, jlongArray, jsize start, jsize length,
                                    const jlong* from) {
    std::copy_n(from, length, of(env).elements.begin() + start);
}
