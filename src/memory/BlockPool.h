// Memory for the nodes of one map.
//
// Blocks of one size lie side by side in slabs, and the slabs of a large map in chunks, which are
// huge pages where the kernel grants them. So the tall nodes, few but passed by all searches, share
// few pages: a search of a large map spends its time on waiting for memory, and on finding out
// where a page lies.
//
// Invariants
//   (1) Of the slabs of one kind those that have room come first.
//   (2) At most one slab of a kind is without a block in use, and none that lies in a chunk.
// Ownership: a pool owns its slabs. When it goes, a slab with blocks in use stays until the last of
//   them is given back.
// Threads: one at a time for a pool and its blocks, even after the pool has gone.
// Cost: constant. A new slab holds a quarter of the blocks that its kind has, but at least four and
//   at most 64 KiB. Once they are 4 MiB in all, those of 64 KiB come from chunks of 2 MiB. An empty
//   pool takes half a kilobyte.
#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <memory>
#include <new>
#include <utility>

// Room for blocks of one size.
class Slab {
  public:
    // The slabs for one block size.
    struct Kind {
        std::list<std::unique_ptr<Slab>> slabs;
        std::size_t bytes = 0;  // of all of them
    };

    // Where the memory of a slab comes from: a block of a chunk, pages of the system, or the heap.
    struct GiveBack {
        Slab* chunk = nullptr;
        bool isMapped = false;
        void operator()(std::byte* room) const noexcept;
    };
    using Memory = std::unique_ptr<std::byte, GiveBack>;

    // A slab outside any pool; it goes when its only block is given back. Throws std::bad_alloc.
    static Slab& ofOne(std::size_t blockBytes);

    // REQUIRES: blocks > 0.
    Slab(Memory room, std::size_t bytesPerBlock, std::size_t blocks) noexcept;
    Slab(const Slab&) = delete;
    Slab& operator=(const Slab&) = delete;

    bool hasRoom() const { return freed != nullptr || fresh != end; }

    // REQUIRES: hasRoom().
    void* take() noexcept {
        ++used;
        void* block = freed;
        if (freed != nullptr) {
            freed = freed->next;
        } else {
            block = std::exchange(fresh, fresh + blockBytes);
        }
        if (!hasRoom()) becomeFull();
        return block;
    }

    // Ends the use of a block, with which the slab may go.
    void give(void* block) noexcept {
        const bool wasFull = !hasRoom();
        freed = ::new (block) Free{freed};
        --used;
        if (wasFull || used == 0) regainRoom();
    }

  private:
    friend class BlockPool;

    struct Free {
        Free* next;
    };

    std::size_t bytes() const { return static_cast<std::size_t>(end - memory.get()); }
    void becomeFull() noexcept;
    void regainRoom() noexcept;
    bool isSpare() const;

    Memory memory;
    std::size_t blockBytes;
    std::size_t used = 0;   // blocks
    Free* freed = nullptr;  // the blocks given back
    std::byte* fresh;       // from here to the end no block was ever taken
    std::byte* end;
    Kind* kind = nullptr;  // null outside a pool
    std::list<std::unique_ptr<Slab>>::iterator self;
};

class BlockPool {
  public:
    // Blocks of other kinds, which hardly occur, are allocated one by one.
    static constexpr std::size_t kindCount = 16;

    BlockPool() = default;
    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;
    ~BlockPool();

    // Whether a slab holds a single block, for tools and tests to see each as an allocation of its
    // own. Set under the address sanitizer, which so finds every use of a block that was given
    // back.
    static bool slabsOfOne;

    // A slab that has room. REQUIRES: always the same size for a kind, a multiple of its alignment.
    // Throws std::bad_alloc.
    Slab& slabFor(std::size_t kind, std::size_t blockBytes);

  private:
    std::size_t slabBytes() const;
    Slab::Memory takeFromChunk();
    static Slab& add(Slab::Kind& kind, Slab::Memory room, std::size_t blockBytes,
                     std::size_t blocks);
    static void dismiss(Slab::Kind& kind);

    Slab::Kind chunks;
    std::array<Slab::Kind, kindCount> kinds;
};
