#include "Workloads.h"

#include <algorithm>
#include <random>

#include "SegmentLog.h"

namespace {

constexpr int pageSize = 4096;  // bytes
constexpr int sectorsPerPage = pageSize / sectorSize;
constexpr int longest = 2 * sectorsPerPage;  // sectors

Operation insertAt(long long offset, int len, const Location& location) {
    return {Operation::Kind::insert, {offset, len, location}};
}

// Ranges of 1 to `longest` sectors within the first `pages` pages of the device.
class RandomRanges {
  public:
    RandomRanges(unsigned seed, int pages)
        : engine(seed), start(0, static_cast<long long>(pages) * sectorsPerPage - longest) {}

    Range next() {
        const long long offset = start(engine) * sectorSize;
        return {offset, length(engine) * sectorSize, nowhere};
    }

  private:
    std::mt19937_64 engine;
    std::uniform_int_distribution<long long> start;  // sectors
    std::uniform_int_distribution<int> length{1, longest};
};

}  // namespace

Operations fillRandomly(int count) {
    Operations operations;
    operations.reserve(static_cast<std::size_t>(count));
    SegmentLog log;
    for (int i = 0; i < count; ++i) {
        operations.push_back(
            insertAt(static_cast<long long>(i) * pageSize, pageSize, log.appendApart(pageSize)));
    }
    std::shuffle(operations.begin(), operations.end(), std::mt19937_64(1));
    return operations;
}

Operations fillSequentially(int count) {
    Operations operations;
    operations.reserve(static_cast<std::size_t>(count));
    SegmentLog log;
    for (int i = 0; i < count; ++i) {
        operations.push_back(
            insertAt(static_cast<long long>(i) * pageSize, pageSize, log.append(pageSize)));
    }
    return operations;
}

Operations overwriteRandomly(int count) {
    Operations operations;
    operations.reserve(static_cast<std::size_t>(count));
    SegmentLog log;
    RandomRanges ranges(2, count);
    for (int i = 0; i < count; ++i) {
        Range range = ranges.next();
        range.location = log.appendApart(range.len);
        operations.push_back({Operation::Kind::insert, range});
    }
    return operations;
}

Operations walkRandomly(int count) {
    Operations operations;
    operations.reserve(static_cast<std::size_t>(count));
    RandomRanges ranges(3, count);
    for (int i = 0; i < count; ++i) operations.push_back({Operation::Kind::walk, ranges.next()});
    return operations;
}
