#include "lib/class/cgstep_mod.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "lib/corelibs/qas/qaserr.h"

namespace {

/// In partial sums that a SIMD register holds side by side.
double dot(std::span<const float> a, std::span<const float> b) {
    constexpr std::size_t lanes = 16;
    double part[lanes] = {};
    std::size_t i = 0;
    for (; i + lanes <= a.size(); i += lanes)
        for (std::size_t l = 0; l < lanes; ++l)
            part[l] += static_cast<double>(a[i + l]) * static_cast<double>(b[i + l]);
    double sum = 0.0;
    for (; i < a.size(); ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
    for (const double p : part) sum += p;
    return sum;
}

/// step = alfa direction + beta step; at += step
void advance(double alfa, std::span<const float> direction, double beta, std::span<float> step, std::span<float> at) {
    for (std::size_t i = 0; i < at.size(); ++i) {
        step[i] = static_cast<float>(alfa * static_cast<double>(direction[i]) + beta * static_cast<double>(step[i]));
        at[i] += step[i];
    }
}

}  // namespace

int cgstep(CgState& state, bool& forget, std::span<float> x, std::span<const float> g, std::span<float> rr,
           std::span<const float> gg) {
    assert(x.size() == g.size() && rr.size() == gg.size());
    if (state.s.empty()) {
        state.s.resize(x.size());
        state.ss.resize(rr.size());
        forget = true;
    }
    double alfa, beta;
    if (forget) {
        std::ranges::fill(state.s, 0.0f);
        std::ranges::fill(state.ss, 0.0f);
        beta = 0.0;
        alfa = dot(gg, gg);
        if (alfa <= 0.0) qas::erexit("cgstep: grad vanishes identically");
        alfa = -dot(gg, rr) / alfa;
    } else {
        const double gdg = dot(gg, gg), sds = dot(state.ss, state.ss), gds = dot(gg, state.ss);
        if (gdg == 0.0 || sds == 0.0) return 1;
        const double determ = gdg * sds * std::max(1.0 - (gds / gdg) * (gds / sds), 1e-12);
        const double gdr = -dot(gg, rr), sdr = -dot(state.ss, rr);
        alfa = (sds * gdr - gds * sdr) / determ;
        beta = (gdg * sdr - gds * gdr) / determ;
    }
    advance(alfa, g, beta, state.s, x);
    advance(alfa, gg, beta, state.ss, rr);
    forget = false;
    return 0;
}
