// Two's complement arithmetic that wraps around instead of overflowing.
//
// Ranges and file locations come unchecked from Java. Where such numbers do not fit, results wrap,
// as they would in Java, and nothing is undefined.
#pragma once

#include <type_traits>

namespace wrapping {

// Not deduced, so that the second operand widens to the type of the first.
template <typename Int>
Int add(Int a, std::type_identity_t<Int> b) {
    using Unsigned = std::make_unsigned_t<Int>;
    return static_cast<Int>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

template <typename Int>
Int subtract(Int a, std::type_identity_t<Int> b) {
    using Unsigned = std::make_unsigned_t<Int>;
    return static_cast<Int>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}

template <typename Int>
Int multiply(Int a, std::type_identity_t<Int> b) {
    using Unsigned = std::make_unsigned_t<Int>;
    return static_cast<Int>(static_cast<Unsigned>(a) * static_cast<Unsigned>(b));
}

}  // namespace wrapping
