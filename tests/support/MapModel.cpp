#include "support/MapModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <ostream>

#include "records/Wrapping.h"

namespace {

constexpr long long longest = std::numeric_limits<int>::max();

Stored storedOf(const Node& node) {
    Stored range{node.getOffset(),      node.getLen(),        node.getFileType(),
                 node.getFileNumber(),  node.getFileOffset(), node.getFileMajorVer(),
                 node.getFileMinorVer()};
    const Buff* const buff = node.getFileBuff();
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
        ASSERT_EQ(upper, node) << "level " << level;
        upper = upper->next(level).get();
    }
    ASSERT_EQ(upper, map.tail.get()) << "level " << level;
}

// A node in there would outlive its removal from the map, with the buffer that it holds.
void checkScratch(const Node::Arr& scratch) {
    for (const auto& entry : *scratch) ASSERT_EQ(entry, nullptr);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Snapshot& snapshot) {
    out << "validLen " << snapshot.validLen << " size " << snapshot.size << " rawLen "
        << snapshot.rawLen << " rawCount " << snapshot.rawCount;
    for (const Stored& range : snapshot.ranges) {
        out << "\n  [" << range.offset << ", " << range.end() << ") type " << range.type << " file "
            << range.number << " at " << range.fileOffset << " (" << range.majorVer << ", "
            << range.minorVer << ") buffer " << range.memory << " [" << range.bufferStart << ", +"
            << range.bufferLength << ")";
    }
    return out;
}

Snapshot snapshotOf(const SkipList& map) {
    Snapshot snapshot{{}, map.validLen, map.size, map.rawLen, map.rawCount};
    for (const Node* node = map.head->next(0).get(); node != map.tail.get();
         node = node->next(0).get()) {
        EXPECT_NE(node->index, nullptr);
        EXPECT_NE(node->data, nullptr);
        EXPECT_EQ(static_cast<int>(node->forward->size()), node->getLevel() + 1);
        if (node->data == nullptr) break;
        snapshot.ranges.push_back(storedOf(*node));
    }
    for (int level = 0; level <= map.maxLevel; ++level) checkLevel(map, level);
    checkScratch(map.prevArr);
    checkScratch(map.nextArr);
    return snapshot;
}

void MapModel::insert(Stored range) {
    ++state.rawCount;
    state.rawLen += range.len;
    const Stored added = range;
    const auto touches = [&](const Stored& other) { return connected(added, other); };
    for (const Stored& left : state.ranges) {
        if (left.end() != added.offset || !touches(left)) continue;
        if (static_cast<long long>(left.len) + range.len > longest) continue;
        range = left;
        range.len += added.len;
    }
    for (const Stored& right : state.ranges) {
        if (right.offset != added.end() || !touches(right)) continue;
        if (static_cast<long long>(right.len) + range.len <= longest) range.len += right.len;
    }
    place(range);
}

// Puts a range in place of what it overlaps, fused with an outer overlapped one where connected.
void MapModel::place(const Stored& range) {
    const std::vector<Stored> hit = find(range.offset, range.len);
    long long hitLen = 0;
    for (const Stored& each : hit) hitLen += each.len;

    std::vector<Stored> pieces;
    Stored whole = range;
    long long covered = range.len - hitLen;
    if (!hit.empty()) {
        const Stored& first = hit.front();
        const Stored& last = hit.back();
        const bool outLeft = first.offset < range.offset;
        const bool outRight = last.end() > range.end();
        if (outLeft && outRight) covered = last.end() - first.offset - hitLen;
        if (outLeft && !outRight) covered = range.end() - last.end();
        if (!outLeft && outRight) covered = first.offset - range.offset;
        if (outLeft && connected(range, first)) {
            whole = first;
            whole.len = static_cast<int>(range.end() - first.offset);
        } else if (outLeft) {
            pieces.push_back(part(first, first.offset, range.offset));
        }
        const bool fusesRight = outRight && connected(range, last);
        if (fusesRight) whole.len = static_cast<int>(last.end() - whole.offset);
        pieces.push_back(whole);
        if (outRight && !fusesRight) pieces.push_back(part(last, range.end(), last.end()));
    } else {
        pieces.push_back(whole);
    }

    std::erase_if(state.ranges, [&](const Stored& each) {
        return std::find(hit.begin(), hit.end(), each) != hit.end();
    });
    state.ranges.insert(state.ranges.end(), pieces.begin(), pieces.end());
    std::ranges::sort(state.ranges, {}, &Stored::offset);
    state.size = static_cast<int>(state.ranges.size());
    state.validLen += covered;
}

bool MapModel::compareAndSet(const Stored& request, const Stored& target, std::size_t limit) {
    std::vector<Stored> pieces;
    for (const Stored& each : find(request.offset, request.len)) {
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
    for (Stored& each : state.ranges) {
        if (each.offset < request.offset || each.end() > request.end()) continue;
        if (!sameFile(each, request) || each.memory == nullptr) continue;
        released += each.len;
        each.memory = nullptr;
        each.bufferStart = each.bufferLength = 0;
    }
    return released;
}

long long MapModel::release() {
    long long released = 0;
    for (Stored& each : state.ranges) {
        if (each.memory != nullptr) released += each.len;
        each.memory = nullptr;
        each.bufferStart = each.bufferLength = 0;
    }
    return released;
}

void MapModel::copyTo(MapModel& destination, std::size_t limit) const {
    for (std::size_t i = 0; i < std::min(limit, state.ranges.size()); ++i)
        destination.insert(state.ranges[i]);
}

std::vector<Stored> MapModel::find(long long offset, int len) const {
    std::vector<Stored> hit;
    for (const Stored& each : state.ranges) {
        if (each.offset < offset + len && each.end() > offset) hit.push_back(each);
    }
    return hit;
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
    piece.fileOffset = wrapping::add(piece.fileOffset, skip + skip / sectorSize * 8);
    if (piece.memory != nullptr) {
        piece.bufferStart += skip;
        piece.bufferLength = piece.len;
    }
    return piece;
}
