// The way down a map, which every search takes.
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

// Tells `note(level, x, next)`, from level `from` down, the last node that ends at or before `key`
// and the one after it. Returns the latter at level 0, or where `note` returns true.
template <typename Note>
const std::shared_ptr<Node>& descend(const std::shared_ptr<Node>& head, const Node& tail,
                                     long long key, int from, Note note) {
    const std::shared_ptr<Node>* x = &head;
    for (int i = from; i >= 0; --i) {
        const std::shared_ptr<Node>* next = &follow(**x, i);
        while ((*next)->getEnd() <= key && next->get() != &tail) {
            x = next;
            next = &follow(**x, i);
        }
        if (note(i, *x, *next)) return *next;
    }
    return (*x)->linked(0);
}
