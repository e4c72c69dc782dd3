// The operations that the benchmarks time, generated from fixed seeds: the same in every run and
// for both competitors.
#pragma once

#include "Operation.h"

// `count` ranges of 4 KiB side by side, in random order, of which no two can be fused.
Operations fillRandomly(int count);

// `count` writes of 4 KiB, each right behind the one before, on the device and in the log: all
// that lie in one file of the log fuse to one range.
Operations fillSequentially(int count);

// `count` writes of 1 to 16 sectors at random sectors of a device of `count` ranges: most cut what
// is there at both ends.
Operations overwriteRandomly(int count);

// As many walks, over places drawn in the same way: about two ranges each in a freshly filled map.
Operations walkRandomly(int count);
