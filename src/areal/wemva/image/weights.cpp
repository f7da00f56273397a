#include "src/areal/wemva/image/weights.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numeric>
#include <vector>

namespace morvane {

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

void owxwht(const Parms& par, bool adj, View<float, 3> wgcig, View<float, 3> ofcig) {
    assert(wgcig.n == ofcig.n);
    const View<const float, 3> input = adj ? ofcig : wgcig;
    const View<float, 3> output = adj ? wgcig : ofcig;
    std::ranges::copy(input.flat(), output.flat().begin());
    if (par.nxfilt < 1) return;
    const std::ptrdiff_t nx = input.n[0], nh = par.nxfilt / 2;
    const auto length = static_cast<float>(par.nxfilt);
    for (std::ptrdiff_t line = 0; line < input.size(); line += nx) {
        float* const temp = output.p + line;
        for (std::ptrdiff_t ix = nh; ix < nx - nh; ++ix)
            temp[ix] = std::accumulate(temp + ix - nh, temp + ix + nh + 1, 0.0f) / length;
    }
}

void owzwht(View<float, 3> wgcig) {
    const std::ptrdiff_t nz = wgcig.n[2];
    std::vector<float> temp(static_cast<std::size_t>(nz));
    for (std::ptrdiff_t ish = 0; ish < wgcig.n[1]; ++ish) {
        for (std::ptrdiff_t ix = 0; ix < wgcig.n[0]; ++ix) {
            for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
                temp[static_cast<std::size_t>(iz)] = std::abs(wgcig(ix, ish, iz));
            for (auto at = temp.begin() + std::min<std::ptrdiff_t>(4, nz); temp.end() - at > 4; ++at)
                *at = std::accumulate(at - 4, at + 5, 0.0f) / 9.0f;
            for (std::ptrdiff_t iz = 0; iz < nz; ++iz) wgcig(ix, ish, iz) *= temp[static_cast<std::size_t>(iz)];
        }
    }
}

void owzlinwht(const Parms& par, View<float, 3> wgcig) {
    for (std::ptrdiff_t iz = 0; iz < wgcig.n[2]; ++iz) {
        const float weight = std::pow(static_cast<float>(iz + 1), par.zwgt);
        for (float& sample : wgcig.slice(iz).flat()) sample *= weight;
    }
}

}  // namespace morvane
