#include "src/areal/wemva/image/depth_difference.h"

#include <algorithm>
#include <vector>

namespace morvane {

namespace {

/// level = (below - above) / 2, and `above` then holds what the level held.
void difference_level(std::span<const float> below, std::span<float> level, std::span<float> above) {
    for (std::size_t i = 0; i < level.size(); ++i) {
        const float old = level[i];
        level[i] = 0.5f * (below[i] - above[i]);
        above[i] = old;
    }
}

void clear_ends(View<float, 3> gathers) {
    for (const std::ptrdiff_t iz : {std::ptrdiff_t{0}, gathers.n[2] - 1})
        std::ranges::fill(gathers.slice(iz).flat(), 0.0f);
}

}  // namespace

void depth_difference(int times, View<float, 3> gathers) {
    std::vector<float> above;
    for (int pass = 0; pass < times; ++pass) {
        const auto top = gathers.slice(0).flat();
        above.assign(top.begin(), top.end());
        for (std::ptrdiff_t iz = 1; iz < gathers.n[2] - 1; ++iz)
            difference_level(gathers.slice(iz + 1).flat(), gathers.slice(iz).flat(), above);
        clear_ends(gathers);
    }
}

void depth_difference_transpose(int times, View<float, 3> gathers) {
    const std::ptrdiff_t nz = gathers.n[2];
    const std::vector<float> nothing(static_cast<std::size_t>(gathers.n[0] * gathers.n[1]));
    std::vector<float> above;
    for (int pass = 0; pass < times; ++pass) {
        clear_ends(gathers);
        above = nothing;
        for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
            const std::span<const float> below = iz + 1 < nz ? gathers.slice(iz + 1).flat() : std::span(nothing);
            difference_level(below, gathers.slice(iz).flat(), above);
            for (float& v : gathers.slice(iz).flat()) v = -v;
        }
    }
}

}  // namespace morvane
