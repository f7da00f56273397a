#pragma once
/// Slow direct evaluation of one depth step, in double precision, term by term as the relations are written.
#include <complex>
#include <numbers>
#include <optional>
#include <vector>

#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ffd_stage.h"
#include "src/areal/wemva/step/ow_ffd_areal.h"

namespace morvane {

using cd = std::complex<double>;

/// Phase shift at velocity c and thin-lens term, by direct Fourier sums.
inline std::vector<cd> direct_shift(const Parms& par, double w, int sign, const std::vector<cd>& field,
                                    const std::vector<double>& s, double c) {
    const std::size_t n = field.size();
    const double dz = par.v.z.d;
    std::vector<cd> out(n);
    for (std::size_t k = 0; k < n; ++k) {
        const double kx = par.kxm.all[k];
        const double kz2 = (w / c) * (w / c) - kx * kx;
        if (kz2 < 0) continue;
        cd spectrum = 0;
        const double turn = -2.0 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(n);
        for (std::size_t x = 0; x < n; ++x) spectrum += field[x] * std::polar(1.0, turn * static_cast<double>(x));
        spectrum *= std::polar(1.0 / static_cast<double>(n), sign * dz * std::sqrt(kz2));
        for (std::size_t x = 0; x < n; ++x) out[x] += spectrum * std::polar(1.0, -turn * static_cast<double>(x));
    }
    for (std::size_t x = 0; x < n; ++x) out[x] *= std::polar(1.0, sign * dz * w * (s[x] - 1.0 / c));
    return out;
}

/// One finite-difference stage: M u = conj(M) f by elimination, coefficients as printed in the header of ow_ffd_areal.
inline std::vector<cd> direct_stage(const Parms& par, double w, int sign, double alph, double beta,
                                    const std::vector<cd>& f, const std::vector<double>& s, double c) {
    const std::size_t n = f.size();
    const double dh = par.img.xm.d, dz = par.img.z.d;
    std::vector<cd> a(n), b(n), r(n), u(n), gam(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double v = 1.0 / s[i], wov = w / v, rov = c / v;
        const cd aah(0.0, sign * alph * dz * 2 * 0.25 / wov / dh / dh * (1 - rov));
        const double bbh = (rov * rov + 1 + rov) * (beta / dh / dh / wov / wov) + par.trick;
        a[i] = bbh - aah;
        b[i] = 1.0 - 2.0 * a[i];
    }
    for (std::size_t i = 0; i < n; ++i) {
        r[i] = std::conj(b[i]) * f[i];
        if (i > 0) r[i] += std::conj(a[i]) * f[i - 1];
        if (i + 1 < n) r[i] += std::conj(a[i]) * f[i + 1];
    }
    cd bet = b[0];
    u[0] = r[0] / bet;
    for (std::size_t j = 1; j < n; ++j) {
        gam[j] = a[j - 1] / bet;
        bet = b[j] - a[j] * gam[j];
        u[j] = (r[j] - a[j] * u[j - 1]) / bet;
    }
    for (std::size_t j = n - 1; j-- > 0;) u[j] -= gam[j + 1] * u[j + 1];
    return u;
}

inline std::vector<cd> direct_ffd(const Parms& par, double w, int sign, const std::vector<cd>& field,
                                  const std::vector<double>& s, std::optional<double> reference = {}) {
    double c = 1e30;
    for (const double slow : s) c = std::min(c, 1.0 / slow);
    if (reference) c = *reference;
    std::vector<cd> out = direct_shift(par, w, sign, field, s, c);
    const FfdStages stages = ifd_coeffts(par.dipop);
    for (std::size_t i = 0; i < static_cast<std::size_t>(stages.nstage); ++i) {
        out = direct_stage(par, w, sign, stages.alph[i], stages.beta[i], out, s, c);
    }
    return out;
}

inline std::vector<cd> widen(std::span<const cf> field) {
    return {field.begin(), field.end()};
}
inline std::vector<double> widen(std::span<const float> s) {
    return {s.begin(), s.end()};
}
inline std::vector<cf> narrow(const std::vector<cd>& field) {
    std::vector<cf> out;
    for (const cd& z : field) out.emplace_back(static_cast<float>(z.real()), static_cast<float>(z.imag()));
    return out;
}

}  // namespace morvane
