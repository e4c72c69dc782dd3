// One stored range of a map: its key, its file location and its links to the nodes after it.
//
// A node, its records and its links lie in one block of memory, of which NodeBlock.h tells.
//
// Invariants
//   (1) `forward` has `level + 1` entries from construction until the map is destroyed.
//   (2) `index`, `data` and `forward` point into the node itself and stay with it: a location goes
//       to another node by FileLocation::swap, never by its pointer.
// Ownership: a node owns both records and shares its successors. Nodes are held by the links of
//   their map and by the arrays and lists of a running operation. A handle given to Java is the
//   plain address and holds nothing.
// Destruction: dropping the last reference to a node drops its successors from inside its
//   destructor, and so on: never hold only the first of a chain of unlinked nodes. A list of nodes
//   is safe, for it goes front to back and holds each successor while its predecessor dies.
// Accounting: 48 bytes whatever the level, and those of the two records with them.
// Threads: none at the same time as a change. Reference counts are atomic, but dropping the last
//   reference to a node is a change of its map's memory.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <vector>

#include "skiplist/NodeBlock.h"

class Node {
    struct Made {};  // only `create` makes nodes

  public:
    // A per-level array and a list of nodes in key order.
    using Arr = std::unique_ptr<std::vector<std::shared_ptr<Node>>>;
    using List = std::unique_ptr<std::list<std::shared_ptr<Node>>>;

    Node(Made, const ByteRange& range, int topLevel);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    ~Node();

    // A node with the empty location, in a block of the pool, or in one of its own. All three throw
    // jni_bad_alloc or std::bad_alloc.
    static std::shared_ptr<Node> create(const ByteRange& range, int level,
                                        BlockPool* pool = nullptr);
    // A node that takes the location, with its buffer, out of a record.
    static std::shared_ptr<Node> create(const ByteRange& range, FileLocation& location, int level,
                                        BlockPool* pool = nullptr);
    // As above, and ends both records.
    static std::shared_ptr<Node> create(std::unique_ptr<Index>&& index,
                                        std::unique_ptr<Data>&& data, int level);

    // `n` null references; throws std::bad_alloc if `n` is negative.
    static Arr createArr(int n);
    static void clearArr(int n, Arr arr);
    static List createList();

    // Entry `i` of a per-level array; throws std::out_of_range beyond its end.
    static std::shared_ptr<Node>& at(std::vector<std::shared_ptr<Node>>& entries, int i) {
        // A negative level becomes a huge position and is refused with the others.
        const auto position = static_cast<std::size_t>(i);
        if (position >= entries.size()) throwOutOfRange();
        return entries[position];
    }

    // The parts in their places: `index` and `data`, read for their address, may be in another line
    // of the cache.
    ByteRange& range() { return own.index; }
    const ByteRange& range() const { return own.index; }
    FileLocation& location() { return own.data; }
    const FileLocation& location() const { return own.data; }

    long long getOffset() const { return own.index.getOffset(); }
    int getLen() const { return own.index.getLen(); }
    long long getEnd() const { return own.index.getEnd(); }
    int getLevel() const { return level; }
    bool getFileType() const { return own.data.getType(); }
    int getFileOffset() const { return own.data.getOffset(); }
    int getFileMajorVer() const { return own.data.getMajorVer(); }
    int getFileMinorVer() const { return own.data.getMinorVer(); }
    int getFileNumber() const { return own.data.getNumber(); }
    Buff* getFileBuff() const { return data->getBuff(); }

    // Gives the buffer back to Java; the node's length in bytes if there was one, else 0.
    int releaseFileBuff();

    // The successor at level `i`, in its place; nextNode is a reference of its own to that at 0.
    std::shared_ptr<Node>& next(int i) const { return at(*forward, i); }
    std::shared_ptr<Node> nextNode() const { return next(0); }
    // As `next`, unchecked. REQUIRES: 0 <= i <= level.
    std::shared_ptr<Node>& linked(int i) { return own.links()[i]; }
    const std::shared_ptr<Node>& linked(int i) const { return own.links()[i]; }

    // Has the processor fetch the key while it does something else.
    void prefetchKey() const { __builtin_prefetch(&own.index); }
    // As above the location, which whoever finds a node reads next.
    void prefetchLocation() const { __builtin_prefetch(&own.data); }

    static constexpr int charge = 48;  // bytes

    std::unique_ptr<Index> index;
    std::unique_ptr<Data> data;
    int level;
    bool hasSignpost = false;  // kept by the map's signposts
    Arr forward;

  private:
    friend struct NativeLayout;

    [[noreturn]] static void throwOutOfRange();

    NodeParts own;  // last: the links lie behind it
};
