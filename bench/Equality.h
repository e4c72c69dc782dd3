// Whether all maps do what the library's does, before any time is taken.
#pragma once

#include "Operation.h"

// What a case does to a map: the first part prepares it, the second one is timed.
struct Workload {
    Operations setUp;
    Operations timed;
};

// Do the workload to the library's map and to each rival; return how many ranges the former holds
// in the end. They throw std::runtime_error, with the first difference, if a walk sees something
// else, a conditional operation has another result, or the maps differ in the end.
//
// The trees must store the very same ranges. The ready-made map joins empty ranges differently, so
// of that each byte must have the same location.
std::size_t compareRivals(const Workload& workload);

// The rival is the library's map with a buffer for each range. In the end, without the map, every
// buffer must have been given back.
std::size_t compareWithBuffers(const Workload& workload);
