// Reads a recorded block trace, gzip-compressed text with one request a line after lines of
// comments that begin with '#':
//
//   <microseconds> <R|W|D> <offset in bytes> <length in bytes>
#pragma once

#include <string>

#include "Operation.h"

// What a log-structured store does for the requests of the trace: a write is an insert at the next
// place of its log, a read is a walk, a discard is an insert of the empty location.
// Throws std::runtime_error, with file and line, if the trace cannot be read to its end.
Operations readTrace(const std::string& path);
