#include "IclRangeMap.h"

void IclRangeMap::insert(const Range& range) {
    tree.set({Interval(range.offset, range.end()), originOf(range)});
}
