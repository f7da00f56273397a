#pragma once
#include <algorithm>
#include <cassert>
#include <cstddef>
#include <span>
#include <vector>

namespace morvane {

/// The k-th smallest element of a; 1 is the smallest. a must not be empty; k beyond either end takes that end.
inline float quantile(std::ptrdiff_t k, std::span<const float> a) {
    assert(!a.empty());
    std::vector<float> sorted(a.begin(), a.end());
    const auto kth = sorted.begin() + std::clamp<std::ptrdiff_t>(k, 1, std::ssize(a)) - 1;
    std::nth_element(sorted.begin(), kth, sorted.end());
    return *kth;
}

}  // namespace morvane
