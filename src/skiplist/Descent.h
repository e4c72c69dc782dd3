// The way down a map, which a search takes where there are no signposts.
//
// It goes from link to link through plain references to the links themselves, and so touches no
// reference count. `tail` ends every level, therefore a link that is followed is never null; and a
// node that is met on a level is linked there, so that no entry needs a check.
// Cost: about four keys a level. In a large map they come from memory: the one that is read next,
// if that of the present link ends too late, is called for meanwhile.
#pragma once

#include <memory>

#include "skiplist/Node.h"

inline const std::shared_ptr<Node>& follow(const Node& node, int level) {
    if (level > 0) node.linked(level - 1)->prefetchKey();
    return node.linked(level);
}

// Tells `note(level, x)`, from level `from` down to `to`, the last node for which `isBefore` holds.
// Returns the link from there at level `to`.
template <typename IsBefore, typename Note>
const std::shared_ptr<Node>& descend(const std::shared_ptr<Node>& head, const Node& tail, int from,
                                     int to, IsBefore isBefore, Note note) {
    const std::shared_ptr<Node>* x = &head;
    for (int i = from; i >= to; --i) {
        const std::shared_ptr<Node>* next = &follow(**x, i);
        while (isBefore(**next) && next->get() != &tail) {
            x = next;
            next = &follow(**x, i);
        }
        note(i, *x);
    }
    return (*x)->linked(to);
}

// As above, down to level 0, the last node that ends at or before `key`.
template <typename Note>
const std::shared_ptr<Node>& descend(const std::shared_ptr<Node>& head, const Node& tail,
                                     long long key, int from, Note note) {
    return descend(
        head, tail, from, 0, [key](const Node& node) { return node.getEnd() <= key; }, note);
}
