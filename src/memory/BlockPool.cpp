#include "memory/BlockPool.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace {

constexpr std::size_t largestSlab = 64 << 10;  // bytes
constexpr std::size_t hugePage = 2 << 20;      // bytes

// From here on the slabs of a map come from chunks: what a huge page leaves unused is then little.
constexpr std::size_t largeMap = 4 << 20;  // bytes

std::size_t nextCapacity(const Slab::Kind& kind, std::size_t blockBytes) {
    if (BlockPool::slabsOfOne) return 1;
    const std::size_t wanted = std::max<std::size_t>(4, kind.bytes / blockBytes / 4);
    return wanted * blockBytes > largestSlab / 2 ? largestSlab / blockBytes : wanted;
}

bool hasRoom(const Slab::Kind& kind) {
    return !kind.slabs.empty() && kind.slabs.front()->hasRoom();
}

Slab::Memory allocate(std::size_t bytes) {
    return {static_cast<std::byte*>(::operator new(bytes)), {}};
}

// Memory for one huge page, aligned as it must be. If the kernel grants none, it is of small pages.
Slab::Memory mapHugePage() {
    void* const mapped =
        mmap(nullptr, 2 * hugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    const std::size_t before = -reinterpret_cast<std::uintptr_t>(mapped) % hugePage;
    std::byte* const page = static_cast<std::byte*>(mapped) + before;
    if (before > 0) munmap(mapped, before);
    munmap(page + hugePage, hugePage - before);
    madvise(page, hugePage, MADV_HUGEPAGE);
    return {page, {.isMapped = true}};
}

}  // namespace

// --- Slab ----------------------------------------------------------------------------------------

void Slab::GiveBack::operator()(std::byte* room) const noexcept {
    if (chunk != nullptr) {
        chunk->give(room);
    } else if (isMapped) {
        // Unmapped it may not be where the process has as many mappings as it may have.
        if (munmap(room, hugePage) != 0) madvise(room, hugePage, MADV_DONTNEED);
    } else {
        ::operator delete(room);
    }
}

Slab& Slab::ofOne(std::size_t blockBytes) {
    return *std::make_unique<Slab>(allocate(blockBytes), blockBytes, 1).release();
}

Slab::Slab(Memory room, std::size_t bytesPerBlock, std::size_t blocks) noexcept
    : memory(std::move(room)),
      blockBytes(bytesPerBlock),
      fresh(memory.get()),
      end(fresh + bytesPerBlock * blocks) {}

void Slab::becomeFull() noexcept {
    if (kind != nullptr) kind->slabs.splice(kind->slabs.end(), kind->slabs, self);
}

// Room again, or no block in use any more.
void Slab::regainRoom() noexcept {
    if (kind == nullptr) {
        if (used == 0) delete this;
        return;
    }
    auto& slabs = kind->slabs;
    slabs.splice(slabs.begin(), slabs, self);
    if (!isSpare()) return;
    kind->bytes -= bytes();
    slabs.erase(self);
}

// A slab in a chunk is never kept: it would hold the whole chunk.
bool Slab::isSpare() const {
    if (used > 0) return false;
    if (bytes() == blockBytes || memory.get_deleter().chunk != nullptr) return true;
    const auto other = std::next(self);
    return other != kind->slabs.end() && (*other)->hasRoom();
}

// --- BlockPool -----------------------------------------------------------------------------------

#ifdef SKIPLIST_SLABS_OF_ONE
bool BlockPool::slabsOfOne = true;
#else
bool BlockPool::slabsOfOne = false;
#endif

BlockPool::~BlockPool() {
    for (Slab::Kind& kind : kinds) dismiss(kind);
    dismiss(chunks);
}

void BlockPool::dismiss(Slab::Kind& kind) {
    for (auto& slab : kind.slabs) {
        if (slab->used > 0) slab.release()->kind = nullptr;
    }
    kind.slabs.clear();
}

Slab& BlockPool::slabFor(std::size_t kind, std::size_t blockBytes) {
    if (kind >= kindCount) return Slab::ofOne(blockBytes);
    Slab::Kind& own = kinds[kind];
    if (hasRoom(own)) return *own.slabs.front();
    const std::size_t blocks = nextCapacity(own, blockBytes);
    const bool fromChunk = blocks == largestSlab / blockBytes && slabBytes() >= largeMap;
    return add(own, fromChunk ? takeFromChunk() : allocate(blocks * blockBytes), blockBytes,
               blocks);
}

std::size_t BlockPool::slabBytes() const {
    std::size_t sum = 0;
    for (const Slab::Kind& kind : kinds) sum += kind.bytes;
    return sum;
}

Slab::Memory BlockPool::takeFromChunk() {
    Slab& chunk = hasRoom(chunks) ? *chunks.slabs.front()
                                  : add(chunks, mapHugePage(), largestSlab, hugePage / largestSlab);
    return {static_cast<std::byte*>(chunk.take()), {.chunk = &chunk}};
}

Slab& BlockPool::add(Slab::Kind& kind, Slab::Memory room, std::size_t blockBytes,
                     std::size_t blocks) {
    auto& slabs = kind.slabs;
    slabs.push_front(std::make_unique<Slab>(std::move(room), blockBytes, blocks));
    Slab& slab = *slabs.front();
    slab.kind = &kind;
    slab.self = slabs.begin();
    kind.bytes += slab.bytes();
    return slab;
}
