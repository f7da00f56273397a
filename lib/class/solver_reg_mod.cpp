#include "lib/class/solver_reg_mod.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>

#include "lib/base/fixed_format.h"
#include "lib/base/report.h"
#include "lib/class/chain_mod.h"

namespace morvane {

namespace {

constexpr bool forward = false, adjoint = true, fresh = false, keep = true;

float sum_of_squares(std::span<const float> a) {
    constexpr std::size_t lanes = 16;  // partial sums side by side in a SIMD register
    float part[lanes] = {};
    std::size_t i = 0;
    for (; i + lanes <= a.size(); i += lanes)
        for (std::size_t l = 0; l < lanes; ++l) part[l] += a[i + l] * a[i + l];
    float sum = 0.0f;
    for (; i < a.size(); ++i) sum += a[i] * a[i];
    for (const float p : part) sum += p;
    return sum;
}

/// A ratio cut to an integer; asterisks when it is none.
std::string whole(float ratio, int width) {
    if (!(std::abs(ratio) < 1e18f)) return std::string(static_cast<std::size_t>(width), '*');
    return column_int(static_cast<long long>(ratio), width);
}

/// One line per iteration on standard error; `scale` is set at the first.
void solver_report(int iter, std::span<const float> m, std::span<const float> g, std::span<const float> rd,
                   std::span<const float> rm, float& scale) {
    const float dd = sum_of_squares(rd), mm = sum_of_squares(rm);
    if (iter == 1) {
        scale = std::max(dd, mm);
        report({"DOT PRODUCT VALUES SCALED BY ", static_cast<double>(scale)});
    }
    const std::string line = "iteration " + column_int(iter, 4) + " res dat" + whole(dd / scale, 5) + " res mod" +
                             whole(mm / scale, 5) + " mod" + whole(sum_of_squares(m) / scale, 8) + "  grad" +
                             whole(sum_of_squares(g) / scale, 16);
    std::fprintf(stderr, "%s\n", line.c_str());
}

void scale_into(std::span<float> out, float factor, std::span<const float> in) {
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = factor * in[i];
}

}  // namespace

void solver_reg(std::span<float> m, std::span<const float> d, const LinOp& fop, const LinOp& aop,
                const Stepper& stepper, std::size_t naop, int niter, float eps1, const SolverReg& options) {
    const std::size_t nd = d.size();
    std::vector<float> rr(nd + naop), gg(nd + naop), g(m.size()), scaled(std::max(m.size(), naop)), through(nd);
    const std::span<float> rd(rr.data(), nd), rm(rr.data() + nd, naop);
    const std::span<float> gd(gg.data(), nd), gm(gg.data() + nd, naop);
    const std::span<float> eps_m(scaled.data(), m.size()), eps_r(scaled.data(), naop);
    const auto weighted_fop = [&](bool adj, bool add, std::span<float> x, std::span<float> y) {
        return options.wop ? chain20(options.wop, fop, adj, add, x, y, through) : fop(adj, add, x, y);
    };

    scale_into(rd, -1.0f, d);
    if (options.wop) {
        std::ranges::copy(rd, through.begin());
        options.wop(forward, fresh, through, rd);
    }
    std::ranges::copy(options.rm0, rm.begin());
    std::ranges::fill(m, 0.0f);
    if (!options.m0.empty()) {
        std::ranges::copy(options.m0, m.begin());
        weighted_fop(forward, keep, m, rd);
        scale_into(eps_m, eps1, options.m0);
        aop(forward, keep, eps_m, rm);
    }
    float report_scale = 0.0f;
    bool forget = true;
    for (int iter = 1; iter <= niter; ++iter) {
        weighted_fop(adjoint, fresh, g, rd);
        scale_into(eps_r, eps1, rm);
        aop(adjoint, keep, g, eps_r);
        if (options.jop) {
            assert(naop == g.size());
            std::ranges::copy(g, scaled.begin());
            options.jop(forward, fresh, eps_m, g);
        }
        weighted_fop(forward, fresh, g, gd);
        scale_into(eps_m, eps1, g);
        aop(forward, fresh, eps_m, gm);
        if (stepper(forget, m, g, rr, gg) == 1) break;
        if (options.mmov) options.mmov->emplace_back(m.begin(), m.end());
        if (options.rmov) options.rmov->push_back(rr);
        if (options.err) options.err->push_back(sum_of_squares(rd));
        if (options.verb) solver_report(iter, m, g, rd, rm, report_scale);
        forget = false;
    }
    if (options.resd) options.resd->assign(rd.begin(), rd.end());
    if (options.resm) options.resm->assign(rm.begin(), rm.end());
}

void solver_tiny(std::span<float> m, std::span<const float> d, const LinOp& fop, const Stepper& stepper, int niter,
                 std::span<const float> m0, std::vector<float>* resd) {
    std::vector<float> rr(d.size()), gg(d.size()), g(m.size());
    scale_into(rr, -1.0f, d);
    std::ranges::fill(m, 0.0f);
    if (!m0.empty()) {
        std::ranges::copy(m0, m.begin());
        fop(forward, keep, m, rr);
    }
    bool forget = true;
    for (int iter = 1; iter <= niter; ++iter) {
        fop(adjoint, fresh, g, rr);
        fop(forward, fresh, g, gg);
        if (stepper(forget, m, g, rr, gg) == 1) break;
        forget = false;
    }
    if (resd) *resd = rr;
}

}  // namespace morvane
