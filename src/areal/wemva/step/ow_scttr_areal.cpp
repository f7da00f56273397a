#include "src/areal/wemva/step/ow_scttr_areal.h"

#include <algorithm>
#include <cmath>

namespace morvane {

namespace {

float power(float x, int n) {  // even n >= 0, by squares
    float result = 1.0f;
    for (float base = x; n > 0; n /= 2, base *= base) {
        if (n % 2) result *= base;
    }
    return result;
}

}  // namespace

void owscctr(const Parms& par, const LateralFft& fft, const std::array<float, 10>& series, int iw, int sign,
             View<cf, 1> ddws, View<const cf, 1> wv, View<const float, 1> vel, View<cf, 2> work) {
    const std::ptrdiff_t nx = ddws.n[0];
    const float w = par.rec.w.all[static_cast<std::size_t>(iw)];
    const auto side = static_cast<float>(sign);
    if (series[0] != 0.0f) {
        const float c = side * series[0];
        for (std::ptrdiff_t i = 0; i < nx; ++i) ddws.p[i] += c * wv.p[i];
    }
    const bool higher = std::any_of(series.begin() + 1, series.end(), [](float c) { return c != 0.0f; });
    if (higher) {
        const View<cf, 1> spectrum = work.slice(0), factor = work.slice(1), term = work.slice(2);
        fft.forward.run(wv, spectrum);
        for (std::size_t k = 1; k < series.size(); ++k) {
            if (series[k] == 0.0f) continue;
            const int j = static_cast<int>(2 * k);
            for (std::ptrdiff_t i = 0; i < nx; ++i) {
                factor.p[i] = spectrum.p[i] * (side * power(std::abs(par.kxm.all[static_cast<std::size_t>(i)]), j));
            }
            fft.inverse.run(factor, term);
            const float scale = series[k] / static_cast<float>(nx);
            for (std::ptrdiff_t i = 0; i < nx; ++i) ddws.p[i] += term.p[i] * (power(vel.p[i] / w, j) * scale);
        }
    }
    const float p = pi_f / 2.0f;
    const float sn = std::sin(p);
    const auto cs = static_cast<float>(std::cos(static_cast<double>(p)));
    const float a = par.img.z.d * w;
    const float ca = cs * a, sa = sn * a;
    float* const z = parts(ddws.p);
    for (std::ptrdiff_t i = 0; i < nx; ++i) {
        const float re = z[2 * i], im = z[2 * i + 1];
        z[2 * i] = ca * re - sa * im;
        z[2 * i + 1] = ca * im + sa * re;
    }
}

}  // namespace morvane
