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
    return Node::create(Index::create(position, 0), Data::createEmpty(), level);
}

// An assignment costs two atomic operations; most entries stay what they were.
void assignIfOther(std::shared_ptr<Node>& entry, const std::shared_ptr<Node>& node) {
    if (entry != node) entry = node;
}

// The length of [start, end) as far as 32 bits hold it.
int lengthOf(long long start, long long end) {
    return static_cast<int>(wrapping::subtract(end, start));
}

bool isLength(long long length) {
    return length == static_cast<int>(length);
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
      path(static_cast<std::size_t>(height)) {
    for (int i = maxLevel; i >= 0; --i) head->next(i) = tail;
    // Last: what follows a charge must not fail, for a map that is not built credits nothing.
    MemoryStat::statsMem(charge);
}

SkipList::~SkipList() {
    // Unlinks node by node, so that no node's destruction can set off that of its successors.
    std::shared_ptr<Node> current = head->nextNode();
    while (current != tail) {
        const std::shared_ptr<Node> unlinked = std::move(current);
        current = unlinked->nextNode();
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
// `key` and the one after it; returned is the latter at level 0. No entry needs a check: a node
// that is met on a level is linked there.
template <typename Note>
const std::shared_ptr<Node>& SkipList::descend(long long key, Note note) const {
    const std::shared_ptr<Node>* x = &head;
    for (int i = maxLevel; i >= 0; --i) {
        const std::shared_ptr<Node>* next = &(*x)->linked(i);
        while (*next != tail && (*next)->getEnd() <= key) {
            x = next;
            next = &(*x)->linked(i);
        }
        note(i, *x, *next);
    }
    return (*x)->linked(0);
}

const std::shared_ptr<Node>& SkipList::firstEndingAfter(long long key) const {
    return descend(key, [](int, const auto&, const auto&) {});
}

std::shared_ptr<Node> SkipList::findEqualGreater(long long key) const {
    return firstEndingAfter(key);
}

void SkipList::find(long long offset, int len, std::shared_ptr<Node>& first,
                    std::shared_ptr<Node>& last) const {
    const long long end = Index::endOf(offset, len);
    const std::shared_ptr<Node>& begin = firstEndingAfter(offset);
    const std::shared_ptr<Node>* stop = &begin;
    // The first node that ends after `end` is a few steps on, or else worth a descent.
    for (int steps = 0; *stop != tail && (*stop)->getEnd() <= end && steps < longestWalk; ++steps) {
        stop = &(*stop)->next(0);
    }
    const bool arrived = *stop == tail || (*stop)->getEnd() > end;
    // A range of negative length ends before it starts, and its end lies behind the walk.
    if (!arrived || end < offset) stop = &firstEndingAfter(end);
    if (*stop != tail && (*stop)->getOffset() < end) stop = &(*stop)->next(0);
    first = begin;
    last = *stop;
}

void SkipList::findAll(std::shared_ptr<Node>& first, std::shared_ptr<Node>& last) const {
    first = head->next(0);
    last = tail;
}

void SkipList::findRange(long long offset, int len, Node::Arr& predecessors, Node::Arr& successors,
                         Node::List& overlapped) const {
    const long long end = Index::endOf(offset, len);
    // Throws here rather than in the middle if an array is short.
    std::shared_ptr<Node>* const before = &Node::at(*predecessors, maxLevel) - maxLevel;
    std::shared_ptr<Node>* const after = &Node::at(*successors, maxLevel) - maxLevel;
    const std::shared_ptr<Node>* node =
        &descend(offset, [&](int level, const auto& previous, const auto& next) {
            assignIfOther(before[level], previous);
            assignIfOther(after[level], next);
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
    if (newData->isEmpty() && oldData->isEmpty()) {
        return isEmptyDataConnected(newIndex, newData, oldIndex, oldData);
    }
    if (newData->isEmpty() || oldData->isEmpty()) return false;
    // A buffer holds the bytes of its own range only.
    if (newData->isMemoryType() || oldData->isMemoryType()) return false;
    return isDataConnected(newIndex, newData, oldIndex, oldData);
}

bool SkipList::isEmptyDataConnected(const std::unique_ptr<Index>& newIndex,
                                    const std::unique_ptr<Data>& /*newData*/,
                                    const std::unique_ptr<Index>& oldIndex,
                                    const std::unique_ptr<Data>& /*oldData*/) const {
    const long long newOffset = newIndex->getOffset();
    const long long oldOffset = oldIndex->getOffset();
    if (newOffset < oldOffset && newIndex->getEnd() < oldOffset) return false;
    return !(oldOffset < newOffset && oldIndex->getEnd() < newOffset);
}

bool SkipList::isDataConnected(const std::unique_ptr<Index>& newIndex,
                               const std::unique_ptr<Data>& newData,
                               const std::unique_ptr<Index>& oldIndex,
                               const std::unique_ptr<Data>& oldData) const {
    if (newData->getMajorVer() != oldData->getMajorVer()) return false;
    if (newData->getMinorVer() != oldData->getMinorVer()) return false;
    if (newData->getNumber() != oldData->getNumber()) return false;
    const long long distance = wrapping::subtract(newIndex->getOffset(), oldIndex->getOffset());
    if (distance < 0 && newIndex->getEnd() < oldIndex->getOffset()) return false;
    if (distance > 0 && oldIndex->getEnd() < newIndex->getOffset()) return false;
    return Data::fileDistance(distance, sectorSize) ==
           wrapping::subtract(newData->getOffset(), oldData->getOffset());
}

// --- Insert --------------------------------------------------------------------------------------

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number) {
    auto index = Index::create(offset, len);
    auto data = Data::create(0, fileOffset, majorVer, minorVer, number);
    insert(index, data);
}

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number, std::unique_ptr<Buff>&& buff) {
    auto index = Index::create(offset, len);
    auto data = Data::create(1, fileOffset, majorVer, minorVer, number, std::move(buff));
    insert(index, data);
}

void SkipList::insert(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    const int len = index->getLen();
    if (!insertInPlace(index, data)) insertByReplacing(index, data);
    rawCount = wrapping::add(rawCount, 1);
    rawLen = wrapping::add(rawLen, len);
}

// Which of its two neighbours a range continues, and the range that they are together. A length
// that 32 bits do not hold is not made: the left neighbour is tried first, then the right one
// added.
SkipList::Fusion SkipList::fuse(const std::unique_ptr<Index>& index,
                                const std::unique_ptr<Data>& data, const Node& left,
                                const Node& right) const {
    Fusion fusion{false, false, index->getOffset(), index->getLen()};
    if (&left != head.get() && isConnected(index, data, left.index, left.data) &&
        isLength(fusion.len + left.getLen())) {
        fusion.left = true;
        fusion.offset = left.getOffset();
        fusion.len += left.getLen();
    }
    if (&right != tail.get() && isConnected(index, data, right.index, right.data) &&
        isLength(fusion.len + right.getLen())) {
        fusion.right = true;
        fusion.len += right.getLen();
    }
    return fusion;
}

// The general way: every node that the range overlaps or continues is replaced by new ones.
void SkipList::insertByReplacing(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    auto overlapped = Node::createList();
    findRange(index->getOffset(), index->getLen(), prevArr, nextArr, overlapped);
    // Plain pointers: a reference held here would outlive the list of replaced nodes, and the
    // whole chain of them would hang on it.
    Node* const left = Node::at(*prevArr, 0).get();
    const Node* const right = Node::at(*nextArr, 0).get();
    const Fusion fusion = fuse(index, data, *left, *right);
    if (!fusion.left && !fusion.right) {
        insertNewNodes(index, data, prevArr, nextArr, overlapped);
        return;
    }
    auto fusedIndex = Index::create(fusion.offset, static_cast<int>(fusion.len));
    overlapped->clear();
    findRange(fusion.offset, fusedIndex->getLen(), prevArr, nextArr, overlapped);
    // The fused range begins where the left neighbour's bytes do and so takes its location, unless
    // that neighbour covers no byte: then it is not replaced and keeps its own.
    const bool leftLeaves =
        fusion.left && !overlapped->empty() && overlapped->front().get() == left;
    insertNewNodes(fusedIndex, leftLeaves ? left->data : data, prevArr, nextArr, overlapped);
}

// The frequent ways, in which no stored node is replaced: a range that stands alone, one that
// continues one neighbour, and one that overlaps a single stored range and continues none. False,
// and nothing done, for any other.
bool SkipList::insertInPlace(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    const std::shared_ptr<Node>& first =
        descend(index->getOffset(), [this](int level, const auto& previous, const auto&) {
            path[static_cast<std::size_t>(level)] = previous.get();
        });
    const bool overlapsNone = !startsBefore(first, index->getEnd());
    const std::shared_ptr<Node>& next = overlapsNone ? first : first->linked(0);
    if (!overlapsNone && startsBefore(next, index->getEnd())) return false;

    Node& left = *path.front();
    const Fusion fusion = fuse(index, data, left, *next);
    if (overlapsNone && fusion.left != fusion.right) {
        return grow(fusion.left ? left : *next, fusion, data);
    }
    if (fusion.left || fusion.right) return false;
    if (overlapsNone) return insertAlone(index, data);
    // A reference of its own: `first` is a link that is about to change.
    const std::shared_ptr<Node> stored = first;
    if (isConnected(index, data, stored->index, stored->data)) return false;
    replaceOne(index, data, stored);
    return true;
}

bool SkipList::insertAlone(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    const int len = index->getLen();
    const auto added = Node::create(std::move(index), nullptr, randLevel());
    added->data = std::move(data);
    linkBehindPath(added);
    ++size;
    validLen = wrapping::add(validLen, len);
    return true;
}

// Links a node behind the last one before it at each of its levels.
void SkipList::linkBehindPath(const std::shared_ptr<Node>& node) const {
    for (int i = 0; i <= node->getLevel(); ++i) {
        std::shared_ptr<Node>& link = path[static_cast<std::size_t>(i)]->linked(i);
        node->linked(i) = std::move(link);
        link = node;
    }
}

// Sequential writes: a neighbour takes the new range in. One that covers no byte does not.
bool SkipList::grow(Node& neighbour, const Fusion& fusion, std::unique_ptr<Data>& data) {
    if (neighbour.getLen() <= 0) return false;
    const long long gained = fusion.len - neighbour.getLen();
    neighbour.index = Index::create(fusion.offset, static_cast<int>(fusion.len));
    if (fusion.right) neighbour.data = std::move(data);
    validLen = wrapping::add(validLen, gained);
    return true;
}

// A range over one stored range that lies elsewhere: most overwrites. The stored node stays, as the
// part of its range that is left or, if none is, as the new range.
//
//   stored   [---------)         [---------)         [---------)        [------)
//   new           [---------)  [-----)                  [---)         [----------)
//   becomes  [stay)[--------)  [-----)[stay)         [st)[--)[--)     [---stay---)
void SkipList::replaceOne(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                          const std::shared_ptr<Node>& stored) {
    const long long newOff = index->getOffset();
    const long long newEnd = index->getEnd();
    const long long storedOff = stored->getOffset();
    const long long storedEnd = stored->getEnd();
    const bool outLeft = storedOff < newOff;
    const bool outRight = storedEnd > newEnd;
    if (!outLeft && !outRight) {
        validLen =
            wrapping::add(validLen, static_cast<long long>(index->getLen()) - stored->getLen());
        stored->index = std::move(index);
        stored->data = std::move(data);
        return;
    }

    const auto added = Node::create(std::move(index), nullptr, randLevel());
    const auto rest = outLeft && outRight ? cut(*stored, newEnd, storedEnd) : nullptr;
    const long long stayOff = outLeft ? storedOff : newEnd;
    auto stayIndex = Index::create(stayOff, lengthOf(stayOff, outLeft ? newOff : storedEnd));
    // The start of a range keeps its location, though not the whole of its buffer.
    std::unique_ptr<Data> stayData;
    if (!outLeft || stored->data->hasBuff()) {
        stayData = Data::sliceData(stored->data, lengthOf(storedOff, stayOff), stayIndex->getLen(),
                                   sectorSize);
    }

    // Nothing can fail any more.
    added->data = std::move(data);
    stored->index = std::move(stayIndex);
    if (stayData) stored->data = std::move(stayData);
    // What sticks out on the left comes before the new nodes at each of its levels.
    if (outLeft) std::fill_n(path.begin(), stored->getLevel() + 1, stored.get());
    if (rest) linkBehindPath(rest);
    linkBehindPath(added);
    size += rest ? 2 : 1;
    if (!outRight) validLen = wrapping::add(validLen, wrapping::subtract(newEnd, storedEnd));
    if (!outLeft) validLen = wrapping::add(validLen, wrapping::subtract(storedOff, newOff));
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
    Node& whole = append(newNodes, Node::create(std::move(index), nullptr, randLevel()));
    whole.data = std::move(data);
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
    Node& left = append(newNodes, Node::create(std::move(index), nullptr, randLevel()));
    if (!fuses) append(newNodes, cut(last, newEnd, lastEnd));
    left.data = std::move(data);
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
    Node& right = append(newNodes, Node::create(std::move(index), nullptr, randLevel()));
    right.data = std::move(fuses ? first.data : data);
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
    Node& middle = append(newNodes, Node::create(std::move(index), nullptr, level));
    if (fusedEnd == newEnd) append(newNodes, cut(last, newEnd, lastEnd));
    middle.data = std::move(fusesLeft ? first.data : data);
    countReplaced(
        overlapped, newNodes,
        wrapping::subtract(wrapping::subtract(lastEnd, firstOff), summedLength(overlapped)));
}

// A new node for the part [start, end) of a stored range.
std::shared_ptr<Node> SkipList::cut(const Node& source, long long start, long long end) {
    const int len = lengthOf(start, end);
    const int skip = lengthOf(source.getOffset(), start);
    auto index = Index::create(start, len);
    auto data = Data::sliceData(source.data, skip, len, sectorSize);
    return Node::create(std::move(index), std::move(data), randLevel());
}

// Appends a node and links those before it to it.
Node& SkipList::append(Node::List& newNodes, std::shared_ptr<Node> node) const {
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
    return level;
}

void SkipList::link(std::shared_ptr<Node>& from, std::shared_ptr<Node>& to) const {
    const int top = std::min(from->getLevel(), to->getLevel());
    for (int i = 0; i <= top; ++i) {
        if (from->next(i) == nullptr) from->next(i) = to;
    }
}

void SkipList::link(Node::Arr& predecessors, Node::Arr& successors, Node::List& newNodes) const {
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
    // All pieces are found before the first insert changes what is there. They are records of
    // their own: references to the nodes would keep whole chains of replaced ones alive.
    auto pieces = Index::createList();
    forEachOverlapped(*index, [&](Node& node) {
        if (!isConnected(node.index, node.data, index, expected)) return;
        const long long start = std::max(node.getOffset(), index->getOffset());
        const long long end = std::min(node.getEnd(), index->getEnd());
        pieces->push_back(Index::create(start, lengthOf(start, end)));
    });
    for (auto& piece : *pieces) {
        const int skip = lengthOf(index->getOffset(), piece->getOffset());
        auto location = Data::sliceData(newData, skip, piece->getLen(), sectorSize);
        insert(piece, location);
    }
    return !pieces->empty();
}

bool SkipList::compareAndSet(long long offset, int len, int expFileOffset, int expMajorVer,
                             int expMinorVer, unsigned char expNumber, int newFileOffset,
                             int newMajorVer, int newMinorVer, unsigned char newNumber) {
    auto index = Index::create(offset, len);
    auto expected = Data::create(0, expFileOffset, expMajorVer, expMinorVer, expNumber);
    auto newData = Data::create(0, newFileOffset, newMajorVer, newMinorVer, newNumber);
    return compareAndSet(index, expected, newData);
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
    // A reference of its own, in case a map is copied into itself and so replaces this very node.
    for (std::shared_ptr<Node> node = head->nextNode(); node != tail; node = node->nextNode()) {
        auto index = Index::create(node->getOffset(), node->getLen());
        auto data = Data::create(*node->data);
        // From here on the buffer is the destination's, and given back through its environment.
        if (data->hasBuff()) data->buff->env = destination->env;
        destination->insert(index, data);
    }
}
