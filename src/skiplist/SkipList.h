// Keeps the byte ranges of one device, ordered by start, with the file location of each.
//
// A skip list (Pugh, "Skip Lists: A Probabilistic Alternative to Balanced Trees", 1990) of
// disjoint half-open ranges [start, end), with a promotion probability of one in four. It suits
// maps from a handful to some tens of millions of ranges that are overwritten all the time. For a
// map that is filled once and then only read, a sorted array is smaller and faster.
//
// Invariants
//   (1) Level 0 runs from `head` to `tail` with starts in increasing order and no two ranges
//       overlapping.
//   (2) A node of level L is linked at levels 0 to L; each level is a subsequence of the one below.
//   (3) `size` is the number of nodes between the sentinels, and `validLen` the sum of their
//       lengths. The latter is exact unless an insert covers the gap between two stored ranges and
//       only one of its ends lies inside a stored range: such a gap is not added to `validLen`.
//   (4) Between two operations the scratch arrays hold nothing.
//   (5) Every buffer of a stored range is given back through this map's `env`.
//   All five hold for ranges of positive length that end below the largest 64-bit position. Other
//   ranges are processed as they stand: links stay sound, order is then the caller's loss.
// Ownership: the map owns its nodes through the links, and the memory that they lie in; a node owns
//   its records and its buffer.
// Threads: searches, and reading nodes, may run at the same time as each other. A change runs alone
//   on its map; the caller sees to that. Different maps may be used at once.
// Cost: searches O(log size) expected, an insert O(log size + ranges replaced), walks linear. No
//   operation uses stack in proportion to the ranges that it drops.
// Failure: an insert that throws (jni_bad_alloc, std::bad_alloc, std::runtime_error from a buffer)
//   leaves ranges, counters and buffers as they were. compareAndSet and copyTo make one insert per
//   piece and keep those that were done.
#pragma once

#include <jni.h>

#include <list>
#include <memory>
#include <random>

#include "skiplist/Node.h"
#include "skiplist/Path.h"
#include "skiplist/Signposts.h"

class SkipList {
  public:
    // REQUIRES: height >= 1, bytesPerSector >= 1. Throws jni_bad_alloc or std::bad_alloc.
    SkipList(std::shared_ptr<Env>& sharedEnv, int height, int bytesPerSector);
    SkipList(const SkipList&) = delete;
    SkipList& operator=(const SkipList&) = delete;
    ~SkipList();

    // The map whose address a Java handle holds, which is not checked. A `jniEnv` that is not null
    // becomes the environment through which the map calls Java.
    static SkipList* getSkipList(long handle, JNIEnv* jniEnv);
    void setJNIEnv(JNIEnv* jniEnv);

    // --- Searches: they change nothing and invalidate nothing. ---

    // The first node whose range ends after `key`, or `tail`.
    std::shared_ptr<Node> findEqualGreater(long long key) const;

    // The run [first, last) of the nodes that share a byte with the range; empty: first == last.
    void find(long long offset, int len, std::shared_ptr<Node>& first,
              std::shared_ptr<Node>& last) const;
    void findAll(std::shared_ptr<Node>& first, std::shared_ptr<Node>& last) const;

    // The same runs, without references to their ends, which stay until the map changes.
    struct Run {
        Node* first;
        Node* last;
    };
    Run runOver(long long offset, int len) const;
    Run runOverAll() const;

    // For each level the last node that ends at or before the range and the first that starts at
    // or after its end; appends the nodes in between to `overlapped`. Throws std::out_of_range if
    // an array has fewer than maxLevel + 1 entries.
    void findRange(long long offset, int len, Node::Arr& predecessors, Node::Arr& successors,
                   Node::List& overlapped) const;

    // Whether two ranges that touch or overlap may be stored as one.
    bool isConnected(const std::unique_ptr<Index>& newIndex, const std::unique_ptr<Data>& newData,
                     const std::unique_ptr<Index>& oldIndex,
                     const std::unique_ptr<Data>& oldData) const;
    // The test for two locations in files: same versions and number, and exactly as far apart in
    // the file as on the device.
    bool isDataConnected(const std::unique_ptr<Index>& newIndex,
                         const std::unique_ptr<Data>& newData,
                         const std::unique_ptr<Index>& oldIndex,
                         const std::unique_ptr<Data>& oldData) const;
    // The test for two empty locations: only the ranges count.
    bool isEmptyDataConnected(const std::unique_ptr<Index>& newIndex,
                              const std::unique_ptr<Data>& newData,
                              const std::unique_ptr<Index>& oldIndex,
                              const std::unique_ptr<Data>& oldData) const;

    // Whether the signposts name the nodes that they should and no others, or are off. For tests.
    bool signpostsAgree() const { return !signposts.isOn() || signposts.agreesWith(*head, *tail); }

    // --- Changes: each invalidates the handles of the nodes that it replaces. ---

    // Afterwards the bytes of the range lie at the given location, and all others where they were.
    // The first form stores a location in a file, the second one of memory type.
    void insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                unsigned char number);
    void insert(long long offset, int len, int fileOffset, int majorVer, int minorVer,
                unsigned char number, std::unique_ptr<Buff>&& buff);
    // Takes the location, with its buffer, out of the record, and may leave there a replaced one.
    void insert(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data);

    // Redirects those parts of the range that still lie where `expected` says; true if any did.
    bool compareAndSet(std::unique_ptr<Index>& index, std::unique_ptr<Data>& expected,
                       std::unique_ptr<Data>& newData);
    bool compareAndSet(long long offset, int len, int expFileOffset, int expMajorVer,
                       int expMinorVer, unsigned char expNumber, int newFileOffset, int newMajorVer,
                       int newMinorVer, unsigned char newNumber);

    // Inserts a copy of every range into `destination`, whose buffers the copied ones become. Java
    // is called through the environments that the two maps hold.
    void copyTo(SkipList* destination);

    // --- Buffers: these leave every node, link and counter as it is. ---

    // Gives back the buffers of the ranges wholly inside the given one that still lie where
    // `expected` says; returns their summed lengths in bytes.
    long long compareAndRelease(std::unique_ptr<Index>& index, std::unique_ptr<Data>& expected);
    long long compareAndRelease(long long offset, int len, int fileOffset, int majorVer,
                                int minorVer, unsigned char number);
    // Gives back every buffer; returns the summed lengths of the ranges that held one.
    long long release();

    // --- Steps of an insert. ---

    // A level from 0 to maxLevel; two steps of the engine per draw.
    int randLevel();
    // Points `from` at `to` at each level that both have and where `from` has no successor yet.
    void link(std::shared_ptr<Node>& from, std::shared_ptr<Node>& to) const;
    // Splices new nodes in key order between the per-level neighbours.
    void link(Node::Arr& predecessors, Node::Arr& successors, Node::List& newNodes);
    // The nodes that take the place of the overlapped ones.
    Node::List create(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                      Node::List& overlapped);
    void insertNewNodes(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                        Node::Arr& predecessors, Node::Arr& successors, Node::List& overlapped);

    // The four ways in which a range may lie over the stored ones; drawn in the source.
    void replaceAll(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                    Node::List& overlapped, Node::List& newNodes);
    void expandLeft(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                    Node::List& overlapped, Node::List& newNodes);
    void expandRight(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                     Node::List& overlapped, Node::List& newNodes);
    void updateMiddle(std::unique_ptr<Index>& index, std::unique_ptr<Data>& data,
                      Node::List& overlapped, Node::List& newNodes);

    // The neighbours of a range while it replaces nodes.
    Node::Arr prevArr;
    Node::Arr nextArr;

    // Shared with the map's buffers; its content is written by every refreshing call.
    std::shared_ptr<Env> env;

    // Advanced by every new node.
    std::unique_ptr<std::minstd_rand0> engine;
    std::unique_ptr<std::uniform_real_distribution<double>> distribution;

    // Set once.
    int maxLevel;
    int sectorSize;  // bytes
    std::shared_ptr<Node> head;
    std::shared_ptr<Node> tail;

    // Written by inserts.
    long long validLen = 0;  // bytes covered, see invariant (3)
    int size = 0;            // ranges stored
    long long rawLen = 0;    // bytes ever inserted
    int rawCount = 0;        // inserts completed; wraps

  private:
    static constexpr int charge = 144;

    // A new range joined with the neighbours that it continues.
    struct Fusion {
        bool left;
        bool right;
        long long offset;
        long long len;
    };

    Node* firstEndingAfter(long long key) const;
    const std::shared_ptr<Node>& linkToFirstEndingAfter(long long key) const;
    bool startsBefore(const std::shared_ptr<Node>& node, long long end) const;
    template <typename Visit>
    void forEachOverlapped(const ByteRange& range, Visit visit) const;

    bool continues(const ByteRange& newRange, const FileLocation& newLocation,
                   const ByteRange& oldRange, const FileLocation& oldLocation) const;
    bool runsOn(const ByteRange& newRange, const FileLocation& newLocation,
                const ByteRange& oldRange, const FileLocation& oldLocation) const;
    Fusion fuse(const ByteRange& range, const FileLocation& location, const Node& left,
                const Node& right) const;

    void insert(const ByteRange& range, FileLocation& location);
    bool compareAndSet(const ByteRange& range, const FileLocation& expected,
                       const FileLocation& newLocation);
    long long compareAndRelease(const ByteRange& range, const FileLocation& expected);
    void insertByReplacing(const ByteRange& range, FileLocation& location);
    void noteOrder(const ByteRange& range);
    void leadPathTo(long long key);
    void switchSignposts();

    std::shared_ptr<Node> cut(const Node& source, long long start, long long end);
    Node& append(Node::List& newNodes, std::shared_ptr<Node> node);
    void countReplaced(const Node::List& overlapped, const Node::List& newNodes,
                       long long coveredBytes);

    // The usual way of an insert; it shares the rules, and changes what is below.
    friend class InsertInPlace;

    friend struct NativeLayout;

    // Holds the nodes between the sentinels.
    BlockPool pool;

    // No node is linked above it, and searches begin there.
    int topLevel = 0;

    // Every range so far ends behind its start, so that ends are in order like starts. Otherwise
    // a node that ends before a key does not say that all nodes before it do.
    bool isOrdered = true;

    // Ends where the latest insert was.
    Path path;

    // On in larger maps whose ranges are in order.
    Signposts signposts;
    int insertsUntilSignposts = 0;
};
