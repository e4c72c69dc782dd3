#include "support/Faults.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <vector>

#include "memory/Memorystatistics.h"

namespace {

thread_local bool armed = false;
thread_local faults::Kind kindArmed;
thread_local int untilFault = 0;
thread_local bool faultReached = false;

void* allocate(std::size_t size) {
    if (armed && --untilFault <= 0 &&
        (untilFault == 0 || kindArmed == faults::Kind::allocationsFrom)) {
        faultReached = true;
        if (kindArmed != faults::Kind::charge) throw std::bad_alloc();
        MemoryStat::setMaxMem(0);
    }
    if (void* const block = std::malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
// libFuzzer allocates with this one and gives back with the one below.
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

namespace faults {

Fault::Fault(Kind kind, int n) {
    kindArmed = kind;
    untilFault = n;
    faultReached = false;
    armed = true;
}

Fault::~Fault() {
    armed = false;
    MemoryStat::setMaxMem(std::numeric_limits<long long>::max());
}

bool Fault::reached() {
    return faultReached;
}

Pause::Pause() : wasArmed(armed) {
    armed = false;
}

Pause::~Pause() {
    armed = wasArmed;
}

long long chargedBytes() {
    std::vector<std::shared_ptr<Stats>> records;
    MemoryStat::statsMap.clone(records);
    long long sum = MemoryStat::globalStats->count;
    for (const auto& record : records) sum += record->count;
    return sum;
}

}  // namespace faults
