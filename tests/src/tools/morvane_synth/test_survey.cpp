#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "src/tools/morvane_synth/survey.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

using cd = std::complex<double>;
constexpr double pi = std::numbers::pi;

Geometry line(bool areal = false) {
    Geometry g;
    g.areal = areal;
    g.shot = {4, 60.0f, 500.0f, {}};
    g.trace = areal ? Axis{118, 10.0f, 0.0f, {}} : Axis{100, 10.0f, -500.0f, {}};
    return g;
}

Acquisition band(int n, float d, float o) {
    Acquisition a;
    a.freq = {n, d, o, {}};
    a.delay = 1.5f / a.fpeak;
    return a;
}

double frequency(const Acquisition& a, int k) {
    return a.freq.o + k * double(a.freq.d);
}

/// A field along the surface carried down a constant medium to depth z at distance x from its middle, by wavenumbers.
cd carried_down(const std::vector<cd>& surface, double dx, double k, double x, double z) {
    const int n = static_cast<int>(surface.size()), period = 8 * n;
    cd sum = 0;
    for (int m = -period / 2; m < period / 2; ++m) {
        const double kx = 2 * pi * m / (period * dx);
        if (std::abs(kx) >= k) continue;
        cd wave = 0;
        for (int i = 0; i < n; ++i) wave += surface[i] * std::polar(1.0, -kx * (i - n / 2) * dx);
        sum += wave * std::polar(1.0 / period, kx * x + z * std::sqrt(k * k - kx * kx));
    }
    return sum;
}

}  // namespace

TEST(Geometry, ImageAxisIsTheOneThatMorvaneForms) {
    EXPECT_EQ(line().image().n, 100 + 2 * 30 + 18);
    EXPECT_EQ(line().image().o, 500 - 500 - 300);
    EXPECT_EQ(line(true).image().n, 118 + 60);
    EXPECT_EQ(line(true).image().o, -300);
    EXPECT_EQ(line().columns(), 160);
    for (const bool fixed : {false, true}) EXPECT_EQ(refusal([&] { check_geometry(line(fixed)); }), "accepted");
}

TEST(Geometry, PaddingAvoidsLargePrimes) {
    EXPECT_EQ(good_padding(300, 20, 10), 10);  // 360 = 2^3 3^2 5
    EXPECT_EQ(good_padding(300, 20, 11),
              19);  // 378 = 2 3^3 7; between: 2 181, 4 7 13, 6 61, 16 23, 10 37, 12 31, 2 11 17, 8 47
    EXPECT_EQ(good_padding(343, 0, 0), 0);  // 7^3
}

TEST(Wavelet, BandFactorFlattensAboveTheWaterLevelAndTapersBothEnds) {
    Acquisition a = band(5, 2.0f, 4.0f);
    const std::vector<cd> spectrum{0.1, 1.0, cd(0, 4), 2.0, 0.4};
    a.amplitude = 3;
    EXPECT_THAT(band_factor(a, spectrum), testing::Each(testing::DoubleEq(0.75)));  // plain: scaled to the peak
    a.whiten = 0.25f;
    EXPECT_THAT(band_factor(a, spectrum), testing::Pointwise(testing::DoubleNear(1e-9), {3.0, 3.0, 0.75, 1.5, 3.0}));
    a.band_taper = 4.0f;  // the first sample lies half inside the taper: sin(45 degrees), squared in the image
    const double s = std::sqrt(0.5);
    EXPECT_THAT(band_factor(a, spectrum),
                testing::Pointwise(testing::DoubleNear(1e-9), {3 * s, 3.0, 0.75, 1.5, 3 * s}));
}

// A constant velocity of 2000 and 30 degrees: offset = 2 z tan 30 and t = 2 z / (2000 cos 30), so offset = 1000 t.
TEST(TraceGate, MutesBeyondTheAngleAndBeforeTheDirectWave) {
    Acquisition a = band(5, 2.0f, 4.0f);
    a.delay = 0.1f;
    a.tmax = 2.0f;
    a.angle = 30.0f;
    a.angle_taper = 200.0f;
    const std::vector<float> offsets{-900, -400, 0, 350, 500, 590, 1100}, column(150, 1.0f / 2000);
    const Array<float, 2> gate = trace_gate(a, offsets, column, 10.0f, 0.01f, 200);
    const auto at = [&](int i, double t) { return gate(i, static_cast<int>(std::lround(t / 0.01))); };
    EXPECT_NEAR(at(1, 0.5), 1.0, 1e-5);  // 400 after 0.4 s: on the limit
    EXPECT_NEAR(at(3, 0.5), 1.0, 1e-5);
    EXPECT_NEAR(at(4, 0.5), 0.5, 1e-4);  // half-way into the taper
    EXPECT_NEAR(at(5, 0.5), 0.5 * (1 + std::cos(0.95 * pi)), 1e-4);
    EXPECT_EQ(at(0, 0.5), 0.0f);
    EXPECT_NEAR(at(6, 1.2), 1.0, 1e-5);
    EXPECT_EQ(at(2, 0.05), 1.0f);
    EXPECT_EQ(at(3, 0.05), 0.0f);
    EXPECT_NEAR(gate(2, 199), 0.5 * (1 + std::cos(pi * (1 - 0.01 * 17 / 2))), 1e-4);  // the end of the record

    a.angle = 0.0f;
    a.direct = Direct::mute;
    const Array<float, 2> mute = trace_gate(a, offsets, column, 10.0f, 0.01f, 200);
    const double passed = 0.1 + 1100.0 / 2000 + 1.0 / 17;  // and half a period more to set in
    EXPECT_EQ(mute(6, static_cast<int>(passed / 0.01)), 0.0f);
    EXPECT_EQ(mute(6, static_cast<int>((passed + 0.5 / 17) / 0.01) + 1), 1.0f);
    EXPECT_EQ(mute(2, 0), 0.0f);
}

// Straight rays at 45 degrees through two velocities: at the depth of 200 the vertical time is 0.05 + 0.1, the offset
// 400.
TEST(TraceGate, FollowsTheAverageVelocityOfTheColumn) {
    Acquisition a = band(5, 2.0f, 4.0f);
    a.angle = 45.0f;
    a.angle_taper = 0.0f;
    a.tmax = 10.0f;
    std::vector<float> column(60, 1.0f / 1000);
    std::fill_n(column.begin(), 10, 1.0f / 2000);
    const double t = a.delay + 2 * 0.15 * std::sqrt(2.0);
    const float dt = static_cast<float>(t / 100);
    const Array<float, 2> gate = trace_gate(a, {390.0f, 410.0f}, column, 10.0f, dt, 101);
    EXPECT_EQ(gate(0, 100), 1.0f);
    EXPECT_EQ(gate(1, 100), 0.0f);
}

// What morvane's extrapolation makes of the source data, against the field i/4 H0(kr) of a line source. The source
// function lacks the factor 1 / cos(angle), the field along the surface does not.
TEST(SourceData, CarriedDownItIsTheDowngoingField) {
    const Acquisition a = band(3, 6.0f, 12.0f);
    const std::vector<cd> spectrum{cd(1, 0.5), cd(0.2, -0.8), cd(-1, 0.3)};
    const std::vector<double> factor{1.0, 2.0, 0.5};
    const double v = 2000, dx = 10;
    const int n = 240;
    const std::vector<cf> function = source_function(a, spectrum, factor, float(v), float(dx));
    const Array<cf, 2> field = source_field(a, spectrum, factor, float(v), float(dx), n);
    for (int f = 0; f < 3; ++f)
        for (auto [x, z] : {std::pair{0.0, 800.0}, {400.0, 700.0}}) {
            SCOPED_TRACE(testing::Message() << "frequency " << f << " x " << x);
            const double k = 2 * pi * frequency(a, f) / v, r = std::hypot(x, z);
            const cd expected =
                cd(0, 0.25) * cd(std::cyl_bessel_j(0, k * r), std::cyl_neumann(0, k * r)) * spectrum[f] * factor[f];
            std::vector<cd> spike(n), whole(n);
            spike[n / 2] = cd(function[f]);
            for (int i = 0; i < n; ++i) whole[i] = cd(field(std::abs(i - n / 2), f));
            const cd of_spike = carried_down(spike, dx, k, x, z) / expected;
            const cd of_field = carried_down(whole, dx, k, x, z) / expected;
            EXPECT_NEAR(std::abs(of_field), 1.0, 0.05);
            EXPECT_NEAR(std::arg(of_field), 0.0, 0.05);
            EXPECT_NEAR(std::abs(of_spike), z / r, 0.03);
            EXPECT_NEAR(std::arg(of_spike), 0.0, 0.05);
        }
}
