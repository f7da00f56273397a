#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <string>
#include <vector>

#include "src/areal/wemva/image/envelope.h"
#include "src/areal/wemva/image/triang.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

using cd = std::complex<double>;

Parms gather_parms(int nx, int nh, int nz) {
    Parms p;
    p.img.xm = {nx, 10, 0, {}};
    p.img.sh = {nh, 10, 0, {}};
    p.img.z = {nz, 5, 0, {}};
    p.nsecdim = nh;
    for (int i = 0; i < nz; ++i)
        p.kz.all.push_back(static_cast<float>(2 * std::numbers::pi * (i <= nz / 2 ? i : i - nz) / (nz * 5.0)));
    return p;
}

Array<float, 3> random_gather(const Parms& p) {
    Array<float, 3> image({p.img.xm.n, p.nsecdim, p.img.z.n});
    std::ranges::copy(random_vector<float>(image.flat().size(), 8), image.flat().begin());
    return image;
}

std::vector<cd> spectrum(const std::vector<cd>& x, int sign) {
    const std::size_t n = x.size();
    std::vector<cd> y(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t i = 0; i < n; ++i)
            y[k] += x[i] *
                    std::polar(1 / std::sqrt(static_cast<double>(n)),
                               sign * 2 * std::numbers::pi * static_cast<double>(k * i % n) / static_cast<double>(n));
    return y;
}

std::vector<cd> trace(View<const float, 3> image, int ix, int ih) {
    std::vector<cd> x;
    for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz) x.emplace_back(image(ix, ih, iz));
    return x;
}

void quietly(const auto& run) {
    testing::internal::CaptureStderr();
    run();
    testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(Owzphase, FiltersEachTraceInItsSpectrum) {
    for (const int nz : {1, 8, 15}) {
        SCOPED_TRACE(nz);
        const Parms p = gather_parms(3, 2, nz);
        const Array<float, 3> image = random_gather(p);
        Array<float, 3> out = image;
        quietly([&] { owzphase(p, out); });
        for (int ih = 0; ih < 2; ++ih)
            for (int ix = 0; ix < 3; ++ix) {
                std::vector<cd> s = spectrum(trace(image, ix, ih), -1);
                for (std::size_t k = 0; k < s.size(); ++k)
                    s[k] *= std::exp(std::polar(1.0, std::numbers::pi / 4) * std::sqrt(std::abs(double{p.kz.all[k]})));
                s = spectrum(s, +1);
                for (int iz = 0; iz < nz; ++iz)
                    EXPECT_NEAR(out(ix, ih, iz), -s[static_cast<std::size_t>(iz)].real(), 1e-5);
            }
    }
}

TEST(Owzphase, ListsItsFactors) {
    const Parms p = gather_parms(1, 1, 1);
    Array<float, 3> image({1, 1, 1});
    testing::internal::CaptureStderr();
    owzphase(p, image);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), " (1,0)\n");
}

TEST(Owenvelope, AgreesWithTheDirectEvaluation) {
    for (const int nz : {16, 21}) {
        SCOPED_TRACE(nz);
        Parms p = gather_parms(3, 5, nz);
        p.tc1 = 7;
        p.tc2 = 3;
        const Array<float, 3> image = random_gather(p);
        Array<float, 3> out = image;
        owenvelope(p, out);
        const auto n2 = static_cast<std::size_t>(nz / 2);
        std::vector<float> envelope;  // midpoint slowest, then offset, depth fastest
        for (int ix = 0; ix < 3; ++ix) {
            std::vector<float> panel;
            for (int ih = 0; ih < 5; ++ih) {
                std::vector<cd> s = spectrum(trace(image, ix, ih), -1);
                s[0] *= 0.5;
                s[n2] *= 0.5;
                std::fill(s.begin() + static_cast<std::ptrdiff_t>(n2) + 1, s.end(), cd(0));
                for (const cd& z : spectrum(s, +1)) panel.push_back(static_cast<float>(std::norm(z)));
            }
            triangle3(3, 7, 5, nz, panel, panel);  // 5 samples taken for the fast axis
            for (const float v : panel) envelope.push_back(std::sqrt(v));
        }
        const float a = *std::ranges::max_element(envelope);
        for (int ix = 0; ix < 3; ++ix)
            for (int ih = 0; ih < 5; ++ih)
                for (int iz = 0; iz < nz; ++iz) {
                    const float e = a + envelope[static_cast<std::size_t>((ix * 5 + ih) * nz + iz)];
                    EXPECT_NEAR(out(ix, ih, iz), e * e, 1e-4);
                }
    }
}

TEST(Owenvelope, AnEmptyImageBecomesFour) {
    const Parms p = gather_parms(2, 3, 8);
    Array<float, 3> image({2, 3, 8});
    owenvelope(p, image);
    for (const float v : image.flat()) EXPECT_EQ(v, 4.0f);
}
