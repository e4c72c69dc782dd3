#include "skiplist/Node.h"

#include <new>
#include <utility>

#include "memory/Memorystatistics.h"

using Links = std::vector<std::shared_ptr<Node>>;

constinit thread_local std::shared_ptr<Node>* std::allocator<std::shared_ptr<Node>>::inBlock =
    nullptr;

namespace {

// Leaves room for the links of a node behind it. A node is the last part of what
// std::allocate_shared puts into one block.
template <typename T>
struct BlockAllocator {
    using value_type = T;

    explicit BlockAllocator(std::size_t n) : links(n) {}
    template <typename Other>
    explicit(false) BlockAllocator(const BlockAllocator<Other>& other) : links(other.links) {}

    T* allocate(std::size_t) {
        return static_cast<T*>(::operator new(sizeof(T) + links * sizeof(std::shared_ptr<Node>)));
    }
    void deallocate(T* block, std::size_t) noexcept { ::operator delete(block); }

    std::size_t links;
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

std::shared_ptr<Node> Node::create(const Index& range, int level) {
    const BlockAllocator<Node> block(checkedCount(level + 1));
    return std::allocate_shared<Node>(block, Made{}, range, level);
}

std::shared_ptr<Node> Node::create(const Index& range, Data& location, int level) {
    auto node = create(range, level);
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
