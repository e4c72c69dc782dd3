#include "Workloads.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <optional>
#include <random>
#include <vector>

#include "SegmentLog.h"

namespace {

constexpr int pageSize = 4096;  // bytes
constexpr int sectorsPerPage = pageSize / sectorSize;
constexpr int longest = 2 * sectorsPerPage;  // sectors

Operation insertAt(long long offset, int len, const Location& location) {
    return {Operation::Kind::insert, {offset, len, location}};
}

Operations reserved(int count) {
    Operations operations;
    operations.reserve(static_cast<std::size_t>(count));
    return operations;
}

Operations fill(int pages, Location (SegmentLog::*place)(int)) {
    Operations operations = reserved(pages);
    SegmentLog log;
    for (int page = 0; page < pages; ++page) {
        operations.push_back(insertAt(static_cast<long long>(page) * pageSize, pageSize,
                                      std::invoke(place, log, pageSize)));
    }
    return operations;
}

using PageDistribution = std::discrete_distribution<int>;

PageDistribution hotSpot(int pages) {
    constexpr double exponent = 0.99;
    constexpr long long scatter = 2'654'435'761;  // a prime: each rank gets a page of its own
    std::vector<double> weights(static_cast<std::size_t>(pages));
    for (int rank = 0; rank < pages; ++rank) {
        const auto page = static_cast<std::size_t>(rank * scatter % pages);
        weights[page] = std::pow(rank + 1, -exponent);
    }
    return {weights.begin(), weights.end()};
}

// Ranges of 1 to `longest` sectors within a device.
class RandomRanges {
  public:
    RandomRanges(unsigned seed, int pages, Spread spread)
        : engine(seed), start(0, static_cast<long long>(pages) * sectorsPerPage - longest) {
        if (spread == Spread::hotSpot) hotPage = hotSpot(pages);
    }

    Range next() {
        const long long offset = sector() * sectorSize;
        return {offset, length(engine) * sectorSize, nowhere};
    }

  private:
    long long sector() {
        if (!hotPage) return start(engine);
        const long long page = (*hotPage)(engine);
        return std::min(page * sectorsPerPage + sectorOfPage(engine), start.max());
    }

    std::mt19937_64 engine;
    std::uniform_int_distribution<long long> start;  // sectors
    std::uniform_int_distribution<int> sectorOfPage{0, sectorsPerPage - 1};
    std::uniform_int_distribution<int> length{1, longest};
    std::optional<PageDistribution> hotPage;
};

}  // namespace

Operations fillRandomly(int pages) {
    Operations operations = fill(pages, &SegmentLog::appendApart);
    std::shuffle(operations.begin(), operations.end(), std::mt19937_64(1));
    return operations;
}

Operations fillSequentially(int pages) {
    return fill(pages, &SegmentLog::append);
}

Operations overwrites(int pages, int count, Spread spread) {
    Operations operations = reserved(count);
    SegmentLog log(1);
    RandomRanges ranges(2, pages, spread);
    for (int i = 0; i < count; ++i) {
        const Range range = ranges.next();
        operations.push_back(insertAt(range.offset, range.len, log.appendApart(range.len)));
    }
    return operations;
}

Operations walks(int pages, int count, Spread spread) {
    Operations operations = reserved(count);
    RandomRanges ranges(3, pages, spread);
    for (int i = 0; i < count; ++i) operations.push_back({Operation::Kind::walk, ranges.next()});
    return operations;
}

Operations moves(int pages, int count) {
    Operations stored = fill(pages, &SegmentLog::appendApart);
    Operations operations = reserved(count);
    SegmentLog log(2);
    std::mt19937_64 engine(4);
    std::uniform_int_distribution<std::size_t> page(0, stored.size() - 1);
    for (int i = 0; i < count; ++i) {
        Range& range = stored[page(engine)].range;
        Location expected = range.location;
        const Location moved = log.appendApart(range.len);
        const bool isStale = i % 4 == 0;
        if (isStale) expected.majorVer = 0;
        operations.push_back(
            {Operation::Kind::compareAndSet, {range.offset, range.len, moved}, expected});
        if (!isStale) range.location = moved;
    }
    return operations;
}
