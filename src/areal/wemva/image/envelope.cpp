#include "src/areal/wemva/image/envelope.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "src/areal/wemva/image/triang.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

namespace {

void divide(View<cf, 1> column, float by) {
    for (cf& z : column.flat()) z /= by;
}

}  // namespace

void owzphase(const Parms& par, View<float, 3> wgcig) {
    const std::ptrdiff_t n = wgcig.n[2];
    assert(std::ssize(par.kz.all) == n);
    const float c = std::cos(pi_f / 4.0f), s = std::sin(pi_f / 4.0f);
    std::vector<cf> phase;
    std::string listing;
    for (const float kz : par.kz.all) {
        const float root = std::sqrt(std::abs(kz));
        phase.push_back(std::exp(cf(c * root, s * root)));
        char text[64];
        std::snprintf(text, sizeof text, " (%.9g,%.9g)", static_cast<double>(phase.back().real()),
                      static_cast<double>(phase.back().imag()));
        listing += text;
    }
    if (!par.quiet) std::fprintf(stderr, "%s\n", listing.c_str());

    const LateralFft fft(static_cast<int>(n), FFTW_ESTIMATE);
    const float root_n = std::sqrt(static_cast<float>(n));
    Array<cf, 1> tfld({n}), spectrum({n});
    for (std::ptrdiff_t ish = 0; ish < wgcig.n[1]; ++ish) {
        for (std::ptrdiff_t ix = 0; ix < wgcig.n[0]; ++ix) {
            for (std::ptrdiff_t iz = 0; iz < n; ++iz) tfld(iz) = wgcig(ix, ish, iz);
            fft.forward.run(tfld.view(), spectrum);
            for (std::ptrdiff_t iz = 0; iz < n; ++iz)
                spectrum(iz) = spectrum(iz) / root_n * phase[static_cast<std::size_t>(iz)];
            fft.inverse.run(spectrum.view(), tfld);
            for (std::ptrdiff_t iz = 0; iz < n; ++iz) wgcig(ix, ish, iz) = -tfld(iz).real() / root_n;
        }
    }
}

void owenvelope(const Parms& par, View<float, 3> b_image) {
    const auto [nx, nh, n] = b_image.n;
    const std::ptrdiff_t n2 = n / 2;
    const LateralFft fft(static_cast<int>(n), FFTW_ESTIMATE);
    const float root_n = std::sqrt(static_cast<float>(n));
    Array<cf, 1> cdata({n}), spectrum({n});
    Array<float, 2> bot({n, nh});
    Array<float, 3> data(b_image.n);
    float a = 0.0f;
    for (std::ptrdiff_t i3 = 0; i3 < nx; ++i3) {
        for (std::ptrdiff_t i2 = 0; i2 < nh; ++i2) {
            for (std::ptrdiff_t iz = 0; iz < n; ++iz) cdata(iz) = b_image(i3, i2, iz);
            fft.forward.run(cdata.view(), spectrum);
            divide(spectrum, root_n);
            // the positive half alone: the analytic signal at half amplitude
            spectrum(0) *= 0.5f;
            spectrum(n2) *= 0.5f;
            for (std::ptrdiff_t iz = n2 + 1; iz < n; ++iz) spectrum(iz) = 0.0f;
            fft.inverse.run(spectrum.view(), cdata);
            divide(cdata, root_n);
            for (std::ptrdiff_t iz = 0; iz < n; ++iz) bot(iz, i2) = std::norm(cdata(iz));
        }
        triangle3(par.tc2, par.tc1, static_cast<int>(nh), static_cast<int>(n), bot.flat(), bot.flat());
        for (std::ptrdiff_t i2 = 0; i2 < nh; ++i2)
            for (std::ptrdiff_t iz = 0; iz < n; ++iz) {
                data(i3, i2, iz) = std::sqrt(bot(iz, i2) == 0.0f ? 1.0f : bot(iz, i2));
                a = std::max(a, data(i3, i2, iz));
            }
    }
    for (std::size_t i = 0; i < data.flat().size(); ++i) {
        const float sum = a + data.flat()[i];
        b_image.flat()[i] = sum * sum;
    }
}

}  // namespace morvane
