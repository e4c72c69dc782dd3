// The way to one place of a map: for each level the last node at or before it.
//
//     level 2   head ------------------> [30, 40) ------------------------------> tail
//     level 1   head -----> [10, 20) --> [30, 40) -------------> [70, 80) ------> tail
//     level 0   head -----> [10, 20) --> [30, 40) --> [50, 60) -> [70, 80) -----> tail
//                                                 ^
//     the path to 60     [50, 60) at level 0, [30, 40) at levels 1 and 2
//
// Nodes are linked and unlinked right behind the place. A path that is led from place to place
// mostly needs no search: many writes go on where the one before them stopped. Signposts lead to
// the place at levels 0 and mostly 1, which is enough for fifteen nodes in sixteen.
//
// Invariants
//   (1) At each level below `known`, and above that of the highest node, the entry is the last node
//       there at or before the place. In between an entry may be that of a node that has gone.
//   (2) (1) holds as long as nodes come and go right behind the place only, or the path is reset.
// Ownership: none; the map holds the nodes.
// Threads: as the map.
// Cost: a search, where the place is not the one of before nor one node further; a descent more for
//   a node that comes or goes higher than the place is known.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "skiplist/Descent.h"
#include "skiplist/Node.h"
#include "skiplist/Signposts.h"

class Path {
  public:
    // At the start of a map, whose sentinels stay where they are. REQUIRES: height >= 1.
    Path(const std::shared_ptr<Node>& mapHead, const std::shared_ptr<Node>& mapTail, int height)
        : head(mapHead), tail(*mapTail), lasts(static_cast<std::size_t>(height)) {
        reset();
    }

    // The last node at or before the place, and the link to the one behind it.
    Node& last() const { return *lasts.front(); }
    std::shared_ptr<Node>& next() const { return last().linked(0); }

    // Back to the start of the map.
    void reset() {
        std::fill(lasts.begin(), lasts.end(), head.get());
        known = height();
        walked = 0;
    }

    // Moves the place behind `node`. REQUIRES: it is the one behind the place.
    void passOver(Node& node) {
        std::fill_n(lasts.begin(), node.getLevel() + 1, &node);
        known = std::max(known, node.getLevel() + 1);
        ++walked;
    }

    // How many nodes a search walks over to get here from a signpost; nearly, where nodes came and
    // went since the last search.
    int walk() const { return walked; }

    // Links a node right behind the place, at each of its levels.
    void link(std::shared_ptr<Node> node) {
        const int level = node->getLevel();
        require(level);
        if (node->hasSignpost) walked = 0;
        for (int i = level; i > 0; --i) {
            node->linked(i).swap(at(i).linked(i));
            at(i).linked(i) = node;
        }
        node->linked(0).swap(next());
        next().swap(node);
    }

    // Takes the node right behind the place out; it keeps no link.
    std::shared_ptr<Node> unlink() {
        require(next()->getLevel());
        std::shared_ptr<Node> node = std::move(next());
        for (int i = 0; i <= node->getLevel(); ++i) at(i).linked(i) = std::move(node->linked(i));
        return node;
    }

    // Leads to the last node that ends at or before `key`. REQUIRES: no node above `mapTop`.
    // `isOrdered`: the ends of ranges are in order like their starts.
    void leadTo(long long key, const Signposts& signposts, int mapTop, bool isOrdered) {
        if (isOrdered && isNearby(key)) return;
        top = mapTop;
        walked = 0;
        if (signposts.isOn()) {
            walkTo(key, signposts.lastEndingBy(key));
        } else {
            descend(head, tail, key, top, [this](int i, const auto& x) { entry(i) = x.get(); });
            known = height();
        }
    }

  private:
    int height() const { return static_cast<int>(lasts.size()); }
    Node*& entry(int level) { return lasts[static_cast<std::size_t>(level)]; }
    Node& at(int level) { return *entry(level); }

    // Whether it leads there already, or after one step.
    bool isNearby(long long key) {
        if (last().getEnd() > key) return false;
        Node* behind = next().get();
        if (behind->getEnd() <= key && behind != &tail) {
            passOver(*behind);
            behind = next().get();
        }
        return behind->getEnd() > key;
    }

    // From the last node with a signpost that ends at or before `key`; without one, from the start.
    // Whether it is promoted is not asked before somebody needs to know: it lies in another line of
    // the cache.
    void walkTo(long long key, Node* signposted) {
        if (signposted == nullptr) {
            reset();
        } else {
            entry(0) = guide = signposted;
            known = 1;
        }
        for (Node* behind = next().get(); behind->getEnd() <= key && behind != &tail;) {
            entry(0) = behind;
            ++walked;
            behind = next().get();
        }
    }

    // Gets to know the place up to `level`. By starts: an insert that is half done has them in
    // order, but not ends.
    void require(int level) {
        if (level < known) return;
        if (known == 1 && guide->getLevel() > 0) {
            entry(1) = guide;
            known = 2;
            if (level == 1) return;
        }
        const long long start = last().getOffset();
        descend(
            head, tail, top, known, [=](const Node& node) { return node.getOffset() <= start; },
            [this](int i, const auto& x) { entry(i) = x.get(); });
        known = height();
    }

    const std::shared_ptr<Node>& head;
    const Node& tail;
    std::vector<Node*> lasts;
    int known = 0;
    Node* guide = nullptr;  // while the place is known at level 0 only
    int walked = 0;
    int top = 0;  // no node was above it when the path was led to the place
};
