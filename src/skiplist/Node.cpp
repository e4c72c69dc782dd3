#include "skiplist/Node.h"

#include <new>
#include <stdexcept>
#include <utility>

#include "memory/Memorystatistics.h"

constinit thread_local NodeParts::Link* std::allocator<NodeParts::Link>::inBlock = nullptr;

namespace {

std::size_t checkedCount(int n) {
    if (n < 0) throw std::bad_alloc();
    return static_cast<std::size_t>(n);
}

}  // namespace

Node::Node(Made, const ByteRange& range, int topLevel) : level(topLevel), own(range, topLevel) {
    MemoryStat::chargeEach(Index::charge, Data::charge, charge);
    // Nothing can fail any more.
    index.reset(&own.index);
    data.reset(&own.data);
    forward.reset(&own.forward);
}

Node::~Node() {
    NodeParts::letGo(forward, own.forward);
    NodeParts::letGo(index, own.index);
    NodeParts::letGo(data, own.data);
    MemoryStat::statsMem(-(Index::charge + Data::charge + charge));
}

std::shared_ptr<Node> Node::create(const ByteRange& range, int level, BlockPool* pool) {
    if (level < -1) throw std::bad_alloc();
    return makeInBlock<Node>(pool, level, Made{}, range, level);
}

std::shared_ptr<Node> Node::create(const ByteRange& range, FileLocation& location, int level,
                                   BlockPool* pool) {
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
    return std::make_unique<NodeParts::Links>(checkedCount(n));
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
