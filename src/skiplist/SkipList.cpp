#include "skiplist/SkipList.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <utility>

#include "memory/Memorystatistics.h"
#include "records/Wrapping.h"

namespace {

constexpr long long firstPosition = std::numeric_limits<long long>::min();
constexpr long long lastPosition = std::numeric_limits<long long>::max();
constexpr long long longestRange = std::numeric_limits<int>::max();

constexpr double promotionProbability = 0.25;

// Above this many ranges a second descent finds the end of a run sooner than walking there.
constexpr int longestWalk = 16;

std::shared_ptr<Node> createSentinel(long long position, int level) {
    return Node::create(Index(position, 0), level);
}

// Drops the references in a per-level array at the end of a scope.
class ClearedAtEnd {
  public:
    explicit ClearedAtEnd(std::vector<std::shared_ptr<Node>>& levels) : entries(levels) {}
    ClearedAtEnd(const ClearedAtEnd&) = delete;
    ClearedAtEnd& operator=(const ClearedAtEnd&) = delete;
    ~ClearedAtEnd() { std::fill(entries.begin(), entries.end(), nullptr); }

  private:
    std::vector<std::shared_ptr<Node>>& entries;
};

// The link of a node at a level. In a large map keys come from memory: the one that is read next if
// that of this link ends too late is called for meanwhile.
const std::shared_ptr<Node>& follow(const Node& node, int level) {
    if (level > 0) node.linked(level - 1)->prefetchKey();
    return node.linked(level);
}

// The length of [start, end) as far as 32 bits hold it.
int lengthOf(long long start, long long end) {
    return static_cast<int>(wrapping::subtract(end, start));
}

bool isLength(long long length) {
    return length == static_cast<int>(length);
}

// Whether two ranges touch or overlap.
bool touch(const Index& a, const Index& b) {
    return a.getOffset() < b.getOffset()
               ? a.getEnd() >= b.getOffset()
               : a.getOffset() == b.getOffset() || b.getEnd() >= a.getOffset();
}

long long summedLength(const Node::List& nodes) {
    long long sum = 0;
    for (const auto& node : *nodes) sum += node->getLen();
    return sum;
}

}  // namespace

SkipList::SkipList(std::shared_ptr<Env>& sharedEnv, int height, int bytesPerSector)
    : prevArr(Node::createArr(height)),
      nextArr(Node::createArr(height)),
      env(sharedEnv),
      engine(std::make_unique<std::minstd_rand0>(
          static_cast<std::minstd_rand0::result_type>(std::time(nullptr)))),
      distribution(std::make_unique<std::uniform_real_distribution<double>>(0.0, 1.0)),
      maxLevel(height - 1),
      sectorSize(bytesPerSector),
      head(createSentinel(firstPosition, maxLevel)),
      tail(createSentinel(lastPosition, maxLevel)),
      path(static_cast<std::size_t>(height), head.get()) {
    for (int i = maxLevel; i >= 0; --i) head->next(i) = tail;
    // Last: what follows a charge must not fail, for a map that is not built credits nothing.
    MemoryStat::statsMem(charge);
}

SkipList::~SkipList() {
    const ChargeBatch batch;
    // Unlinks node by node, so that no node's destruction can set off that of its successors.
    std::shared_ptr<Node> current = head->nextNode();
    while (current != tail) {
        const std::shared_ptr<Node> unlinked = std::move(current);
        current = std::move(unlinked->linked(0));
        current->prefetchKey();  // while this one goes
        unlinked->forward->clear();
    }
    current.reset();
    head.reset();
    tail.reset();
    env.reset();
    MemoryStat::statsMem(-charge);
}

SkipList* SkipList::getSkipList(long handle, JNIEnv* jniEnv) {
    auto* const map = reinterpret_cast<SkipList*>(handle);
    if (map != nullptr && jniEnv != nullptr) map->setJNIEnv(jniEnv);
    return map;
}

void SkipList::setJNIEnv(JNIEnv* jniEnv) {
    env->jniEnv = jniEnv;
}

// --- Searches ------------------------------------------------------------------------------------

// Searches go from link to link through plain references to the links themselves, and so touch no
// reference count. `tail` ends every level, therefore a link that is followed is never null.
// `note(level, x, next)` is told, from the highest level down, the last node that ends at or before
// `key` and the one after it; returned is the latter at level 0, or where `note` returns true. No
// entry needs a check: a node that is met on a level is linked there.
template <typename Note>
const std::shared_ptr<Node>& SkipList::descend(long long key, int from, Note note) const {
    const std::shared_ptr<Node>* x = &head;
    for (int i = from; i >= 0; --i) {
        const std::shared_ptr<Node>* next = &follow(**x, i);
        while ((*next)->getEnd() <= key && *next != tail) {
            x = next;
            next = &follow(**x, i);
        }
        if (note(i, *x, *next)) return *next;
    }
    return (*x)->linked(0);
}

const std::shared_ptr<Node>& SkipList::firstEndingAfter(long long key) const {
    // A node that holds the key is the one, however high it is met.
    return descend(key, topLevel, [&](int, const auto&, const auto& next) {
        return isOrdered && next->getOffset() <= key;
    });
}

std::shared_ptr<Node> SkipList::findEqualGreater(long long key) const {
    return firstEndingAfter(key);
}

void SkipList::find(long long offset, int len, std::shared_ptr<Node>& first,
                    std::shared_ptr<Node>& last) const {
    const Run run = runOver(offset, len);
    first = run.first;
    last = run.last;
}

SkipList::Run SkipList::runOver(long long offset, int len) const {
    const long long end = Index::endOf(offset, len);
    const std::shared_ptr<Node>& begin = firstEndingAfter(offset);
    begin->prefetchLocation();
    const std::shared_ptr<Node>* stop = &begin;
    // The first node that ends after `end` is a few steps on, or else worth a descent.
    for (int steps = 0; *stop != tail && (*stop)->getEnd() <= end && steps < longestWalk; ++steps) {
        stop = &(*stop)->next(0);
        (*stop)->prefetchLocation();
    }
    const bool arrived = *stop == tail || (*stop)->getEnd() > end;
    // A range of negative length ends before it starts, and its end lies behind the walk.
    if (!arrived || end < offset) stop = &firstEndingAfter(end);
    if (*stop != tail && (*stop)->getOffset() < end) stop = &(*stop)->next(0);
    return {begin, *stop};
}

void SkipList::findAll(std::shared_ptr<Node>& first, std::shared_ptr<Node>& last) const {
    const Run run = runOverAll();
    first = run.first;
    last = run.last;
}

SkipList::Run SkipList::runOverAll() const {
    return {head->next(0), tail};
}

void SkipList::findRange(long long offset, int len, Node::Arr& predecessors, Node::Arr& successors,
                         Node::List& overlapped) const {
    const long long end = Index::endOf(offset, len);
    // Throws here rather than in the middle if an array is short.
    std::shared_ptr<Node>* const before = &Node::at(*predecessors, maxLevel) - maxLevel;
    std::shared_ptr<Node>* const after = &Node::at(*successors, maxLevel) - maxLevel;
    const std::shared_ptr<Node>* node =
        &descend(offset, maxLevel, [&](int level, const auto& previous, const auto& next) {
            before[level] = previous;
            after[level] = next;
            return false;
        });
    // What the descent took for a successor may itself be overlapped. Each node walked over hands
    // its own successors on, so that at every level the nodes between the two neighbours are
    // exactly the ones listed, whatever ranges the map was given.
    for (; startsBefore(*node, end); node = &(*node)->linked(0)) {
        overlapped->push_back(*node);
        for (int i = 0; i <= (*node)->level; ++i) after[i] = (*node)->linked(i);
    }
}

bool SkipList::startsBefore(const std::shared_ptr<Node>& node, long long end) const {
    return node != tail && node->getOffset() < end;
}

template <typename Visit>
void SkipList::forEachOverlapped(const Index& range, Visit visit) const {
    Node* node = firstEndingAfter(range.getOffset()).get();
    while (node != tail.get() && node->getOffset() < range.getEnd()) {
        visit(*node);
        node = node->next(0).get();
    }
}

bool SkipList::isConnected(const std::unique_ptr<Index>& newIndex,
                           const std::unique_ptr<Data>& newData,
                           const std::unique_ptr<Index>& oldIndex,
                           const std::unique_ptr<Data>& oldData) const {
    return continues(*newIndex, *newData, *oldIndex, *oldData);
}

bool SkipList::isEmptyDataConnected(const std::unique_ptr<Index>& newIndex,
                                    const std::unique_ptr<Data>& /*newData*/,
                                    const std::unique_ptr<Index>& oldIndex,
                                    const std::unique_ptr<Data>& /*oldData*/) const {
    return touch(*newIndex, *oldIndex);
}

bool SkipList::isDataConnected(const std::unique_ptr<Index>& newIndex,
                               const std::unique_ptr<Data>& newData,
                               const std::unique_ptr<Index>& oldIndex,
                               const std::unique_ptr<Data>& oldData) const {
    return touch(*newIndex, *oldIndex) && runsOn(*newIndex, *newData, *oldIndex, *oldData);
}

// The ranges come first: most neighbours do not touch, and their locations need not be read.
bool SkipList::continues(const Index& newIndex, const Data& newData, const Index& oldIndex,
                         const Data& oldData) const {
    if (!touch(newIndex, oldIndex)) return false;
    if (newData.isEmpty() || oldData.isEmpty()) return newData.isEmpty() && oldData.isEmpty();
    // A buffer holds the bytes of its own range only.
    if (newData.isMemoryType() || oldData.isMemoryType()) return false;
    return runsOn(newIndex, newData, oldIndex, oldData);
}

// Whether one file holds both ranges exactly as far apart as the device does.
bool SkipList::runsOn(const Index& newIndex, const Data& newData, const Index& oldIndex,
                      const Data& oldData) const {
    if (newData.getMajorVer() != oldData.getMajorVer()) return false;
    if (newData.getMinorVer() != oldData.getMinorVer()) return false;
    if (newData.getNumber() != oldData.getNumber()) return false;
    const long long distance = wrapping::subtract(newIndex.getOffset(), oldIndex.getOffset());
    return Data::fileDistance(distance, sectorSize) ==
           wrapping::subtract(newData.getOffset(), oldData.getOffset());
}

// --- Insert --------------------------------------------------------------------------------------

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number) {
    const ChargeBatch batch;
    const Index index(offset, len);
    Data data(0, fileOffset, majorVer, minorVer, number);
    insert(index, data);
}

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number, std::unique_ptr<Buff>&& buff) {
    const ChargeBatch batch;
    const Index index(offset, len);
    Data data(1, fileOffset, majorVer, minorVer, number, std::move(buff));
    insert(index, data);
}

void SkipList::insert(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    insert(*index, *data);
}

void SkipList::insert(const Index& range, Data& location) {
    if (!insertInPlace(range, location)) insertByReplacing(range, location);
    rawCount = wrapping::add(rawCount, 1);
    rawLen = wrapping::add(rawLen, range.getLen());
}

// Which of its two neighbours a range continues, and the range that they are together. A length
// that 32 bits do not hold is not made: the left neighbour is tried first, then the right one
// added.
SkipList::Fusion SkipList::fuse(const Index& range, const Data& location, const Node& left,
                                const Node& right) const {
    Fusion fusion{false, false, range.getOffset(), range.getLen()};
    if (&left != head.get() && continues(range, location, *left.index, *left.data) &&
        isLength(fusion.len + left.getLen())) {
        fusion.left = true;
        fusion.offset = left.getOffset();
        fusion.len += left.getLen();
    }
    if (&right != tail.get() && continues(range, location, *right.index, *right.data) &&
        isLength(fusion.len + right.getLen())) {
        fusion.right = true;
        fusion.len += right.getLen();
    }
    return fusion;
}

// The general way: every node that the range overlaps or continues is replaced by new ones.
void SkipList::insertByReplacing(const Index& range, Data& location) {
    // Whatever happens, the scratch arrays hold no node when a later insert takes one out.
    const ClearedAtEnd before(*prevArr);
    const ClearedAtEnd after(*nextArr);
    auto overlapped = Node::createList();
    findRange(range.getOffset(), range.getLen(), prevArr, nextArr, overlapped);
    // Plain pointers: a reference held here would outlive the list of replaced nodes, and the
    // whole chain of them would hang on it.
    Node* const left = Node::at(*prevArr, 0).get();
    const Node* const right = Node::at(*nextArr, 0).get();
    const Fusion fusion = fuse(range, location, *left, *right);
    auto index = Index::create(fusion.offset, static_cast<int>(fusion.len));
    if (fusion.left || fusion.right) {
        overlapped->clear();
        findRange(fusion.offset, index->getLen(), prevArr, nextArr, overlapped);
    }
    // The fused range begins where the left neighbour's bytes do and so takes its location, unless
    // that neighbour covers no byte: then it is not replaced and keeps its own.
    const bool leftLeaves =
        fusion.left && !overlapped->empty() && overlapped->front().get() == left;
    auto data = Data::createEmpty();
    data->swap(location);
    insertNewNodes(index, leftLeaves ? left->data : data, prevArr, nextArr, overlapped);
}

// The usual way: wherever a stored node can stand for a part of the result, it stays, with its
// links, and only its records change.
//
//   stored   [----)[--)[--)[----)      [-----------)      [----)
//   new         [------------)            [----)               [----)
//   becomes  [-)[------------)[-)      [-)[----)[--)      [---------)
//             one of the covered       the stored one      the neighbour
//             becomes the new one      stays and two come  grows
//
// False, with nothing done, for what is rare: a range that continues one that it overlaps, both its
// neighbours, the right one while it overlaps others, or one that covers no byte.
bool SkipList::insertInPlace(const Index& range, Data& location) {
    noteOrder(range);
    const Overlap overlap = findOverlap(range);
    const Fusion fusion = fuse(range, location, *path.front(), *overlap.next);
    if (fusion.right && (fusion.left || overlap.count > 0)) return false;
    if (fusion.left && overlap.outLeft) return false;
    Node* const neighbour = fusion.left ? path.front() : fusion.right ? overlap.next : nullptr;
    if (neighbour != nullptr && neighbour->getLen() <= 0) return false;
    if (continuesOverlapped(range, location, fusion, overlap)) return false;
    overlay(range, location, fusion, overlap, neighbour);
    return true;
}

void SkipList::noteOrder(const Index& range) {
    if (range.getEnd() <= range.getOffset()) isOrdered = false;
}

// Makes `path` end at the last node that ends at or before `key`. Often it does so already, or one
// step before, since many writes go on where the one before them stopped.
void SkipList::leadPathTo(long long key) {
    if (isOrdered && path.front()->getEnd() <= key) {
        Node* next = path.front()->linked(0).get();
        if (next->getEnd() <= key && next != tail.get()) {
            passOver(*next);
            next = next->linked(0).get();
        }
        if (next->getEnd() > key) return;
    }
    descend(key, topLevel, [this](int level, const auto& previous, const auto&) {
        path[static_cast<std::size_t>(level)] = previous.get();
        return false;
    });
}

// Leads the path to the range, and notes what the range lies over.
SkipList::Overlap SkipList::findOverlap(const Index& range) {
    leadPathTo(range.getOffset());
    const std::shared_ptr<Node>* next = &path.front()->linked(0);
    Overlap overlap{};
    overlap.first = next->get();
    for (; startsBefore(*next, range.getEnd()); next = &(*next)->linked(0)) {
        overlap.last = next->get();
        overlap.bytes += overlap.last->getLen();
        ++overlap.count;
    }
    overlap.next = next->get();
    if (overlap.count > 0) {
        overlap.outLeft = overlap.first->getOffset() < range.getOffset();
        overlap.outRight = overlap.last->getEnd() > range.getEnd();
    }
    return overlap;
}

// Whether the range, together with the left neighbour that it continues, also continues a range
// that sticks out.
bool SkipList::continuesOverlapped(const Index& range, const Data& location, const Fusion& fusion,
                                   const Overlap& overlap) const {
    if (fusion.left) {
        if (!overlap.outRight) return false;
        const Index fused(fusion.offset, static_cast<int>(fusion.len));
        return continues(fused, *path.front()->data, *overlap.last->index, *overlap.last->data);
    }
    const auto continued = [&](const Node& stored) {
        return continues(range, location, *stored.index, *stored.data);
    };
    return (overlap.outLeft && continued(*overlap.first)) ||
           (overlap.outRight && continued(*overlap.last));
}

// Lays the range over what is there. A neighbour, unless null, is the one that takes it in.
void SkipList::overlay(const Index& range, Data& location, const Fusion& fusion,
                       const Overlap& overlap, Node* neighbour) {
    const Plan plan = planOverlay(overlap, neighbour);
    const long long gained = bytesGained(fusion, overlap, neighbour);
    Parts parts = makeParts(range, overlap, plan);

    // Nothing can fail any more. Java, which gets back the buffers of what is replaced, is not
    // called before the map is whole again: until then the exchanged records and `removed` hold
    // them.
    std::shared_ptr<Node> removed;
    if (plan.keepsLast) {
        shorten(*overlap.last, range.getEnd(), overlap.last->getEnd(), parts.right);
    }
    if (overlap.outLeft) {
        shorten(*overlap.first, overlap.first->getOffset(), range.getOffset(), parts.left);
        passOver(*overlap.first);
    }
    if (plan.kept == nullptr) {
        parts.added->data->swap(location);
        if (plan.splits) linkBehindPath(std::move(parts.rest));
        linkBehindPath(std::move(parts.added));
    } else {
        plan.kept->index->set(fusion.offset, static_cast<int>(fusion.len));
        // A range that grows to the right keeps its location, for its start stays where it is.
        if (!fusion.left) plan.kept->data->swap(location);
        if (neighbour == nullptr) passOver(*plan.kept);
        while (path.front()->linked(0).get() != plan.behind) unlinkBehindPath(removed);
    }
    validLen = wrapping::add(validLen, gained);
    while (removed) removed = std::move(removed->linked(0));
}

SkipList::Plan SkipList::planOverlay(const Overlap& overlap, Node* neighbour) {
    Plan plan{};
    plan.splits = overlap.outLeft && overlap.outRight && overlap.first == overlap.last;
    plan.keepsLast = overlap.outRight && !plan.splits;
    plan.behind = plan.keepsLast ? overlap.last : overlap.next;
    Node* const covered = overlap.outLeft ? overlap.first->linked(0).get() : overlap.first;
    plan.kept = neighbour == nullptr && covered != plan.behind ? covered : neighbour;
    return plan;
}

// Makes what the plan needs and does not have, with Java's help where buffers are cut. An insert
// that needs no node is refused where one that does would be.
SkipList::Parts SkipList::makeParts(const Index& range, const Overlap& overlap, const Plan& plan) {
    const long long start = range.getOffset();
    const long long end = range.getEnd();
    const Node& first = *overlap.first;
    if (plan.kept != nullptr) MemoryStat::checkMem(Node::charge);
    Parts parts;
    if (overlap.outLeft) parts.left = partOfBuffer(first, first.getOffset(), start);
    if (plan.kept == nullptr) parts.added = Node::create(range, randLevel(), &pool);
    if (plan.splits) parts.rest = cut(first, end, first.getEnd());
    if (plan.keepsLast) parts.right = partOfBuffer(*overlap.last, end, overlap.last->getEnd());
    return parts;
}

// What an insert adds to `validLen`. If the new range ends inside a stored one on one side only,
// gaps between those that it overlaps do not count.
long long SkipList::bytesGained(const Fusion& fusion, const Overlap& overlap,
                                const Node* neighbour) {
    const long long end = wrapping::add(fusion.offset, fusion.len);
    if (overlap.outLeft && overlap.outRight) {
        const long long covered =
            wrapping::subtract(overlap.last->getEnd(), overlap.first->getOffset());
        return wrapping::subtract(covered, overlap.bytes);
    }
    if (overlap.outLeft) return wrapping::subtract(end, overlap.last->getEnd());
    if (overlap.outRight) {
        const Node& first = neighbour != nullptr ? *neighbour : *overlap.first;
        return wrapping::subtract(first.getOffset(), fusion.offset);
    }
    return fusion.len - overlap.bytes - (neighbour != nullptr ? neighbour->getLen() : 0);
}

// The location of the part [start, end) of a stored range that holds a buffer; else null.
std::unique_ptr<Data> SkipList::partOfBuffer(const Node& node, long long start,
                                             long long end) const {
    if (!node.data->hasBuff()) return nullptr;
    return Data::sliceData(node.data, lengthOf(node.getOffset(), start), lengthOf(start, end),
                           sectorSize);
}

// Leaves a stored node the part [start, end) of its range, at the given location if it is not null.
void SkipList::shorten(Node& node, long long start, long long end,
                       const std::unique_ptr<Data>& part) const {
    if (part) {
        node.data->swap(*part);
    } else {
        node.data->skip(lengthOf(node.getOffset(), start), sectorSize);
    }
    node.index->set(start, lengthOf(start, end));
}

void SkipList::passOver(Node& node) {
    std::fill_n(path.begin(), node.getLevel() + 1, &node);
}

// Links a node behind the last one before it at each of its levels.
void SkipList::linkBehindPath(std::shared_ptr<Node> node) {
    for (int i = node->getLevel(); i >= 0; --i) {
        std::shared_ptr<Node>& link = path[static_cast<std::size_t>(i)]->linked(i);
        node->linked(i) = std::move(link);
        if (i > 0) link = node;
    }
    path.front()->linked(0) = std::move(node);
    ++size;
}

// Takes the node behind the path out, and puts it before `removed`.
void SkipList::unlinkBehindPath(std::shared_ptr<Node>& removed) {
    std::shared_ptr<Node> node = std::move(path.front()->linked(0));
    for (int i = 0; i <= node->getLevel(); ++i) {
        path[static_cast<std::size_t>(i)]->linked(i) = std::move(node->linked(i));
    }
    node->linked(0) = std::exchange(removed, nullptr);
    removed = std::move(node);
    --size;
}

void SkipList::insertNewNodes(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                              Node::Arr& predecessors, Node::Arr& successors,
                              Node::List& overlapped) {
    auto newNodes = create(index, data, overlapped);
    link(predecessors, successors, newNodes);
}

Node::List SkipList::create(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                            Node::List& overlapped) {
    auto newNodes = Node::createList();
    if (overlapped->empty()) {
        replaceAll(index, data, overlapped, newNodes);
        return newNodes;
    }
    const bool coversStart = overlapped->front()->getOffset() >= index->getOffset();
    const bool coversEnd = overlapped->back()->getEnd() <= index->getEnd();
    if (coversEnd && coversStart) {
        replaceAll(index, data, overlapped, newNodes);
    } else if (coversStart) {
        expandLeft(index, data, overlapped, newNodes);
    } else if (coversEnd) {
        expandRight(index, data, overlapped, newNodes);
    } else {
        updateMiddle(index, data, overlapped, newNodes);
    }
    return newNodes;
}

// In each of the four cases every node and list cell is made first. Only then, when nothing can
// fail any more, a node is given a location that somebody else still owns: the caller's, or that
// of the stored node whose place it takes. Then come the counters.

//   stored      [----)   [--)            or nothing
//   new      [------------------)
//   becomes  [------------------)
void SkipList::replaceAll(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                          Node::List& overlapped, Node::List& newNodes) {
    Node& whole = append(newNodes, Node::create(*index, randLevel(), &pool));
    whole.data->swap(*data);
    countReplaced(overlapped, newNodes, whole.getLen() - summedLength(overlapped));
}

//   stored      [----)   [---------)
//   new      [---------------)
//   becomes  [---------------)[----)     cut: the rest of the last range
//        or  [---------------------)     connected to it: at the new location
void SkipList::expandLeft(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                          Node::List& overlapped, Node::List& newNodes) {
    const Node& last = *overlapped->back();
    const long long newOff = index->getOffset();
    const long long newEnd = index->getEnd();
    const long long lastEnd = last.getEnd();
    const bool fuses = isConnected(index, data, last.index, last.data) &&
                       lengthOf(newOff, lastEnd) != longestRange;
    if (fuses) index = Index::create(newOff, lengthOf(newOff, lastEnd));
    Node& left = append(newNodes, Node::create(*index, randLevel(), &pool));
    if (!fuses) append(newNodes, cut(last, newEnd, lastEnd));
    left.data->swap(*data);
    // Gaps between the overlapped ranges are not counted.
    countReplaced(overlapped, newNodes,
                  wrapping::subtract(overlapped->front()->getOffset(), newOff));
}

//   stored   [---------)   [----)
//   new           [---------------)
//   becomes  [----)[--------------)      cut: the start of the first range
//        or  [--------------------)      connected to it: at the first range's location
void SkipList::expandRight(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                           Node::List& overlapped, Node::List& newNodes) {
    Node& first = *overlapped->front();
    const long long newOff = index->getOffset();
    const long long newEnd = index->getEnd();
    const long long firstOff = first.getOffset();
    const bool fuses = isConnected(index, data, first.index, first.data);
    if (fuses) {
        index = Index::create(firstOff, lengthOf(firstOff, newEnd));
    } else {
        append(newNodes, cut(first, firstOff, newOff));
    }
    Node& right = append(newNodes, Node::create(*index, randLevel(), &pool));
    right.data->swap(fuses ? *first.data : *data);
    // Gaps between the overlapped ranges are not counted.
    countReplaced(overlapped, newNodes, wrapping::subtract(newEnd, overlapped->back()->getEnd()));
}

//   stored   [---------)   [---------)   often one and the same range
//   new           [-------------)
//   becomes  [----)[------------)[---)   three pieces
//        or  [----)[-----------------)   right fusion: at the new location
//        or  [------------------)[---)   left fusion: at the first range's location and level
//        or  [-----------------------)   whole fusion: the same
void SkipList::updateMiddle(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                            Node::List& overlapped, Node::List& newNodes) {
    Node& first = *overlapped->front();
    const Node& last = *overlapped->back();
    const long long newOff = index->getOffset();
    const long long newEnd = index->getEnd();
    const long long firstOff = first.getOffset();
    const long long lastEnd = last.getEnd();
    const bool fusesLeft = isConnected(index, data, first.index, first.data) &&
                           wrapping::subtract(newEnd, firstOff) <= longestRange;
    const bool connectsRight = isConnected(index, data, last.index, last.data);
    const bool fusesWhole =
        fusesLeft && connectsRight && wrapping::subtract(lastEnd, firstOff) <= longestRange;
    const bool fusesRight =
        !fusesLeft && connectsRight && wrapping::subtract(lastEnd, newOff) <= longestRange;
    const long long fusedOff = fusesLeft ? firstOff : newOff;
    const long long fusedEnd = fusesWhole || fusesRight ? lastEnd : newEnd;

    if (!fusesLeft) append(newNodes, cut(first, firstOff, newOff));
    if (fusesLeft || fusesRight) index = Index::create(fusedOff, lengthOf(fusedOff, fusedEnd));
    const int level = fusesLeft ? first.getLevel() : randLevel();
    Node& middle = append(newNodes, Node::create(*index, level, &pool));
    if (fusedEnd == newEnd) append(newNodes, cut(last, newEnd, lastEnd));
    middle.data->swap(fusesLeft ? *first.data : *data);
    countReplaced(
        overlapped, newNodes,
        wrapping::subtract(wrapping::subtract(lastEnd, firstOff), summedLength(overlapped)));
}

// A new node for the part [start, end) of a stored range.
std::shared_ptr<Node> SkipList::cut(const Node& source, long long start, long long end) {
    const int len = lengthOf(start, end);
    const int skip = lengthOf(source.getOffset(), start);
    const Index range(start, len);
    Data location(*source.data, skip, len, sectorSize);
    return Node::create(range, location, randLevel(), &pool);
}

// Appends a node and links those before it to it.
Node& SkipList::append(Node::List& newNodes, std::shared_ptr<Node> node) {
    noteOrder(*node->index);
    for (auto& earlier : *newNodes) link(earlier, node);
    newNodes->push_back(std::move(node));
    return *newNodes->back();
}

void SkipList::countReplaced(const Node::List& overlapped, const Node::List& newNodes,
                             long long coveredBytes) {
    size += static_cast<int>(newNodes->size()) - static_cast<int>(overlapped->size());
    validLen = wrapping::add(validLen, coveredBytes);
}

int SkipList::randLevel() {
    int level = 0;
    // The draw comes before the test of the cap: a call that reaches it has drawn once more.
    while ((*distribution)(*engine) < promotionProbability && level < maxLevel) ++level;
    topLevel = std::max(topLevel, level);
    return level;
}

void SkipList::link(std::shared_ptr<Node>& from, std::shared_ptr<Node>& to) const {
    const int top = std::min(from->getLevel(), to->getLevel());
    for (int i = 0; i <= top; ++i) {
        if (from->next(i) == nullptr) from->next(i) = to;
    }
}

void SkipList::link(Node::Arr& predecessors, Node::Arr& successors, Node::List& newNodes) {
    // The path may lead over nodes that are about to go.
    std::fill(path.begin(), path.end(), head.get());
    newNodes->back()->next(0) = Node::at(*successors, 0);
    int linked = 0;  // levels whose predecessor points to a new node by now
    for (const auto& node : *newNodes) {
        for (int i = 0; i <= node->getLevel(); ++i) {
            if (i >= linked) {
                Node::at(*predecessors, i)->next(i) = node;
                linked = i + 1;
            }
            if (node->next(i) == nullptr) node->next(i) = Node::at(*successors, i);
        }
    }
    // Levels that no new node reaches pass over the replaced ones, up to the level that none of
    // these reached: what is not linked at a level is not linked above it either.
    for (int i = linked; i <= maxLevel; ++i) {
        std::shared_ptr<Node>& passing = Node::at(*predecessors, i)->next(i);
        if (passing == Node::at(*successors, i)) break;
        passing = Node::at(*successors, i);
    }
}

// --- Conditional operations ----------------------------------------------------------------------

bool SkipList::compareAndSet(std::unique_ptr<Index>& index, std::unique_ptr<Data>& expected,
                             std::unique_ptr<Data>& newData) {
    return compareAndSet(*index, *expected, *newData);
}

bool SkipList::compareAndSet(long long offset, int len, int expFileOffset, int expMajorVer,
                             int expMinorVer, unsigned char expNumber, int newFileOffset,
                             int newMajorVer, int newMinorVer, unsigned char newNumber) {
    const ChargeBatch batch;
    const Index index(offset, len);
    const Data expected(0, expFileOffset, expMajorVer, expMinorVer, expNumber);
    const Data newData(0, newFileOffset, newMajorVer, newMinorVer, newNumber);
    return compareAndSet(index, expected, newData);
}

bool SkipList::compareAndSet(const Index& range, const Data& expected, const Data& newData) {
    const ChargeBatch batch;
    // All pieces are found before the first insert changes what is there. They are no nodes:
    // references to these would keep whole chains of replaced ones alive.
    struct Piece {
        long long start;
        int len;
    };
    std::vector<Piece> pieces;
    forEachOverlapped(range, [&](Node& node) {
        if (!continues(*node.index, *node.data, range, expected)) return;
        const long long start = std::max(node.getOffset(), range.getOffset());
        const long long end = std::min(node.getEnd(), range.getEnd());
        pieces.push_back({start, lengthOf(start, end)});
    });
    for (const Piece& piece : pieces) {
        const int skip = lengthOf(range.getOffset(), piece.start);
        Data location(newData, skip, piece.len, sectorSize);
        insert(Index(piece.start, piece.len), location);
    }
    return !pieces.empty();
}

long long SkipList::compareAndRelease(std::unique_ptr<Index>& index,
                                      std::unique_ptr<Data>& expected) {
    long long released = 0;
    forEachOverlapped(*index, [&](Node& node) {
        if (node.getOffset() < index->getOffset() || node.getEnd() > index->getEnd()) return;
        if (!isDataConnected(node.index, node.data, index, expected)) return;
        released += node.releaseFileBuff();
    });
    return released;
}

long long SkipList::compareAndRelease(long long offset, int len, int fileOffset, int majorVer,
                                      int minorVer, unsigned char number) {
    auto index = Index::create(offset, len);
    auto expected = Data::create(0, fileOffset, majorVer, minorVer, number);
    return compareAndRelease(index, expected);
}

long long SkipList::release() {
    long long released = 0;
    for (Node* node = head->next(0).get(); node != tail.get(); node = node->next(0).get()) {
        released += node->releaseFileBuff();
    }
    return released;
}

void SkipList::copyTo(SkipList* destination) {
    const ChargeBatch batch;
    for (std::shared_ptr<Node> node = head->nextNode(); node != tail;) {
        const long long end = node->getEnd();
        const Index index(*node->index);
        Data data(*node->data);
        // From here on the buffer is the destination's, and given back through its environment.
        if (data.hasBuff()) data.buff->env = destination->env;
        destination->insert(index, data);
        // A map that is copied into itself may have lost this very node.
        node = destination == this ? findEqualGreater(end) : node->nextNode();
    }
}
