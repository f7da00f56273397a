#include "lib/class/cgstep_mod.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

/// What a step needs to know of the residual rr, its change gg along the gradient and the last step ss, in double
/// precision; in one pass, by partial sums that SIMD registers hold side by side.
struct Products {
    double gdg = 0.0, sds = 0.0, gds = 0.0, gdr = 0.0, sdr = 0.0;
    Products(std::span<const float> gg, std::span<const float> ss, std::span<const float> rr) {
        constexpr std::size_t lanes = 8;
        double part[5][lanes] = {};
        std::size_t i = 0;
        for (; i + lanes <= gg.size(); i += lanes)
            for (std::size_t l = 0; l < lanes; ++l) {
                const double g = gg[i + l], s = ss[i + l], r = rr[i + l];
                part[0][l] += g * g;
                part[1][l] += s * s;
                part[2][l] += g * s;
                part[3][l] += g * r;
                part[4][l] += s * r;
            }
        for (std::size_t l = 0; l < lanes; ++l) {
            gdg += part[0][l];
            sds += part[1][l];
            gds += part[2][l];
            gdr += part[3][l];
            sdr += part[4][l];
        }
        for (; i < gg.size(); ++i) {
            const double g = gg[i], s = ss[i], r = rr[i];
            gdg += g * g;
            sds += s * s;
            gds += g * s;
            gdr += g * r;
            sdr += s * r;
        }
    }
};

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
    }
    const auto [gdg, sds, gds, gr, sr] = Products(gg, state.ss, rr);
    if (forget) {
        if (gdg <= 0.0) qas::erexit("cgstep: grad vanishes identically");
        beta = 0.0;
        alfa = -gr / gdg;
    } else {
        if (gdg == 0.0 || sds == 0.0) return 1;
        const double determ = gdg * sds * std::max(1.0 - (gds / gdg) * (gds / sds), 1e-12);
        const double gdr = -gr, sdr = -sr;
        alfa = (sds * gdr - gds * sdr) / determ;
        beta = (gdg * sdr - gds * gdr) / determ;
    }
    advance(alfa, g, beta, state.s, x);
    advance(alfa, gg, beta, state.ss, rr);
    forget = false;
    return 0;
}

}  // namespace morvane
