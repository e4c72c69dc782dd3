#include "support/Faults.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

#include "memory/Memorystatistics.h"
#include "records/Buff.h"

namespace {

thread_local bool armed = false;
thread_local faults::Kind kindArmed;
thread_local int untilFault = 0;
thread_local bool faultReached = false;

void* allocate(std::size_t size) {
    using faults::Kind, faults::isDue;
    faults::throwIfDue();
    if (isDue(Kind::allocation) || isDue(Kind::allocationsFrom)) throw std::bad_alloc();
    // Not between a handle's question for room and its charge, which would lose its reference.
    if (size != sizeof(Buff) && isDue(Kind::charge)) MemoryStat::setMaxMem(0);
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
    if (kind == Kind::limit) MemoryStat::setMaxMem(sweptTotal() + n);
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

bool isDue(Kind kind) {
    if (!armed || kind != kindArmed || --untilFault > 0) return false;
    faultReached = true;
    armed = kind == Kind::allocationsFrom;
    return true;
}

void throwIfDue() {
    if (isDue(Kind::badAlloc)) throw std::bad_alloc();
    if (isDue(Kind::exception)) throw std::runtime_error("why");
    if (isDue(Kind::unknown)) throw 1;
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

long long sweptTotal() {
    MemoryStat::lastAccessTm = 0;
    return MemoryStat::getStatisInfo()[6];
}

}  // namespace faults
