/// Weights on image gathers.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

#include "src/areal/wemva/ow_wei_areal.h"

void owdso(const Parms& par, bool /*adj*/, View<float, 3> wgcig, std::span<const float> pick) {
    const auto [nx, nh, nz] = wgcig.n;
    assert(nh == par.nsecdim && (pick.empty() || std::ssize(pick) == nx));
    std::vector<float> h(static_cast<std::size_t>(nh));
    for (std::size_t ish = 0; ish < h.size(); ++ish) h[ish] = static_cast<float>(ish) * par.dsecdim + par.osecdim;
    const float m = *std::ranges::max_element(h);
    for (float& weight : h) weight = std::pow(std::abs(weight / m), par.expdso);

    for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
        const float depth = par.img.z.o + static_cast<float>(iz) * par.img.z.d;
        for (std::ptrdiff_t ish = 0; ish < nh; ++ish) {
            const float weight = h[static_cast<std::size_t>(ish)];
            float* const line = wgcig.slice(iz).slice(ish).p;
            for (std::ptrdiff_t ix = 0; ix < nx; ++ix) line[ix] *= weight;
            if (pick.empty()) continue;
            for (std::ptrdiff_t ix = 0; ix < nx; ++ix)
                line[ix] = pick[static_cast<std::size_t>(ix)] >= depth ? 0.0f : line[ix];
        }
    }
}
