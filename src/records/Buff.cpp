#include "records/Buff.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "memory/Memorystatistics.h"
#include "records/Diagnostics.h"

namespace {

[[noreturn]] void fail(const std::string& message) {
    writeDiagnostic("%s \n", message.c_str());
    throw std::runtime_error(message);
}

void requireInitialized(jmethodID method, const char* where, const char* name) {
    if (method == nullptr) {
        fail(std::string(where) + " JNI jmethod_" + name + " not initialized");
    }
}

void requireEnvInit(const Env& env) {
    if (!Buff::envInit(env.jniEnv)) fail("Buff::create JNIEnv initialize failed");
}

constexpr const char* wholeSlice = "byte_buf_retained_slice";
constexpr const char* partSlice = "byte_buf_retained_slice_params";

}  // namespace

std::atomic<jmethodID> Buff::m_jmethod_byte_buf_retained_slice{nullptr};
std::atomic<jmethodID> Buff::m_jmethod_byte_buf_retained_slice_params{nullptr};
std::atomic<jmethodID> Buff::m_jmethod_byte_buf_release{nullptr};

Env::~Env() {
    MemoryStat::statsMem(-size);
}

std::shared_ptr<Env> Env::create(JNIEnv* jniEnv) {
    constexpr int charge = 32;
    auto env = std::make_shared<Env>();
    env->jniEnv = jniEnv;
    MemoryStat::statsMem(charge);
    // Set only now: a refused charge must not be credited when the holder goes.
    env->size = charge;
    return env;
}

bool Buff::envInit(JNIEnv* jniEnv) {
    if (m_jmethod_byte_buf_release != nullptr) return true;
    const jclass byteBuf = jniEnv->FindClass("io/netty/buffer/ByteBuf");
    if (byteBuf == nullptr) return false;
    const jmethodID whole =
        jniEnv->GetMethodID(byteBuf, "retainedSlice", "()Lio/netty/buffer/ByteBuf;");
    if (whole == nullptr) return false;
    const jmethodID part =
        jniEnv->GetMethodID(byteBuf, "retainedSlice", "(II)Lio/netty/buffer/ByteBuf;");
    if (part == nullptr) return false;
    const jmethodID release = jniEnv->GetMethodID(byteBuf, "release", "()Z");
    if (release == nullptr) return false;
    m_jmethod_byte_buf_retained_slice = whole;
    m_jmethod_byte_buf_retained_slice_params = part;
    m_jmethod_byte_buf_release = release;
    jniEnv->DeleteLocalRef(byteBuf);
    return true;
}

std::unique_ptr<Buff> Buff::create(std::shared_ptr<Env> env, jobject const& byteBuf) {
    requireEnvInit(*env);
    MemoryStat::checkMem(charge);
    const ChargeBatch batch;
    return std::make_unique<Buff>(env, byteBuf);
}

std::unique_ptr<Buff> Buff::create(std::shared_ptr<Env> env, jobject const& byteBuf, int index,
                                   int length) {
    requireEnvInit(*env);
    MemoryStat::checkMem(charge);
    const ChargeBatch batch;
    return std::make_unique<Buff>(env, byteBuf, index, length);
}

std::unique_ptr<Buff> Buff::create(std::unique_ptr<Buff> const& src) {
    MemoryStat::checkMem(charge);
    const ChargeBatch batch;
    return std::make_unique<Buff>(*src);
}

std::unique_ptr<Buff> Buff::create(std::unique_ptr<Buff> const& src, int index, int length) {
    MemoryStat::checkMem(charge);
    const ChargeBatch batch;
    return std::make_unique<Buff>(*src, index, length);
}

Buff::Buff(std::shared_ptr<Env>& sharedEnv, jobject const& byteBuf) : env(sharedEnv) {
    const jmethodID method = m_jmethod_byte_buf_retained_slice;
    requireInitialized(method, "Buff::Buff", wholeSlice);
    adopt(env->jniEnv->CallObjectMethod(byteBuf, method), wholeSlice);
    MemoryStat::statsMem(charge);
}

Buff::Buff(std::shared_ptr<Env>& sharedEnv, jobject const& byteBuf, int index, int length)
    : env(sharedEnv) {
    const jmethodID method = m_jmethod_byte_buf_retained_slice_params;
    requireInitialized(method, "Buff::Buff", partSlice);
    adopt(env->jniEnv->CallObjectMethod(byteBuf, method, index, length), partSlice);
    MemoryStat::statsMem(charge);
}

Buff::Buff(Buff const& src) : env(src.env) {
    if (src.buff != nullptr) {
        const jmethodID method = m_jmethod_byte_buf_retained_slice;
        adopt(env->jniEnv->CallObjectMethod(src.buff, method), wholeSlice);
    }
    MemoryStat::statsMem(charge);
}

Buff::Buff(Buff const& src, int index, int length) : env(src.env) {
    if (src.buff != nullptr) {
        const jmethodID method = m_jmethod_byte_buf_retained_slice_params;
        adopt(env->jniEnv->CallObjectMethod(src.buff, method, index, length), partSlice);
    }
    MemoryStat::statsMem(charge);
}

Buff::~Buff() {
    release();
    MemoryStat::statsMem(-charge);
}

void Buff::release() {
    if (!env) return;
    const jmethodID method = m_jmethod_byte_buf_release;
    requireInitialized(method, "Buff::~Buff", "byte_buf_release");
    if (buff != nullptr) {
        // A boolean method called for an object: its result is no reference and is ignored.
        env->jniEnv->CallObjectMethod(buff, method);
        env->jniEnv->DeleteGlobalRef(buff);
        buff = nullptr;
    }
    env.reset();
}

void Buff::adopt(jobject slice, const char* method) {
    if (slice == nullptr) {
        fail(std::string("Buff::Buff JNI CallObjectMethod(") + method + ") failed");
    }
    JNIEnv* const jniEnv = env->jniEnv;
    buff = jniEnv->NewGlobalRef(slice);
    // Without a reference to keep, nobody could give the slice back later.
    if (buff == nullptr) jniEnv->CallObjectMethod(slice, m_jmethod_byte_buf_release);
    jniEnv->DeleteLocalRef(slice);
}
