// Where the fields lie that Java reads in place. NativeLayout.java has the same numbers, and the
// two are only used together if library and jar are of one version: who changes one changes both.
#include <cstddef>
#include <memory>
#include <vector>

#include "skiplist/SkipList.h"

// The compilers that we build with know the offsets in all classes, and warn that others may not.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

// A friend of the classes, for the offsets of what they do not show.
struct NativeLayout {
    static_assert(sizeof(void*) == 8 && sizeof(long) == 8);
    static_assert(sizeof(std::shared_ptr<Node>) == 2 * sizeof(void*));
    static_assert(sizeof(std::vector<long long>) == 3 * sizeof(void*));
    static_assert(sizeof(std::unique_ptr<Signposts::Chunk>) == sizeof(void*));

    static_assert(offsetof(SkipList, head) == 56);
    static_assert(offsetof(SkipList, tail) == 72);
    static_assert(offsetof(SkipList, topLevel) == 664);
    static_assert(offsetof(SkipList, signposts) + offsetof(Signposts, bounds) == 736);
    static_assert(offsetof(SkipList, signposts) + offsetof(Signposts, chunks) == 760);

    static_assert(offsetof(Signposts::Chunk, count) == 0);
    static_assert(offsetof(Signposts::Chunk, starts) == 8);
    static_assert(offsetof(Signposts::Chunk, nodes) == 1032);
    static_assert(Signposts::Chunk::mostEntries + 1 == 128);

    static constexpr std::size_t parts = offsetof(Node, own);
    static constexpr std::size_t location = parts + offsetof(NodeParts, data);
    static constexpr std::size_t range = parts + offsetof(NodeParts, index);
    static_assert(location + offsetof(Data, type) == 56);
    static_assert(location + offsetof(Data, number) == 57);
    static_assert(location + offsetof(Data, offset) == 60);
    static_assert(location + offsetof(Data, majorVer) == 64);
    static_assert(location + offsetof(Data, minorVer) == 68);
    static_assert(range + offsetof(Index, offset) == 80);
    static_assert(range + offsetof(Index, len) == 88);
    // The links are right behind.
    static_assert(sizeof(NodeParts) + parts == sizeof(Node) && sizeof(Node) == 96);
};
