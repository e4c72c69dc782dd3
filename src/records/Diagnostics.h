// The one way onto the standard error stream: a text, or a format and its parts, flushed at once.
#pragma once

#include <cstdio>

template <typename... Parts>
void writeDiagnostic(const char* format, Parts... parts) noexcept {
    std::fprintf(stderr, format, parts...);
    std::fflush(stderr);
}
