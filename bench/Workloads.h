// The operations that the benchmarks time, generated from fixed seeds: the same in every run and
// for all competitors.
//
// A device has a number of pages of 4 KiB. What is written never fuses, but for fillSequentially.
#pragma once

#include "Operation.h"

// Where on the device: everywhere alike, or by Zipf's law with the exponent 0.99, the hot pages
// spread over the device.
enum class Spread { uniform, hotSpot };

// Every page once, in random order.
Operations fillRandomly(int pages);

// Every page once, each right behind the one before, on the device and in the log: all that lie in
// one file of the log fuse to one range.
Operations fillSequentially(int pages);

// Writes of 1 to 16 sectors, beginning at any sector: most cut what is there at both ends.
Operations overwrites(int pages, int count, Spread spread);

// As many walks, over places drawn in the same way: about two ranges each in a freshly filled map.
Operations walks(int pages, int count, Spread spread);

// Moves of random pages to other places, on a device filled by fillRandomly: what has been
// overwritten since stays where it is. One move in four expects the page where it never was.
Operations moves(int pages, int count);
