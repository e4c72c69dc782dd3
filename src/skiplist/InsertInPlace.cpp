#include "skiplist/InsertInPlace.h"

#include <utility>

#include "memory/Memorystatistics.h"
#include "records/Wrapping.h"

namespace {

// Ends the nodes of a chain one by one, each without successors by then.
void drop(std::shared_ptr<Node> chain) {
    if (chain == nullptr) return;
    const ChargeBatch batch;
    while (chain) chain = std::move(chain->linked(0));
}

}  // namespace

bool InsertInPlace::tryTo(SkipList& map, const ByteRange& range, FileLocation& location) {
    InsertInPlace insert(map, range, location);
    map.leadPathTo(range.getOffset());
    insert.overlap = insert.findOverlap();
    insert.fusion = map.fuse(range, location, map.path.last(), *insert.overlap.next);
    if (!insert.isUsual()) return false;
    insert.plan = insert.makePlan();
    Parts parts = insert.makeParts();
    // Nothing can fail any more.
    insert.apply(parts);
    return true;
}

// --- What there is -------------------------------------------------------------------------------

InsertInPlace::Overlap InsertInPlace::findOverlap() const {
    const std::shared_ptr<Node>* next = &map.path.next();
    Overlap found{};
    found.first = next->get();
    for (; map.startsBefore(*next, range.getEnd()); next = &(*next)->linked(0)) {
        found.last = next->get();
        found.bytes += found.last->getLen();
        ++found.count;
    }
    found.next = next->get();
    if (found.count > 0) {
        found.outLeft = found.first->getOffset() < range.getOffset();
        found.outRight = found.last->getEnd() > range.getEnd();
    }
    return found;
}

bool InsertInPlace::isUsual() {
    if (fusion.right && (fusion.left || overlap.count > 0)) return false;
    if (fusion.left && overlap.outLeft) return false;
    if (fusion.left) neighbour = &map.path.last();
    if (fusion.right) neighbour = overlap.next;
    if (neighbour != nullptr && neighbour->getLen() <= 0) return false;
    return !continuesOverlapped();
}

// Whether the range, together with the left neighbour that it continues, also continues a range
// that sticks out.
bool InsertInPlace::continuesOverlapped() const {
    if (fusion.left) {
        if (!overlap.outRight) return false;
        const ByteRange fused{fusion.offset, static_cast<int>(fusion.len)};
        return map.continues(fused, neighbour->location(), overlap.last->range(),
                             overlap.last->location());
    }
    const auto continued = [&](const Node& stored) {
        return map.continues(range, location, stored.range(), stored.location());
    };
    return (overlap.outLeft && continued(*overlap.first)) ||
           (overlap.outRight && continued(*overlap.last));
}

// What the insert adds to `validLen`. If the new range ends inside a stored one on one side only,
// gaps between those that it overlaps do not count.
long long InsertInPlace::bytesGained() const {
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

// --- What is needed ------------------------------------------------------------------------------

InsertInPlace::Plan InsertInPlace::makePlan() const {
    Plan made{};
    made.splits = overlap.outLeft && overlap.outRight && overlap.first == overlap.last;
    made.keepsLast = overlap.outRight && !made.splits;
    made.behind = made.keepsLast ? overlap.last : overlap.next;
    Node* const covered = overlap.outLeft ? overlap.first->linked(0).get() : overlap.first;
    made.kept = neighbour == nullptr && covered != made.behind ? covered : neighbour;
    return made;
}

// Makes what the plan needs and does not have, with Java's help where buffers are cut.
InsertInPlace::Parts InsertInPlace::makeParts() const {
    const long long start = range.getOffset();
    const long long end = range.getEnd();
    const Node& first = *overlap.first;
    Parts parts;
    if (overlap.outLeft) partOfBuffer(parts.left, first, first.getOffset(), start);
    if (plan.kept == nullptr) parts.added = Node::create(range, map.randLevel(), &map.pool);
    if (plan.splits) parts.rest = map.cut(first, end, first.getEnd());
    if (plan.keepsLast) partOfBuffer(parts.right, *overlap.last, end, overlap.last->getEnd());
    return parts;
}

// The location of the part [start, end) of a stored range, if it holds a buffer.
void InsertInPlace::partOfBuffer(std::optional<FileLocation>& part, const Node& node,
                                 long long start, long long end) const {
    if (!node.location().hasBuff()) return;
    MemoryStat::checkMem(Data::charge);
    part.emplace(node.location(), ByteRange::lengthOf(node.getOffset(), start),
                 ByteRange::lengthOf(start, end), map.sectorSize);
}

// --- What is changed -----------------------------------------------------------------------------

// Until the map is whole again, exchanged locations and removed nodes hold the buffers of what is
// replaced.
void InsertInPlace::apply(Parts& parts) {
    std::shared_ptr<Node> removed;
    const long long gained = bytesGained();
    if (plan.keepsLast) {
        shorten(*overlap.last, range.getEnd(), overlap.last->getEnd(), parts.right);
    }
    if (overlap.outLeft) {
        shorten(*overlap.first, overlap.first->getOffset(), range.getOffset(), parts.left);
        map.path.passOver(*overlap.first);
    }
    if (plan.kept == nullptr) {
        addNew(parts);
    } else {
        changeKept();
        removed = unlinkCovered();
    }
    map.validLen = wrapping::add(map.validLen, gained);
    drop(std::move(removed));
}

// Leaves a stored node the part [start, end) of its range, at the given location if there is one.
void InsertInPlace::shorten(Node& node, long long start, long long end,
                            std::optional<FileLocation>& part) const {
    if (part) {
        node.location().swap(*part);
    } else {
        node.location().skip(ByteRange::lengthOf(node.getOffset(), start), map.sectorSize);
    }
    setRange(node, start, ByteRange::lengthOf(start, end));
}

// Between the same neighbours as before.
void InsertInPlace::setRange(Node& node, long long start, int len) const {
    const long long formerStart = node.getOffset();
    node.range().set(start, len);
    map.signposts.moved(node, formerStart);
}

void InsertInPlace::addNew(Parts& parts) {
    parts.added->location().swap(location);
    map.size += plan.splits ? 2 : 1;
    if (plan.splits) link(std::move(parts.rest));
    link(std::move(parts.added));
}

void InsertInPlace::link(std::shared_ptr<Node> node) const {
    map.signposts.add(*node, map.path.walk());
    map.path.link(std::move(node));
}

void InsertInPlace::changeKept() {
    setRange(*plan.kept, fusion.offset, static_cast<int>(fusion.len));
    // A range that grows to the right keeps its location, for its start stays where it is.
    if (!fusion.left) plan.kept->location().swap(location);
    if (neighbour == nullptr) map.path.passOver(*plan.kept);
}

// Takes out the covered nodes that are left, as a chain.
std::shared_ptr<Node> InsertInPlace::unlinkCovered() {
    std::shared_ptr<Node> removed;
    while (map.path.next().get() != plan.behind) {
        map.signposts.drop(*map.path.next());
        std::shared_ptr<Node> node = map.path.unlink();
        node->linked(0) = std::move(removed);
        removed = std::move(node);
        --map.size;
    }
    return removed;
}
