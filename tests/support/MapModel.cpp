#include "support/MapModel.h"

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "records/Wrapping.h"

namespace {

constexpr long long longest = std::numeric_limits<int>::max();

Stored storedOf(const Node& node) {
    Stored range{node.getOffset(),      node.getLen(),        node.getFileType(),
                 node.getFileNumber(),  node.getFileOffset(), node.getFileMajorVer(),
                 node.getFileMinorVer()};
    const Buff* const buff = node.getFileBuff();
    range.hasBuff = buff != nullptr;
    if (buff != nullptr && buff->getBuff() != nullptr) {
        const FakeJava::ByteBuf& buffer = FakeJava::bufferOf(buff->getBuff());
        range.memory = buffer.memory;
        range.bufferStart = buffer.start;
        range.bufferLength = buffer.length;
    }
    return range;
}

// Each level must be a subsequence of level 0, and hold exactly the nodes that reach it.
void checkLevel(const SkipList& map, int level) {
    const Node* upper = map.head->next(level).get();
    for (const Node* node = map.head->next(0).get(); node != map.tail.get();
         node = node->next(0).get()) {
        if (node->getLevel() < level) continue;
        require(upper == node, "a level misses a node, or has one too many");
        upper = upper->next(level).get();
    }
    require(upper == map.tail.get(), "a level does not end at the tail");
}

// A node in there would outlive its removal from the map, with the buffer that it holds.
void checkScratch(const Node::Arr& scratch) {
    for (const auto& entry : *scratch) require(entry == nullptr, "a scratch array holds a node");
}

}  // namespace

void require(bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
}

std::ostream& operator<<(std::ostream& out, const Stored& range) {
    return out << "[" << range.offset << ", " << range.end() << ") type " << range.type << " file "
               << range.number << " at " << range.fileOffset << " (" << range.majorVer << ", "
               << range.minorVer << ") buffer " << range.hasBuff << " " << range.memory << " ["
               << range.bufferStart << ", +" << range.bufferLength << ")";
}

std::string textOf(const Snapshot& snapshot) {
    std::ostringstream out;
    out << "validLen " << snapshot.validLen << " size " << snapshot.size << " rawLen "
        << snapshot.rawLen << " rawCount " << snapshot.rawCount;
    for (const Stored& range : snapshot.ranges) out << "\n  " << range;
    return out.str();
}

Snapshot snapshotOf(const SkipList& map) {
    Snapshot snapshot{{}, map.validLen, map.size, map.rawLen, map.rawCount};
    for (const Node* node = map.head->next(0).get(); node != map.tail.get();
         node = node->next(0).get()) {
        require(static_cast<int>(node->forward->size()) == node->getLevel() + 1, "links");
        snapshot.ranges.push_back(storedOf(*node));
    }
    require(map.size == static_cast<int>(snapshot.ranges.size()), "size is not the count");
    for (int level = 0; level <= map.maxLevel; ++level) checkLevel(map, level);
    require(map.signpostsAgree(), "the signposts differ from the links");
    checkScratch(map.prevArr);
    checkScratch(map.nextArr);
    return snapshot;
}

void MapModel::insert(const Stored& range) {
    ++state.rawCount;
    state.rawLen += range.len;
    const auto [first, behind] = overlapped(range);
    Stored fused = range;
    const auto fits = [&](const Stored& next) {
        return connected(range, next) && static_cast<long long>(fused.len) + next.len <= longest;
    };
    if (first > 0 && fits(state.ranges[first - 1])) {
        const Stored& left = state.ranges[first - 1];
        if (left.len > 0) fused = left;
        fused.len = left.len + range.len;
    }
    if (behind < state.ranges.size() && fits(state.ranges[behind])) {
        fused.len += state.ranges[behind].len;
    }
    place(fused);
}

// Puts a range in place of what it overlaps, fused with an outer overlapped one where connected.
void MapModel::place(const Stored& range) {
    const auto [first, behind] = overlapped(range);
    Ranges pieces{range};
    long long gained = range.len;
    for (std::size_t i = first; i < behind; ++i) gained -= state.ranges[i].len;
    if (first < behind) {
        const Stored& front = state.ranges[first];
        const Stored& back = state.ranges[behind - 1];
        const bool outLeft = front.offset < range.offset;
        const bool outRight = back.end() > range.end();
        // A join that is as long as can be, or longer, is refused on some sides only.
        const bool fusesLeft = outLeft && connected(range, front) &&
                               (!outRight || range.end() - front.offset <= longest);
        const long long start = fusesLeft ? front.offset : range.offset;
        const bool fusesRight =
            outRight && connected(range, back) &&
            (outLeft ? back.end() - start <= longest : back.end() - start != longest);
        if (fusesLeft) pieces[0] = front;
        pieces[0].len = static_cast<int>((fusesRight ? back.end() : range.end()) - start);
        if (outRight && !fusesRight) pieces.push_back(part(back, range.end(), back.end()));
        if (outLeft && !fusesLeft) {
            pieces.insert(pieces.begin(), part(front, front.offset, range.offset));
        }
        // The gaps in between count if both ends are covered, or none is.
        if (outLeft && outRight) gained += back.end() - front.offset - range.len;
        if (outLeft && !outRight) gained = range.end() - back.end();
        if (!outLeft && outRight) gained = front.offset - range.offset;
    }
    const auto at = [&](std::size_t i) { return state.ranges.begin() + static_cast<long>(i); };
    state.ranges.erase(at(first), at(behind));
    state.ranges.insert(at(first), pieces.begin(), pieces.end());
    state.size = static_cast<int>(state.ranges.size());
    state.validLen += gained;
}

bool MapModel::compareAndSet(const Stored& request, const Stored& target, std::size_t limit) {
    Ranges pieces;
    const auto [first, behind] = overlapped(request);
    for (std::size_t i = first; i < behind; ++i) {
        const Stored& each = state.ranges[i];
        if (!connected(each, request)) continue;
        const long long start = std::max(each.offset, request.offset);
        pieces.push_back(part(target, start, std::min(each.end(), request.end())));
    }
    const bool matched = !pieces.empty();
    pieces.resize(std::min(pieces.size(), limit));
    for (const Stored& piece : pieces) insert(piece);
    return matched;
}

long long MapModel::compareAndRelease(const Stored& request) {
    long long released = 0;
    const auto [first, behind] = overlapped(request);
    for (std::size_t i = first; i < behind; ++i) {
        Stored& each = state.ranges[i];
        const bool inside = each.offset >= request.offset && each.end() <= request.end();
        if (inside && sameFile(each, request)) released += giveBack(each);
    }
    return released;
}

long long MapModel::release() {
    long long released = 0;
    for (Stored& each : state.ranges) released += giveBack(each);
    return released;
}

long long MapModel::giveBack(Stored& range) {
    const long long released = range.hasBuff ? range.len : 0;
    range.hasBuff = false;
    range.memory = nullptr;
    range.bufferStart = range.bufferLength = 0;
    return released;
}

void MapModel::copyTo(MapModel& destination, std::size_t limit) const {
    for (std::size_t i = 0; i < state.ranges.size() && limit > 0; --limit) {
        const Stored copied = state.ranges[i];
        destination.insert(copied);
        // A map that is copied into itself may have fused the range that is being copied.
        i = &destination == this ? firstEndingAfter(copied.end()) : i + 1;
    }
}

Ranges MapModel::run(long long offset, int len) const {
    const std::size_t first = firstEndingAfter(offset);
    std::size_t behind = firstEndingAfter(offset + len);
    if (behind < state.ranges.size() && state.ranges[behind].offset < offset + len) ++behind;
    const auto begin = state.ranges.begin();
    return {begin + static_cast<long>(first), begin + static_cast<long>(behind)};
}

std::size_t MapModel::firstEndingAfter(long long key) const {
    const auto endsAfter = [&](const Stored& each) { return each.end() > key; };
    const auto found = std::find_if(state.ranges.begin(), state.ranges.end(), endsAfter);
    return static_cast<std::size_t>(found - state.ranges.begin());
}

// The positions of the first range that shares a byte with the given one, and behind the last.
std::pair<std::size_t, std::size_t> MapModel::overlapped(const Stored& range) const {
    const std::size_t first = firstEndingAfter(range.offset);
    std::size_t behind = first;
    while (behind < state.ranges.size() && state.ranges[behind].offset < range.end()) ++behind;
    return {first, behind};
}

bool MapModel::connected(const Stored& a, const Stored& b) const {
    if (a.end() < b.offset || b.end() < a.offset) return false;
    if (a.isEmpty() || b.isEmpty()) return a.isEmpty() && b.isEmpty();
    return !a.type && !b.type && sameFile(a, b);
}

bool MapModel::sameFile(const Stored& a, const Stored& b) const {
    const long long apart = a.offset - b.offset;
    return a.majorVer == b.majorVer && a.minorVer == b.minorVer && a.number == b.number &&
           apart + apart / sectorSize * 8 == wrapping::subtract(a.fileOffset, b.fileOffset);
}

Stored MapModel::part(const Stored& source, long long start, long long end) const {
    const int skip = static_cast<int>(start - source.offset);
    Stored piece = source;
    piece.offset = start;
    piece.len = static_cast<int>(end - start);
    piece.fileOffset = static_cast<int>(piece.fileOffset + 1LL * skip + skip / sectorSize * 8LL);
    if (piece.memory != nullptr) {
        piece.bufferStart += skip;
        piece.bufferLength = piece.len;
    }
    return piece;
}
