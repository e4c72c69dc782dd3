// A rival of the benchmarks: boost::icl::interval_map by its replacing operation, a map of
// intervals as one finds it ready made.
//
// It stores one value for a whole interval, and joins intervals that touch if their values are
// equal. A location advances inside its range, so stored is instead where byte 0 of the device
// would lie if the range reached back to it: cutting leaves that as it is, and it is equal exactly
// if two ranges continue each other. This needs ranges of whole sectors, to the start and to the
// end.
//
// Differences: all empty ranges that touch are joined, where the library tells the pieces that an
// empty range was cut into from those stored as empty; and a range may outgrow 32 bits.
// Ownership: the map owns its nodes. Threads: not thread-safe.
// Cost: O(log size + ranges replaced), a walk O(log size + ranges visited).
#pragma once

#include <boost/icl/interval_map.hpp>

#include "RangeRules.h"

class IclRangeMap {
  public:
    static constexpr const char* name = "icl-map";

    // Afterwards the bytes of the range lie at its location, and all others where they were.
    // REQUIRES: range.len > 0, and range.offset and range.len are multiples of the sector size.
    void insert(const Range& range);

    bool compareAndSet(const Range& range, const Location& expected) {
        return redirect(*this, range, expected);
    }

    // Visits the ranges that share a byte with [offset, offset + len), in order.
    template <typename Visit>
    void forEach(long long offset, int len, Visit visit) const {
        const auto [first, last] = tree.equal_range(Interval(offset, offset + len));
        for (auto node = first; node != last; ++node) visit(rangeOf(*node));
    }

    // Visits everything stored, in order.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (const auto& node : tree) visit(rangeOf(node));
    }

    void copyTo(IclRangeMap& empty) const { empty.tree = tree; }

  private:
    struct Origin {
        long long fileOffset;
        int majorVer;
        int minorVer;
        unsigned char number;

        bool operator==(const Origin&) const = default;
    };
    using Interval = boost::icl::right_open_interval<long long>;
    // partial_enricher: no value is taken for "nothing stored".
    using Tree =
        boost::icl::interval_map<long long, Origin, boost::icl::partial_enricher, std::less,
                                 boost::icl::inplace_plus, boost::icl::inter_section, Interval>;

    static Origin originOf(const Range& range);
    static Range rangeOf(const Tree::value_type& node);

    Tree tree;
};

inline IclRangeMap::Origin IclRangeMap::originOf(const Range& range) {
    const Location& location = range.location;
    const long long start = location.isEmpty() ? 0 : fileDistance(range.offset);
    return {location.fileOffset - start, location.majorVer, location.minorVer, location.number};
}

inline Range IclRangeMap::rangeOf(const Tree::value_type& node) {
    const auto& [interval, origin] = node;
    const bool isEmpty = origin == originOf({0, 0, nowhere});
    const long long start = isEmpty ? 0 : fileDistance(interval.lower());
    return {interval.lower(),
            static_cast<int>(interval.upper() - interval.lower()),
            {static_cast<int>(origin.fileOffset + start), origin.majorVer, origin.minorVer,
             origin.number}};
}
