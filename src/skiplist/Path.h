// The way to one place of a map: for each level the last node at or before it.
//
//     level 2   head ------------------> [30, 40) ------------------------------> tail
//     level 1   head -----> [10, 20) --> [30, 40) -------------> [70, 80) ------> tail
//     level 0   head -----> [10, 20) --> [30, 40) --> [50, 60) -> [70, 80) -----> tail
//                                                 ^
//     the path to 60     [50, 60) at level 0, [30, 40) at levels 1 and 2
//
// Nodes are linked and unlinked right behind the place. A path that is led from place to place
// mostly needs no descent: many writes go on where the one before them stopped.
//
// Invariants
//   (1) At each level the entry is the last node there at or before the place; `head` above the
//       level of the highest node.
//   (2) (1) holds as long as nodes come and go right behind the place only, or the path is reset.
// Ownership: none; the map holds the nodes.
// Threads: as the map.
// Cost: a descent, where the place is not the one of before nor one node further.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

#include "skiplist/Descent.h"
#include "skiplist/Node.h"

class Path {
  public:
    // At the start of a map. REQUIRES: height >= 1.
    Path(Node& mapHead, int height) : lasts(static_cast<std::size_t>(height), &mapHead) {}

    // The last node at or before the place, and the link to the one behind it.
    Node& last() const { return *lasts.front(); }
    std::shared_ptr<Node>& next() const { return last().linked(0); }

    // Back to the start of the map.
    void reset(Node& mapHead) { std::fill(lasts.begin(), lasts.end(), &mapHead); }

    // Moves the place behind `node`. REQUIRES: it is the one behind the place.
    void passOver(Node& node) { std::fill_n(lasts.begin(), node.getLevel() + 1, &node); }

    // Links a node right behind the place, at each of its levels.
    void link(std::shared_ptr<Node> node) {
        for (int i = node->getLevel(); i >= 0; --i) {
            std::shared_ptr<Node>& link = at(i).linked(i);
            node->linked(i) = std::move(link);
            if (i > 0) link = node;
        }
        next() = std::move(node);
    }

    // Takes the node right behind the place out; it keeps no link.
    std::shared_ptr<Node> unlink() {
        std::shared_ptr<Node> node = std::move(next());
        for (int i = 0; i <= node->getLevel(); ++i) at(i).linked(i) = std::move(node->linked(i));
        return node;
    }

    // Leads to the last node that ends at or before `key`. REQUIRES: no node above `topLevel`.
    // `isOrdered`: the ends of ranges are in order like their starts.
    void leadTo(long long key, const std::shared_ptr<Node>& head, const Node& tail, int topLevel,
                bool isOrdered) {
        if (isOrdered && isNearby(key, tail)) return;
        descend(head, tail, key, topLevel, [this](int level, const auto& previous, const auto&) {
            lasts[static_cast<std::size_t>(level)] = previous.get();
            return false;
        });
    }

  private:
    Node& at(int level) const { return *lasts[static_cast<std::size_t>(level)]; }

    // Whether it leads there already, or after one step.
    bool isNearby(long long key, const Node& tail) {
        if (last().getEnd() > key) return false;
        Node* behind = next().get();
        if (behind->getEnd() <= key && behind != &tail) {
            passOver(*behind);
            behind = next().get();
        }
        return behind->getEnd() > key;
    }

    std::vector<Node*> lasts;
};
