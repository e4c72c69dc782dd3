// The usual way of an insert: wherever a stored node can stand for a part of the result, it stays,
// with its links, and only its records change.
//
//   stored   [----)[--)[--)[----)      [-----------)      [----)
//   new         [------------)            [----)               [----)
//   becomes  [-)[------------)[-)      [-)[----)[--)      [---------)
//             one of the covered       the stored one      the neighbour
//             becomes the new one      stays and two come  grows
//
// So it makes no node where one is covered, and at most two in all. They come and go right behind
// the path.
//
// Failure: what an insert needs is made before anything stored is touched; if that throws, nothing
//   has changed. Java, which gets back the buffers of what is replaced, is called when the map is
//   whole again.
// Ownership: for one call; refers to the map, the range and the location.
// Cost: O(log size + ranges overlapped) expected, without the first where the path is near.
#pragma once

#include <memory>
#include <optional>

#include "skiplist/SkipList.h"

class InsertInPlace {
  public:
    // True if the location was laid over the range, and is by now one that was replaced. False,
    // with nothing done, for what is rare: a range that continues one that it overlaps, both its
    // neighbours, the right one while it overlaps others, or one that covers no byte.
    static bool tryTo(SkipList& map, const ByteRange& range, FileLocation& location);

  private:
    // What the new range lies over.
    struct Overlap {
        Node* first;  // the first stored range that shares a byte with it, or `next`
        Node* last;   // the last one, null if there is none
        Node* next;   // the one behind, or `tail`
        int count;
        long long bytes;  // summed lengths
        bool outLeft;     // the first one begins before the new range
        bool outRight;    // the last one ends behind it
    };

    // What becomes of the nodes that it lies over.
    struct Plan {
        Node* kept;          // becomes the new range; null if a node is to be added
        const Node* behind;  // the nodes after `kept` up to this one are covered, and go
        bool splits;         // one stored range sticks out on both sides
        bool keepsLast;      // the last one stays, as what sticks out on the right
    };

    // What is needed besides; empty is what is not.
    struct Parts {
        std::optional<FileLocation> left;  // of what sticks out, where it has a buffer
        std::optional<FileLocation> right;
        std::shared_ptr<Node> added;
        std::shared_ptr<Node> rest;  // what sticks out on the right of a range that is split
    };

    InsertInPlace(SkipList& intoMap, const ByteRange& newRange, FileLocation& newLocation)
        : map(intoMap), range(newRange), location(newLocation) {}

    Overlap findOverlap() const;
    bool isUsual();
    bool continuesOverlapped() const;
    Plan makePlan() const;
    Parts makeParts() const;
    void partOfBuffer(std::optional<FileLocation>& part, const Node& node, long long start,
                      long long end) const;
    long long bytesGained() const;
    void apply(Parts& parts);
    void shorten(Node& node, long long start, long long end,
                 std::optional<FileLocation>& part) const;
    void setRange(Node& node, long long start, int len) const;
    void addNew(Parts& parts);
    void link(std::shared_ptr<Node> node) const;
    void changeKept();
    std::shared_ptr<Node> unlinkCovered();

    SkipList& map;
    const ByteRange& range;
    FileLocation& location;
    Overlap overlap{};
    SkipList::Fusion fusion{};
    Node* neighbour = nullptr;  // the one that takes the range in, if one does
    Plan plan{};
};
