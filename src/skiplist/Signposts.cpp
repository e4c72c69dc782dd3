#include "skiplist/Signposts.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

namespace {

constexpr long long never = std::numeric_limits<long long>::max();

// Both ways to count the ascending starts up to a key are without branches: which half it is cannot
// be predicted.
std::size_t stepIf(bool taken, std::size_t step) {
    return step & -static_cast<std::size_t>(taken);
}

std::size_t countUpTo(const std::vector<long long>& starts, long long key) {
    std::size_t counted = 0;
    for (std::size_t left = starts.size(); left > 0; left /= 2) {
        const std::size_t half = (left + 1) / 2;
        counted += stepIf(starts[counted + half - 1] <= key, half);
    }
    return counted;
}

// REQUIRES: a power of two of them, and the last one is greater than the key.
template <std::size_t size>
std::size_t countUpTo(const std::array<long long, size>& starts, long long key) {
    std::size_t counted = 0;
    for (std::size_t half = size / 2; half > 0; half /= 2) {
        counted += stepIf(starts[counted + half - 1] <= key, half);
    }
    return counted;
}

}  // namespace

int Signposts::fewestRanges = 128;
int Signposts::longestWalk = 8;
std::size_t Signposts::entriesPerChunk = Chunk::mostEntries;

// --- Chunk ---------------------------------------------------------------------------------------

Signposts::Chunk::Chunk() {
    starts.fill(never);
}

void Signposts::Chunk::insert(std::size_t entry, Node& node) {
    std::copy_backward(&starts[entry], &starts[count], &starts[count] + 1);
    std::copy_backward(&nodes[entry], &nodes[count], &nodes[count] + 1);
    starts[entry] = node.getOffset();
    nodes[entry] = &node;
    ++count;
}

void Signposts::Chunk::erase(std::size_t entry) {
    std::copy(&starts[entry] + 1, &starts[count], &starts[entry]);
    std::copy(&nodes[entry] + 1, &nodes[count], &nodes[entry]);
    starts[--count] = never;
}

void Signposts::Chunk::moveTail(std::size_t from, Chunk& to) {
    std::copy(&starts[from], &starts[count], &to.starts[to.count]);
    std::copy(&nodes[from], &nodes[count], &to.nodes[to.count]);
    std::fill(&starts[from], &starts[count], never);
    to.count += count - from;
    count = from;
}

void Signposts::build(const Node& head, const Node& tail) noexcept {
    try {
        chunks.push_back(std::make_unique<Chunk>());
        int walk = 0;
        for (Node* node = head.linked(0).get(); node != &tail; node = node->linked(0).get()) {
            node->hasSignpost = isWanted(*node, walk);
            if (node->hasSignpost) insert(*node);
            walk = node->hasSignpost ? 0 : walk + 1;
        }
    } catch (const std::bad_alloc&) {
        clear();
    }
}

void Signposts::clear() noexcept {
    std::exchange(bounds, {});
    std::exchange(chunks, {});
}

// --- Searches ------------------------------------------------------------------------------------

Signposts::Place Signposts::behind(long long start) const {
    // No node starts at the last position, which stands for one that is not there.
    const long long key = std::min(start, never - 1);
    const std::size_t chunk = countUpTo(bounds, key);
    return {chunk, countUpTo(chunks[chunk]->starts, key)};
}

// The node right before a place, null at the very first.
Node* Signposts::before(Place place) const {
    if (place.entry > 0) return chunks[place.chunk]->nodes[place.entry - 1];
    if (place.chunk == 0) return nullptr;
    const Chunk& previous = *chunks[place.chunk - 1];
    return previous.nodes[previous.count - 1];
}

Node* Signposts::lastStartingBy(long long key) const {
    return before(behind(key));
}

Node* Signposts::lastEndingBy(long long key) const {
    const Place place = behind(key);
    Node* const node = before(place);
    if (node == nullptr || node->getEnd() <= key) return node;
    return before({place.chunk, place.entry - 1});
}

// --- Changes -------------------------------------------------------------------------------------

void Signposts::add(Node& node, int walk) noexcept {
    if (!isWanted(node, walk) || !isOn()) return;
    node.hasSignpost = true;
    try {
        insert(node);
    } catch (const std::bad_alloc&) {
        clear();
    }
}

void Signposts::insert(Node& node) {
    const long long start = node.getOffset();
    Place place = behind(start);
    if (chunks[place.chunk]->count >= entriesPerChunk) {
        split(place, start);
        place = behind(start);
    }
    chunks[place.chunk]->insert(place.entry, node);
}

void Signposts::drop(const Node& node) noexcept {
    if (!concerns(node)) return;
    const Place place = behind(node.getOffset());
    chunks[place.chunk]->erase(place.entry - 1);
    keepBound(place.chunk);
    joinIfSmall(place.chunk);
}

void Signposts::moved(const Node& node, long long formerStart) noexcept {
    if (node.getOffset() == formerStart || !concerns(node)) return;
    const Place place = behind(formerStart);
    chunks[place.chunk]->starts[place.entry - 1] = node.getOffset();
    keepBound(place.chunk);
}

void Signposts::keepBound(std::size_t chunk) {
    if (chunk > 0) bounds[chunk - 1] = chunks[chunk]->starts.front();
}

// Makes room for `start` at a place in a full chunk. Half of the entries go to a new chunk; none
// where the map grows at its end, so that chunks which nothing is added to any more are full.
void Signposts::split(Place place, long long start) {
    Chunk& full = *chunks[place.chunk];
    const bool grows = place.chunk + 1 == chunks.size() && place.entry == full.count;
    const std::size_t kept = grows ? full.count : full.count / 2;
    auto added = std::make_unique<Chunk>();
    const long long bound = grows ? start : full.starts[kept];
    full.moveTail(kept, *added);
    const auto position = static_cast<std::ptrdiff_t>(place.chunk);
    bounds.insert(bounds.begin() + position, bound);
    chunks.insert(chunks.begin() + position + 1, std::move(added));
}

// Joins a chunk that has become small with a neighbour, if they are then not soon split again.
void Signposts::joinIfSmall(std::size_t chunk) {
    if (chunks[chunk]->count > entriesPerChunk / 4 || chunks.size() == 1) return;
    const std::size_t left = chunk > 0 ? chunk - 1 : chunk;
    Chunk& joined = *chunks[left];
    Chunk& right = *chunks[left + 1];
    const bool isEmpty = chunks[chunk]->count == 0;
    if (!isEmpty && joined.count + right.count > entriesPerChunk / 2) return;
    right.moveTail(0, joined);
    const auto position = static_cast<std::ptrdiff_t>(left);
    bounds.erase(bounds.begin() + position);
    chunks.erase(chunks.begin() + position + 1);
}

bool Signposts::agreesWith(const Node& head, const Node& tail) const {
    const auto nextWithSignpost = [&tail](const Node* node) {
        do {
            node = node->linked(0).get();
        } while (node != &tail && node->getLevel() == 0 && !node->hasSignpost);
        return node;
    };
    const Node* node = nextWithSignpost(&head);
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        const Chunk& chunk = *chunks[i];
        if (chunk.count == 0 && chunks.size() > 1) return false;
        if (i > 0 && bounds[i - 1] != chunk.starts.front()) return false;
        if (static_cast<std::size_t>(std::ranges::count(chunk.starts, never)) + chunk.count !=
            chunk.starts.size()) {
            return false;
        }
        for (std::size_t entry = 0; entry < chunk.count; ++entry) {
            if (chunk.nodes[entry] != node || !node->hasSignpost) return false;
            if (chunk.starts[entry] != node->getOffset()) return false;
            node = nextWithSignpost(node);
        }
    }
    return node == &tail && bounds.size() + 1 == chunks.size();
}
