#pragma once
/// Indices are signed, containers count in std::size_t.
#include <cassert>
#include <concepts>
#include <cstddef>

namespace morvane {

/// An index or a count that is not negative, as containers take it.
constexpr std::size_t at(std::signed_integral auto i) {
    assert(i >= 0);
    return static_cast<std::size_t>(i);
}

}  // namespace morvane
