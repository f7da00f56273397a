#include "src/areal/wemva/step/pspi_level.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "src/areal/wemva/step/owvelo_areal.h"

namespace morvane {

namespace {

/// Position of the sample's field among the references and the share of the next one.
struct Mix {
    int iref;
    float share;
    float slope;  // derivative of the share with respect to slowness
};

/// The largest reference whose integer part lies below that of `chosen_at`, blended with the next by the distance of v
/// relative to v, less its whole part.
Mix blend(const std::vector<float>& vref, float chosen_at, float v) {
    const int n = static_cast<int>(vref.size());
    int below = -1;
    for (int j = 0; j < n; ++j) {
        const auto c = vref[static_cast<std::size_t>(j)];
        if (std::trunc(c) < std::trunc(chosen_at) && (below < 0 || c > vref[static_cast<std::size_t>(below)]))
            below = j;
    }
    if (below < 0) return {0, 0.0f, 0.0f};
    if (below >= n - 2) return {n - 1, 0.0f, 0.0f};
    const float c = vref[static_cast<std::size_t>(below)];
    if (v < c) return {below, 0.0f, 0.0f};  // a model that has moved away: no weight leaves [0, 1]
    // Below a fast body alone c is hugely negative, and so the distance a great whole number, or not even that.
    const float distance = (v - c) / v, whole = std::trunc(distance);
    if (std::isinf(distance)) return {below, 0.0f, 0.0f};
    return {below, distance - whole, whole == 0.0f ? -c : 0.0f};
}

/// The region of velocity v, or -1 for a tie with the first bound, which belongs to no region.
int region(View<const float, 2> vref1, int nregion, float v) {
    if (v > 1.0f / vref1(0, 1)) return 0;
    for (int i = nregion - 1; i >= 1; --i) {
        if (v >= 1.0f / vref1(i, 1) && v < 1.0f / vref1(i - 1, 1)) return i;
    }
    return -1;
}

/// @param start the slowness by which samples choose among the references, if those are given; empty: they are not
void fill_level(std::span<const float> vel, View<const float, 2> vref1, bool regions, std::span<const float> start,
                MediumLevel& level) {
    const bool given = !start.empty();
    const auto nx = static_cast<std::ptrdiff_t>(vel.size());
    const auto nref = static_cast<std::ptrdiff_t>(level.vref.size());
    level.sdiff = Array<float, 2>({nx, nref});
    for (std::ptrdiff_t k = 0; k < nref; ++k) {
        const float sref = 1.0f / level.vref[static_cast<std::size_t>(k)];
        for (std::ptrdiff_t i = 0; i < nx; ++i) level.sdiff(i, k) = vel[static_cast<std::size_t>(i)] - sref;
    }
    level.untouched.clear();
    level.dweight = Array<float, 2>();
    level.weight = Array<float, 2>();
    if (nref == 1) return;
    level.weight = Array<float, 2>({nx, nref});
    if (!regions && given) level.dweight = Array<float, 2>({nx, nref});
    for (std::ptrdiff_t i = 0; i < nx; ++i) {
        const float v = 1.0f / vel[static_cast<std::size_t>(i)];
        const float chosen_at = given ? 1.0f / start[static_cast<std::size_t>(i)] : v;
        if (regions) {
            int at = region(vref1, static_cast<int>(nref), chosen_at);
            if (at < 0 && given) at = 1;
            if (at < 0) {
                level.untouched.push_back(static_cast<int>(i));
            } else {
                level.weight(i, at) = 1.0f;
            }
        } else {
            const Mix mix = blend(level.vref, chosen_at, v);
            level.weight(i, mix.iref) = 1.0f - mix.share;
            if (mix.iref + 1 < nref) {
                level.weight(i, mix.iref + 1) = mix.share;
                if (!given) continue;
                level.dweight(i, mix.iref) = -mix.slope;
                level.dweight(i, mix.iref + 1) = mix.slope;
            }
        }
    }
}

}  // namespace

void pspi_level(const Parms& par, std::span<const float> vel, View<const float, 2> vref1, MediumLevel& level) {
    const bool regions = vref1.p != nullptr;
    level.vref.clear();
    if (regions) {
        for (std::ptrdiff_t i = 0; i < vref1.n[0]; ++i) {
            if (vref1(i, 0) != -1.0f) level.vref.push_back(1.0f / vref1(i, 0));
        }
    } else {
        std::vector<float> v(vel.size());
        std::transform(vel.begin(), vel.end(), v.begin(), [](float s) { return 1.0f / s; });
        References refs = owvref(par, v);
        if (std::trunc(refs.minv) == std::trunc(refs.maxv)) {
            level.vref = {refs.maxv};
        } else {
            level.vref = std::move(refs.vref);
        }
    }
    fill_level(vel, vref1, regions, {}, level);
}

void pspi_level_given(std::span<const float> vel, View<const float, 2> vref1, const std::vector<float>& vref,
                      std::span<const float> start, MediumLevel& level) {
    level.vref = vref;
    fill_level(vel, vref1, vref1.p != nullptr, start, level);
}

}  // namespace morvane
