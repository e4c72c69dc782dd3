#include "skiplist/SkipList.h"

#include <algorithm>
#include <ctime>
#include <limits>
#include <utility>

#include "memory/Memorystatistics.h"
#include "records/Wrapping.h"
#include "skiplist/Descent.h"
#include "skiplist/InsertInPlace.h"

namespace {

constexpr long long firstPosition = std::numeric_limits<long long>::min();
constexpr long long lastPosition = std::numeric_limits<long long>::max();
constexpr long long longestRange = std::numeric_limits<int>::max();

constexpr double promotionProbability = 0.25;

// Above this many ranges a second descent finds the end of a run sooner than walking there.
constexpr int longestWalk = 16;

std::shared_ptr<Node> createSentinel(long long position, int level) {
    return Node::create(ByteRange{position, 0}, level);
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

bool isLength(long long length) {
    return length == static_cast<int>(length);
}

// Whether two ranges touch or overlap.
bool touch(const ByteRange& a, const ByteRange& b) {
    return a.getOffset() < b.getOffset()
               ? a.getEnd() >= b.getOffset()
               : a.getOffset() == b.getOffset() || b.getEnd() >= a.getOffset();
}

// Refuses where a key and a location of the map's would be refused: plain values stand for both.
void askForRecords() {
    MemoryStat::checkEach(Index::charge, Data::charge);
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
      path(head, tail, height) {
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

Node* SkipList::firstEndingAfter(long long key) const {
    if (!signposts.isOn()) return linkToFirstEndingAfter(key).get();
    Node* node = signposts.lastStartingBy(key);
    if (node == nullptr) node = head->linked(0).get();
    while (node->getEnd() <= key && node != tail.get()) node = node->linked(0).get();
    return node;
}

// For who needs a reference, which only a link can give.
const std::shared_ptr<Node>& SkipList::linkToFirstEndingAfter(long long key) const {
    if (!signposts.isOn()) return descend(head, *tail, key, topLevel, [](int, const auto&) {});
    const Node* guide = signposts.lastEndingBy(key);
    const std::shared_ptr<Node>* link = &(guide != nullptr ? guide : head.get())->linked(0);
    while ((*link)->getEnd() <= key && *link != tail) link = &(*link)->linked(0);
    return *link;
}

std::shared_ptr<Node> SkipList::findEqualGreater(long long key) const {
    return linkToFirstEndingAfter(key);
}

void SkipList::find(long long offset, int len, std::shared_ptr<Node>& first,
                    std::shared_ptr<Node>& last) const {
    const long long end = Index::endOf(offset, len);
    first = linkToFirstEndingAfter(offset);
    last = linkToFirstEndingAfter(end);
    if (startsBefore(last, end)) last = last->nextNode();
}

SkipList::Run SkipList::runOver(long long offset, int len) const {
    const long long end = Index::endOf(offset, len);
    Node* const begin = firstEndingAfter(offset);
    begin->prefetchLocation();
    Node* stop = begin;
    // The first node that ends after `end` is a few steps on, or else worth a search.
    for (int steps = 0; stop != tail.get() && stop->getEnd() <= end && steps < longestWalk;
         ++steps) {
        stop = stop->linked(0).get();
        stop->prefetchLocation();
    }
    const bool arrived = stop == tail.get() || stop->getEnd() > end;
    // A range of negative length ends before it starts, and its end lies behind the walk.
    if (!arrived || end < offset) stop = firstEndingAfter(end);
    if (stop != tail.get() && stop->getOffset() < end) stop = stop->linked(0).get();
    return {begin, stop};
}

void SkipList::findAll(std::shared_ptr<Node>& first, std::shared_ptr<Node>& last) const {
    first = head->nextNode();
    last = tail;
}

SkipList::Run SkipList::runOverAll() const {
    return {head->linked(0).get(), tail.get()};
}

void SkipList::findRange(long long offset, int len, Node::Arr& predecessors, Node::Arr& successors,
                         Node::List& overlapped) const {
    const long long end = Index::endOf(offset, len);
    // Throws here rather than in the middle if an array is short.
    std::shared_ptr<Node>* const before = &Node::at(*predecessors, maxLevel) - maxLevel;
    std::shared_ptr<Node>* const after = &Node::at(*successors, maxLevel) - maxLevel;
    const std::shared_ptr<Node>* node =
        &descend(head, *tail, offset, maxLevel, [&](int level, const auto& previous) {
            before[level] = previous;
            after[level] = previous->linked(level);
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
void SkipList::forEachOverlapped(const ByteRange& range, Visit visit) const {
    Node* node = firstEndingAfter(range.getOffset());
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
bool SkipList::continues(const ByteRange& newRange, const FileLocation& newLocation,
                         const ByteRange& oldRange, const FileLocation& oldLocation) const {
    if (!touch(newRange, oldRange)) return false;
    if (newLocation.isEmpty() || oldLocation.isEmpty())
        return newLocation.isEmpty() && oldLocation.isEmpty();
    // A buffer holds the bytes of its own range only.
    if (newLocation.isMemoryType() || oldLocation.isMemoryType()) return false;
    return runsOn(newRange, newLocation, oldRange, oldLocation);
}

// Whether one file holds both ranges exactly as far apart as the device does.
bool SkipList::runsOn(const ByteRange& newRange, const FileLocation& newLocation,
                      const ByteRange& oldRange, const FileLocation& oldLocation) const {
    if (newLocation.getMajorVer() != oldLocation.getMajorVer()) return false;
    if (newLocation.getMinorVer() != oldLocation.getMinorVer()) return false;
    if (newLocation.getNumber() != oldLocation.getNumber()) return false;
    const long long distance = wrapping::subtract(newRange.getOffset(), oldRange.getOffset());
    return FileLocation::fileDistance(distance, sectorSize) ==
           wrapping::subtract(newLocation.getOffset(), oldLocation.getOffset());
}

// --- Insert --------------------------------------------------------------------------------------

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number) {
    askForRecords();
    FileLocation location(0, fileOffset, majorVer, minorVer, number);
    insert(ByteRange{offset, len}, location);
}

void SkipList::insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                      unsigned char number, std::unique_ptr<Buff>&& buff) {
    askForRecords();
    FileLocation location(1, fileOffset, majorVer, minorVer, number, std::move(buff));
    insert(ByteRange{offset, len}, location);
}

void SkipList::insert(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data) {
    insert(*index, *data);
}

void SkipList::insert(const ByteRange& range, FileLocation& location) {
    // Whether the limit refuses an insert does not depend on whether it comes to need a node.
    MemoryStat::checkMem(Node::charge);
    noteOrder(range);
    if (!InsertInPlace::tryTo(*this, range, location)) insertByReplacing(range, location);
    rawCount = wrapping::add(rawCount, 1);
    rawLen = wrapping::add(rawLen, range.getLen());
    const int limit = Signposts::fewestRanges;
    if (signposts.isOn() ? size < limit / 2 : size >= limit) switchSignposts();
}

// Which of its two neighbours a range continues, and the range that they are together. A length
// that 32 bits do not hold is not made: the left neighbour is tried first, then the right one
// added.
SkipList::Fusion SkipList::fuse(const ByteRange& range, const FileLocation& location,
                                const Node& left, const Node& right) const {
    Fusion fusion{false, false, range.getOffset(), range.getLen()};
    if (&left != head.get() && continues(range, location, left.range(), left.location()) &&
        isLength(fusion.len + left.getLen())) {
        fusion.left = true;
        fusion.offset = left.getOffset();
        fusion.len += left.getLen();
    }
    if (&right != tail.get() && continues(range, location, right.range(), right.location()) &&
        isLength(fusion.len + right.getLen())) {
        fusion.right = true;
        fusion.len += right.getLen();
    }
    return fusion;
}

// The general way: every node that the range overlaps or continues is replaced by new ones.
void SkipList::insertByReplacing(const ByteRange& range, FileLocation& location) {
    const ChargeBatch batch;
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

void SkipList::noteOrder(const ByteRange& range) {
    // A negative length may end behind the start, too: it wraps where the device begins.
    if (range.getLen() > 0 && range.getEnd() > range.getOffset()) return;
    isOrdered = false;
    signposts.clear();
}

void SkipList::leadPathTo(long long key) {
    path.leadTo(key, signposts, topLevel, isOrdered);
}

// Where they find no memory, they are tried again after as many inserts as the map has ranges.
void SkipList::switchSignposts() {
    if (signposts.isOn()) {
        signposts.clear();
    } else if (isOrdered && maxLevel > 0 && --insertsUntilSignposts < 0) {
        signposts.build(*head, *tail);
        insertsUntilSignposts = signposts.isOn() ? 0 : size;
    }
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
                       ByteRange::lengthOf(newOff, lastEnd) != longestRange;
    if (fuses) index = Index::create(newOff, ByteRange::lengthOf(newOff, lastEnd));
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
        index = Index::create(firstOff, ByteRange::lengthOf(firstOff, newEnd));
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
    if (fusesLeft || fusesRight)
        index = Index::create(fusedOff, ByteRange::lengthOf(fusedOff, fusedEnd));
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
    askForRecords();
    const ByteRange range{start, ByteRange::lengthOf(start, end)};
    FileLocation location(*source.data, ByteRange::lengthOf(source.getOffset(), start),
                          range.getLen(), sectorSize);
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
    // The path may lead over nodes that are about to go, and signposts to them.
    path.reset();
    if (signposts.isOn()) {
        for (const Node* node = Node::at(*predecessors, 0)->next(0).get();
             node != Node::at(*successors, 0).get(); node = node->next(0).get()) {
            signposts.drop(*node);
        }
        for (const auto& node : *newNodes) signposts.add(*node, 0);
    }
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
    askForRecords();
    const FileLocation expected(0, expFileOffset, expMajorVer, expMinorVer, expNumber);
    const FileLocation newLocation(0, newFileOffset, newMajorVer, newMinorVer, newNumber);
    return compareAndSet(ByteRange{offset, len}, expected, newLocation);
}

bool SkipList::compareAndSet(const ByteRange& range, const FileLocation& expected,
                             const FileLocation& newLocation) {
    const ChargeBatch batch;
    // All pieces are found before the first insert changes what is there. They are no nodes:
    // references to these would keep whole chains of replaced ones alive.
    std::vector<ByteRange> pieces;
    forEachOverlapped(range, [&](Node& node) {
        if (!continues(node.range(), node.location(), range, expected)) return;
        const long long start = std::max(node.getOffset(), range.getOffset());
        const long long end = std::min(node.getEnd(), range.getEnd());
        pieces.push_back({start, ByteRange::lengthOf(start, end)});
    });
    for (const ByteRange& piece : pieces) {
        askForRecords();
        const int skip = ByteRange::lengthOf(range.getOffset(), piece.getOffset());
        FileLocation location(newLocation, skip, piece.getLen(), sectorSize);
        insert(piece, location);
    }
    return !pieces.empty();
}

long long SkipList::compareAndRelease(std::unique_ptr<Index>& index,
                                      std::unique_ptr<Data>& expected) {
    return compareAndRelease(*index, *expected);
}

long long SkipList::compareAndRelease(long long offset, int len, int fileOffset, int majorVer,
                                      int minorVer, unsigned char number) {
    askForRecords();
    return compareAndRelease(ByteRange{offset, len},
                             FileLocation(0, fileOffset, majorVer, minorVer, number));
}

long long SkipList::compareAndRelease(const ByteRange& range, const FileLocation& expected) {
    long long released = 0;
    forEachOverlapped(range, [&](Node& node) {
        if (node.getOffset() < range.getOffset() || node.getEnd() > range.getEnd()) return;
        if (!touch(node.range(), range) || !runsOn(node.range(), node.location(), range, expected))
            return;
        released += node.releaseFileBuff();
    });
    return released;
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
        askForRecords();
        const ByteRange range = *node->index;
        FileLocation location(*node->data);
        // From here on the buffer is the destination's, and given back through its environment.
        if (location.hasBuff()) location.buff->env = destination->env;
        destination->insert(range, location);
        // A map that is copied into itself may have lost this very node.
        node = destination == this ? findEqualGreater(end) : node->nextNode();
    }
}
