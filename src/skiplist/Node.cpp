#include "skiplist/Node.h"

#include <new>
#include <utility>

#include "memory/Memorystatistics.h"

Node::Node(std::unique_ptr<Index>&& range, std::unique_ptr<Data>&& location, int topLevel)
    : index(std::move(range)),
      data(std::move(location)),
      level(topLevel),
      forward(createArr(topLevel + 1)) {
    MemoryStat::statsMem(charge);
}

Node::~Node() {
    forward.reset();
    index.reset();
    data.reset();
    MemoryStat::statsMem(-charge);
}

std::shared_ptr<Node> Node::create(std::unique_ptr<Index>&& index, std::unique_ptr<Data>&& data,
                                   int level) {
    return std::make_shared<Node>(std::move(index), std::move(data), level);
}

Node::Arr Node::createArr(int n) {
    if (n < 0) throw std::bad_alloc();
    return std::make_unique<std::vector<std::shared_ptr<Node>>>(static_cast<std::size_t>(n));
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
