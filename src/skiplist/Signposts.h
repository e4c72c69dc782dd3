// Where some of a map's nodes are, by their starts: the promoted ones, those above level 0, one in
// four; and others where chance has promoted none for long.
//
//     bounds                            100                            300
//     chunks  10 | 40 | 70           100 | 150 | 210 | 260          300 | 350
//              |    |    |             |     |     |     |            |     |
//             the nodes, which lead on along level 0
//
// The skip list's links are the truth, and this says where to begin with them. A search that goes
// down the links reads some four keys a level, each from memory in a large map. Here it reads a few
// runs of adjacent starts, and then on average three nodes; in a map that is not filled downwards
// seldom more than eight.
//
// Invariants
//   (1) While it is on, it holds every promoted node of the map, and besides them only nodes that
//       say so themselves (`hasSignpost`), each with its start.
//   (2) Starts increase. So it serves only maps whose ranges are in order.
//   (3) `bounds[i]` is the first start of chunk i + 1. There is a chunk, and if there are several,
//       none is empty.
// Ownership: owns its memory, but not the nodes: who links, unlinks or moves one says so.
// Threads: searches may run at the same time as each other, not as changes.
// Cost: two binary searches; a change also shifts half a chunk, and one in fifty half of what
//   leads to the chunks, at 10^7 ranges 250 KB. 6 bytes a range: 16 for each of its nodes, in
//   chunks that are 70 % full. None are charged.
// Failure: none. Where memory is short it goes off, and the links serve alone.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "skiplist/Node.h"

class Signposts {
  public:
    // Maps of fewer ranges need none: at 128 a search by links takes 1.17 times the instructions,
    // and a chunk a fifth of the memory.
    static int fewestRanges;
    // As many nodes has a full chunk. Fewer for tests, to see chunks come and go.
    static std::size_t entriesPerChunk;
    // A new node gets a signpost, whatever its level, where a search walks over as many to it. A
    // random level alone leaves one walk in ten longer, and one in a hundred twice as long.
    static int longestWalk;

    bool isOn() const { return !chunks.empty(); }

    // Begins with the nodes of a map. REQUIRES: it is not on.
    void build(const Node& head, const Node& tail) noexcept;
    void clear() noexcept;

    // The last of its nodes that starts at or before `key`, and the last that ends there; null if
    // there is none. REQUIRES: isOn().
    Node* lastStartingBy(long long key) const;
    Node* lastEndingBy(long long key) const;

    // To be told of every node that is linked; that is about to be unlinked; that started elsewhere
    // before, but between the same neighbours. They do nothing while it is off.
    // `walk`: how many nodes lie between the new one and the last before it that it holds.
    void add(Node& node, int walk) noexcept;
    void drop(const Node& node) noexcept;
    void moved(const Node& node, long long formerStart) noexcept;

    // Whether it agrees with the links. For tests.
    bool agreesWith(const Node& head, const Node& tail) const;

  private:
    friend struct NativeLayout;

    // Where there is no node, the start is the last position of all. There always is such a start.
    struct Chunk {
        static constexpr std::size_t mostEntries = 127;

        Chunk();
        void insert(std::size_t entry, Node& node);
        void erase(std::size_t entry);
        void moveTail(std::size_t from, Chunk& to);  // to its end

        std::size_t count = 0;
        std::array<long long, mostEntries + 1> starts;
        std::array<Node*, mostEntries + 1> nodes;
    };

    // Behind the first `entry` nodes of a chunk.
    struct Place {
        std::size_t chunk;
        std::size_t entry;
    };

    bool concerns(const Node& node) const { return node.hasSignpost && isOn(); }
    static bool isWanted(const Node& node, int walk) {
        return node.getLevel() > 0 || walk >= longestWalk;
    }
    Place behind(long long start) const;
    Node* before(Place place) const;
    void insert(Node& node);
    void split(Place place, long long start);
    void joinIfSmall(std::size_t chunk);
    void keepBound(std::size_t chunk);

    std::vector<long long> bounds;
    std::vector<std::unique_ptr<Chunk>> chunks;
};
