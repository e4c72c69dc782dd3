#include "skiplist/Node.h"

#include <new>
#include <utility>

#include "memory/Memorystatistics.h"

using Links = std::vector<std::shared_ptr<Node>>;

constinit thread_local std::shared_ptr<Node>* std::allocator<std::shared_ptr<Node>>::inBlock =
    nullptr;

namespace {

// What std::allocate_shared puts before the node: its virtual table, its counts, its allocator.
constexpr std::size_t sharedBytes = 3 * sizeof(void*);

// Allocates a block of a slab. It has room for the links of a node behind the node itself, which is
// the last part of what std::allocate_shared puts there.
template <typename T>
struct BlockAllocator {
    using value_type = T;

    explicit BlockAllocator(Slab& from) : slab(&from) {}
    template <typename Other>
    explicit(false) BlockAllocator(const BlockAllocator<Other>& other) : slab(other.slab) {}

    T* allocate(std::size_t) {
        static_assert(sizeof(T) <= sharedBytes + sizeof(Node));
        return static_cast<T*>(slab->take());
    }
    void deallocate(T* block, std::size_t) noexcept { slab->give(block); }

    Slab* slab;
};

std::size_t checkedCount(int n) {
    if (n < 0) throw std::bad_alloc();
    return static_cast<std::size_t>(n);
}

// Lets go of what is part of a node, and so is not to be freed for itself.
template <typename Part>
void letGo(std::unique_ptr<Part>& pointer, const Part& part) {
    if (pointer.get() == &part) static_cast<void>(pointer.release());
}

}  // namespace

Node::Node(Made, const Index& range, int topLevel) : level(topLevel), ownIndex(range) {
    MemoryStat::statsMem(charge);
    // Nothing can fail any more.
    if (level >= 0) std::allocator<std::shared_ptr<Node>>::inBlock = links();
    ::new (&ownForward) Links(static_cast<std::size_t>(level + 1));
    index.reset(&ownIndex);
    data.reset(&ownData);
    forward.reset(&ownForward);
}

Node::~Node() {
    forward->clear();
    letGo(forward, ownForward);
    letGo(index, ownIndex);
    letGo(data, ownData);
    MemoryStat::statsMem(-charge);
}

std::shared_ptr<Node> Node::create(const Index& range, int level, BlockPool* pool) {
    const std::size_t links = checkedCount(level + 1);
    const std::size_t bytes = sharedBytes + sizeof(Node) + links * sizeof(std::shared_ptr<Node>);
    Slab& slab = pool != nullptr ? pool->slabFor(static_cast<std::size_t>(level), bytes)
                                 : Slab::ofOne(bytes);
    return std::allocate_shared<Node>(BlockAllocator<Node>(slab), Made{}, range, level);
}

std::shared_ptr<Node> Node::create(const Index& range, Data& location, int level, BlockPool* pool) {
    auto node = create(range, level, pool);
    node->data->swap(location);
    return node;
}

std::shared_ptr<Node> Node::create(std::unique_ptr<Index>&& index, std::unique_ptr<Data>&& data,
                                   int level) {
    const std::unique_ptr<Index> range = std::move(index);
    const std::unique_ptr<Data> location = std::move(data);
    return create(*range, *location, level);
}

Node::Arr Node::createArr(int n) {
    return std::make_unique<Links>(checkedCount(n));
}

void Node::clearArr(int n, Arr arr) {
    for (int i = 0; i < n; ++i) at(*arr, i).reset();
}

Node::List Node::createList() {
    return std::make_unique<std::list<std::shared_ptr<Node>>>();
}

int Node::releaseFileBuff() {
    return data->releaseBuff() == 1 ? getLen() : 0;
}

void Node::throwOutOfRange() {
    throw std::out_of_range("vector::_M_range_check");
}
