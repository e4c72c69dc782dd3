#include "Equality.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>

#include "Competitors.h"

namespace {

std::string textOf(const Range& range) {
    const Location& location = range.location;
    std::ostringstream text;
    text << "[" << range.offset << ", " << range.end() << ") in file " << int{location.number}
         << " at " << location.fileOffset << " (" << location.majorVer << ", " << location.minorVer
         << ")";
    return text.str();
}

bool isUnversioned(const Location& location) {
    return location.majorVer == -1 && location.minorVer == -1;
}

// The same bytes at the same locations, however they were divided: joined where they continue each
// other. What has no versions is nowhere.
std::vector<Range> joined(const std::vector<Range>& ranges) {
    std::vector<Range> result;
    for (Range range : ranges) {
        if (isUnversioned(range.location)) range.location = nowhere;
        const bool continues = !result.empty() && result.back().end() == range.offset &&
                               connected(result.back(), range);
        if (continues) {
            result.back().len += range.len;
        } else {
            result.push_back(range);
        }
    }
    return result;
}

std::vector<Range> clipped(std::vector<Range> ranges, const Range& window) {
    for (Range& range : ranges) range = part(range, window.offset, window.end());
    return ranges;
}

void requireSame(const std::vector<Range>& ours, const std::vector<Range>& theirs,
                 const std::string& where) {
    const auto [our, their] = std::mismatch(ours.begin(), ours.end(), theirs.begin(), theirs.end());
    if (our == ours.end() && their == theirs.end()) return;
    throw std::runtime_error(
        "the maps differ " + where + ": " + (our == ours.end() ? "nothing" : textOf(*our)) +
        " in the skip list, " + (their == theirs.end() ? "nothing" : textOf(*their)));
}

struct Answer {
    std::vector<Range> seen;
    bool moved = false;
};

template <typename Map>
Answer answerOf(Map& map, const Operation& operation) {
    const Range& range = operation.range;
    switch (operation.kind) {
        case Operation::Kind::insert:
            map.insert(range);
            return {};
        case Operation::Kind::walk:
            return {rangesOf(map, range.offset, range.len)};
        case Operation::Kind::compareAndSet:
            return {{}, map.compareAndSet(range, operation.expected)};
    }
    return {};
}

// A rival beside the library's map.
template <typename Map>
class Rival {
  public:
    void compareAnswer(const Operation& operation, const Answer& ours) {
        const Answer theirs = answerOf(map, operation);
        if (operation.kind == Operation::Kind::insert) return;
        const Range& window = operation.range;
        const std::string where = inRival + "over " + textOf(window);
        if (ours.moved != theirs.moved) throw std::runtime_error("the results differ " + where);
        if (storesTheSame) {
            requireSame(ours.seen, theirs.seen, where);
        } else {
            requireSame(joined(clipped(ours.seen, window)), joined(clipped(theirs.seen, window)),
                        where);
        }
    }

    void compareContents(const std::vector<Range>& ours) const {
        const std::vector<Range> theirs = rangesOf(map);
        if (storesTheSame) {
            requireSame(ours, theirs, inRival + "in the end");
        } else {
            requireSame(joined(ours), joined(theirs), inRival + "in the end");
        }
    }

  private:
    static constexpr bool storesTheSame = !std::is_same_v<Map, IclRangeMap>;

    const std::string inRival = std::string("from ") + Map::name + " ";
    Map map;
};

template <typename... Maps>
std::size_t compareAll(const Workload& workload) {
    LibraryMap skipList;
    std::tuple<Rival<Maps>...> rivals;
    for (const Operations* operations : {&workload.setUp, &workload.timed}) {
        for (const Operation& operation : *operations) {
            const Answer ours = answerOf(skipList, operation);
            std::apply([&](auto&... rival) { (rival.compareAnswer(operation, ours), ...); },
                       rivals);
        }
    }
    const std::vector<Range> ours = rangesOf(skipList);
    std::apply([&](auto&... rival) { (rival.compareContents(ours), ...); }, rivals);
    return ours.size();
}

}  // namespace

std::size_t compareRivals(const Workload& workload) {
    return compareAll<StdRangeMap, BtreeRangeMap, IclRangeMap>(workload);
}

std::size_t compareWithBuffers(const Workload& workload) {
    const std::size_t ranges = compareAll<BufferedLibraryMap>(workload);
    const StandInJvm& jvm = StandInJvm::ofThread();
    if (jvm.retained() != 0 || jvm.globalReferences() != 0) {
        throw std::runtime_error(std::to_string(jvm.retained()) + " slices and " +
                                 std::to_string(jvm.globalReferences()) + " references are left");
    }
    return ranges;
}
