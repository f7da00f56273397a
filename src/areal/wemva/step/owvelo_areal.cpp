#include "src/areal/wemva/step/owvelo_areal.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace morvane {

namespace {

References mean_reference(std::span<const float> vel, int n) {
    const float mean = std::accumulate(vel.begin(), vel.end(), 0.0f) / static_cast<float>(n);
    return {{mean}, mean, mean};
}

float largest_below(std::span<const float> vel, float vsal) {
    float largest = -std::numeric_limits<float>::max();
    for (const float v : vel) {
        if (v < vsal) largest = std::max(largest, v);
    }
    return largest;
}

void divide(References& refs, int count, int intervals) {
    const float dvel = intervals > 0 ? (refs.maxv - refs.minv) / static_cast<float>(intervals) : 0.0f;
    for (int i = 0; i < count; ++i) refs.vref[static_cast<std::size_t>(i)] = static_cast<float>(i) * dvel + refs.minv;
}

}  // namespace

References owvref(const Parms& par, std::span<const float> vel) {
    const int nref = par.nref;
    if (nref == 1) return mean_reference(vel, par.kxm.n);
    const auto [lowest, highest] = std::minmax_element(vel.begin(), vel.end());
    References refs{std::vector<float>(static_cast<std::size_t>(nref)), *lowest, *highest};
    if (*highest < par.vsal) {
        divide(refs, nref, nref - 1);
    } else {
        refs.maxv = largest_below(vel, par.vsal);
        divide(refs, nref - 1, nref - 2);
        refs.vref.back() = *highest;
    }
    return refs;
}

References owvref1(int nref, float vsal, std::span<const float> vel) {
    if (nref == 1) return mean_reference(vel, static_cast<int>(vel.size()));
    const auto [lowest, highest] = std::minmax_element(vel.begin(), vel.end());
    References refs{std::vector<float>(static_cast<std::size_t>(nref)), *lowest, *highest};
    if (*highest >= vsal) refs.maxv = largest_below(vel, vsal);
    divide(refs, nref, nref - 1);
    return refs;
}

}  // namespace morvane
