#include "support/TestMap.h"

#include <gtest/gtest.h>
#include <pthread.h>

TestMap::TestMap(FakeJava& fake, int sectorSize, int height, JNIEnv* jniEnv)
    : java(fake),
      env(Env::create(jniEnv == nullptr ? fake.env() : jniEnv)),
      map(std::make_unique<SkipList>(env, height, sectorSize)) {
    map->engine->seed(7);
}

void TestMap::insert(const Stored& range) {
    map->insert(range.offset, range.len, range.fileOffset, range.majorVer, range.minorVer,
                static_cast<unsigned char>(range.number));
}

Stored TestMap::insertBuffered(Stored range) {
    const jobject buffer = java.newBuffer(range.len);
    map->insert(range.offset, range.len, range.fileOffset, range.majorVer, range.minorVer,
                static_cast<unsigned char>(range.number), Buff::create(env, buffer));
    range.type = true;
    range.memory = FakeJava::bufferOf(buffer).memory;
    range.bufferStart = 0;
    range.bufferLength = range.len;
    return range;
}

bool TestMap::compareAndSet(const Stored& request, const Stored& target) {
    return map->compareAndSet(request.offset, request.len, request.fileOffset, request.majorVer,
                              request.minorVer, static_cast<unsigned char>(request.number),
                              target.fileOffset, target.majorVer, target.minorVer,
                              static_cast<unsigned char>(target.number));
}

long long TestMap::compareAndRelease(const Stored& request) {
    return map->compareAndRelease(request.offset, request.len, request.fileOffset, request.majorVer,
                                  request.minorVer, static_cast<unsigned char>(request.number));
}

void onSmallStack(const std::function<void()>& body) {
    pthread_attr_t attributes;
    pthread_t thread;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)),
              0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}
