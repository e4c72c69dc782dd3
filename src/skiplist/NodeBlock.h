// A node in one block of memory: its reference counts, its records and its links.
//
//     | reference counts, slab | Node's own fields | forward | data | index | link 0 | link 1 ...
//     |<--- what std::allocate_shared makes for a Node ------------------->|<- level + 1 of them ->
//                                                  |<---- NodeParts ------>|
//
// A search reads the key and the links and nothing else: they are neighbours, in one line of the
// cache or two. What a node shows as owning pointers are pointers to these parts.
//
// Why this holds
//   (1) The links lie right behind the NodeParts, which is the last member of a node, which is the
//       last part of what std::allocate_shared makes. The block is larger by the links.
//   (2) `forward` is a vector whose array they are. Its constructor allocates once, at once: the
//       specialised allocator hands out the room that it was told of just before, by the thread
//       that makes the node. Without a node being made it allocates on the heap.
//   (3) No part is ever freed by itself: the parts are in unions, which end none of them; a node
//       lets go of its pointers to them; `forward` is cleared, which keeps its array, and is never
//       made larger. What they own goes with NodeParts: references to nodes, and a buffer.
// Accounting: none; the node charges for its records.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "memory/BlockPool.h"
#include "records/Data.h"
#include "records/Index.h"

class Node;
class NodeParts;

template <>
class std::allocator<std::shared_ptr<Node>> {
  public:
    using value_type = std::shared_ptr<Node>;

    allocator() = default;
    template <typename Other>
    explicit(false) allocator(const allocator<Other>&) noexcept {}

    value_type* allocate(std::size_t n) {
        if (inBlock != nullptr) return std::exchange(inBlock, nullptr);
        return static_cast<value_type*>(::operator new(n * sizeof(value_type)));
    }
    void deallocate(value_type* array, std::size_t) noexcept { ::operator delete(array); }
    friend bool operator==(const allocator&, const allocator&) { return true; }

  private:
    friend ::NodeParts;

    // Where the next array goes, if it is that of a node which this thread is making.
    static constinit thread_local value_type* inBlock;
};

class NodeParts {
  public:
    using Link = std::shared_ptr<Node>;
    using Links = std::vector<Link>;

    // The range, the empty location, and level + 1 null links. REQUIRES: as much room behind it.
    NodeParts(const ByteRange& range, int level)
        : data(ChargedByOwner{}), index(ChargedByOwner{}, range) {
        if (level >= 0) std::allocator<Link>::inBlock = links();
        ::new (&forward) Links(static_cast<std::size_t>(level + 1));
    }
    NodeParts(const NodeParts&) = delete;
    NodeParts& operator=(const NodeParts&) = delete;
    ~NodeParts() {
        forward.clear();
        data.buff.reset();
    }

    Link* links() { return reinterpret_cast<Link*>(this + 1); }
    const Link* links() const { return reinterpret_cast<const Link*>(this + 1); }

    // Ends the ownership of what is a part.
    template <typename Part>
    static void letGo(std::unique_ptr<Part>& pointer, const Part& part) {
        if (pointer.get() == &part) static_cast<void>(pointer.release());
    }

    union {
        Links forward;
    };
    union {
        Data data;
    };
    union {
        Index index;
    };
};

// What std::allocate_shared puts before the object: its virtual table, its counts, the slab.
constexpr std::size_t sharedBytes = 3 * sizeof(void*);

// Allocates a block of a slab, for something that is no larger than the room before the links.
template <typename T, std::size_t room>
struct BlockAllocator {
    using value_type = T;
    template <typename Other>
    struct rebind {
        using other = BlockAllocator<Other, room>;
    };

    explicit BlockAllocator(Slab& from) : slab(&from) {}
    template <typename Other>
    explicit(false) BlockAllocator(const BlockAllocator<Other, room>& other) : slab(other.slab) {}

    T* allocate(std::size_t) {
        static_assert(sizeof(T) == room);
        return static_cast<T*>(slab->take());
    }
    void deallocate(T* block, std::size_t) noexcept { slab->give(block); }

    Slab* slab;
};

// Makes an object that ends with NodeParts, in a block of the pool or, without one, in a block of
// its own. REQUIRES: level >= -1. Throws std::bad_alloc, and what the constructor throws.
template <typename T, typename... Arguments>
std::shared_ptr<T> makeInBlock(BlockPool* pool, int level, Arguments&&... arguments) {
    constexpr std::size_t room = sharedBytes + sizeof(T);
    const std::size_t bytes =
        room + (static_cast<std::size_t>(level) + 1) * sizeof(NodeParts::Link);
    Slab& slab = pool != nullptr ? pool->slabFor(static_cast<std::size_t>(level), bytes)
                                 : Slab::ofOne(bytes);
    return std::allocate_shared<T>(BlockAllocator<T, room>(slab),
                                   std::forward<Arguments>(arguments)...);
}
