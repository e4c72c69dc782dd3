#include "skiplist/Node.h"

#include <new>
#include <utility>

#include "memory/Memorystatistics.h"

namespace {

std::vector<std::shared_ptr<Node>> nullReferences(int n) {
    if (n < 0) throw std::bad_alloc();
    return std::vector<std::shared_ptr<Node>>(static_cast<std::size_t>(n));
}

// Lets go of what is part of a node, and so is not to be freed for itself.
template <typename Part>
void letGo(std::unique_ptr<Part>& pointer, const Part& part) {
    if (pointer.get() == &part) static_cast<void>(pointer.release());
}

}  // namespace

Node::Node(const Index& range, int topLevel)
    : level(topLevel), ownIndex(range), ownForward(nullReferences(topLevel + 1)) {
    MemoryStat::statsMem(charge);
    // Set only now: if the constructor fails, the parts go by themselves.
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
    return std::make_shared<Node>(range, level);
}

std::shared_ptr<Node> Node::create(const Index& range, Data& location, int level) {
    auto node = create(range, level);
    node->data->take(location);
    return node;
}

std::shared_ptr<Node> Node::create(std::unique_ptr<Index>&& index, std::unique_ptr<Data>&& data,
                                   int level) {
    const std::unique_ptr<Index> range = std::move(index);
    const std::unique_ptr<Data> location = std::move(data);
    return create(*range, *location, level);
}

Node::Arr Node::createArr(int n) {
    return std::make_unique<std::vector<std::shared_ptr<Node>>>(nullReferences(n));
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
