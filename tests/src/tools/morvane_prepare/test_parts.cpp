#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "src/tools/morvane_prepare/conditioning.h"
#include "src/tools/morvane_prepare/plan.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"

using namespace morvane;

using namespace prepare;
using testing::HasSubstr;

namespace {

constexpr double pi = std::numbers::pi;

}  // namespace

TEST(Line, FollowsTheSpreadOfThePoints) {
    PrincipalAxis slanted, east, north;
    for (int i = -5; i <= 5; ++i) {
        slanted.add({6e6 + 3.0 * i, 5e5 - 4.0 * i});
        east.add({120000 + 25.0 * i, 7});
        north.add({7, 25.0 * i});
    }
    Line line = slanted.line();
    EXPECT_NEAR(line.ux, 0.6, 1e-9);
    EXPECT_NEAR(line.uy, -0.8, 1e-9);
    EXPECT_NEAR(line.position({6e6 + 6, 5e5 - 8}) - line.position({6e6, 5e5}), 10, 1e-6);
    EXPECT_NEAR(line.distance({6e6 + 4, 5e5 + 3}), 5, 1e-6);
    line = east.line();
    EXPECT_EQ(line.position({120050, 7}), 120050);
    EXPECT_EQ(settle_origin(line, 119875, 120125), 119000);  // whole thousands: six digits hold what remains
    EXPECT_EQ(line.position({120050, 7}), 1050);
    EXPECT_EQ(north.line().position({7, 50}), 50);
    EXPECT_EQ(line_through({1, 1}, {1, 5}).position({0, 4}), 3);
    EXPECT_THAT(refusal([] { line_through({1, 1}, {1, 1}); }), HasSubstr("must differ"));
    PrincipalAxis nothing;
    nothing.add({0, 0});
    EXPECT_THAT(refusal([&] { nothing.line(); }), HasSubstr("source_x_word="));
}

TEST(Stations, RegularWithinATolerance) {
    struct Case {
        const char* what;
        std::vector<double> positions;
        double tolerance;
        int n;  // 0: none
        std::int64_t first, step;
    };
    for (const Case& c :
         {Case{"regular, any order", {150, 100, 200}, 5, 3, 10, 5},
          Case{"one missing", {100, 150, 250, 300}, 5, 5, 10, 5}, Case{"navigated", {101, 148, 203, 252}, 5, 4, 10, 5},
          Case{"navigated, less tolerance", {101, 148, 203, 252}, 1, 0, 0, 0}, Case{"one shot", {104}, 5, 1, 10, 1},
          Case{"no pattern", {100, 130, 210, 220}, 5, 0, 0, 0}, Case{"mostly holes", {0, 10, 5000}, 5, 0, 0, 0}}) {
        SCOPED_TRACE(c.what);
        const auto s = find_stations(c.positions, 0, 10, c.tolerance);
        ASSERT_EQ(s.has_value(), c.n > 0);
        if (!s) continue;
        EXPECT_EQ(s->n, c.n);
        EXPECT_EQ(s->first, c.first);
        EXPECT_EQ(s->step, c.step);
        for (std::size_t i = 0; i < c.positions.size(); ++i)
            EXPECT_NEAR(10.0 * (s->first + s->index[i] * s->step), c.positions[i], c.tolerance + 1e-9);
    }
}

// An arrival at time t carries exp(+i w t): the sign of morvane's fields.
TEST(FourierSum, SignAndSizeOfBothWays) {
    for (const bool fast : {true, false}) {
        const Axis freqs{11, fast ? 1.25f : 0.7f, fast ? 3.75f : 3.0f, {}};
        EXPECT_EQ(FourierSum::fast_length(freqs, 60, 0.01), fast ? 80 : 0);
        const FourierSum sum(freqs, 60, 0.01);
        Array<float, 2> u({60, 5});
        Array<cf, 2> spectra({11, 5});
        for (int j = 0; j < 5; ++j) u(7 * j + 3, j) = 2.0f;
        sum.of(u.view(), spectra.view());
        for (int j = 0; j < 5; ++j) {
            const std::vector<std::complex<double>> expected = delay_factor(freqs, 0.01 * (7 * j + 3));
            for (int k = 0; k < 11; ++k)
                EXPECT_LT(std::abs(std::complex<double>(spectra(k, j)) - 0.02 * expected[k]), 1e-7);
        }
    }
    EXPECT_EQ(FourierSum::fast_length({11, 1.25f, 3.75f, {}}, 81, 0.01), 0);  // would fold
    EXPECT_GT(delay_factor({1, 1, 1, {}}, 0.1)[0].imag(), 0.5);
}

TEST(Wavelet, EstimatedFromItsAutocorrelation) {
    const double dt = 0.004, fpeak = 20;
    const Axis freqs{20, 1.5f, 8.0f, {}};
    Array<float, 2> u({256, 1});  // one Ricker wavelet somewhere
    for (int n = 0; n < 256; ++n) {
        const double a = pi * fpeak * (n * dt - 0.3);
        u(n, 0) = static_cast<float>((1 - 2 * a * a) * std::exp(-a * a));
    }
    const Power power = mean_power(u.view(), dt);
    const Band band = band_of(power, 0.1);
    EXPECT_NEAR(band.peak, fpeak, 1);
    EXPECT_LT(band.low, 8);
    EXPECT_GT(band.high, 35);
    const std::vector<std::complex<double>> expected = ricker_spectrum(fpeak, freqs);
    const auto zero = spectrum_of(estimated(power, 0.4, false, false), freqs);
    const Wavelet early = estimated(power, 0.4, false, true);
    const auto minimum = spectrum_of(early, freqs);
    for (std::size_t k = 0; k < expected.size(); ++k) {
        EXPECT_NEAR(zero[k].real() / expected[5].real(), expected[k].real() / expected[5].real(), 0.02) << k;
        EXPECT_NEAR(zero[k].imag() / expected[5].real(), 0, 1e-3);
        EXPECT_NEAR(std::abs(minimum[k]), std::abs(zero[k]), 0.02 * expected[5].real()) << k;
    }
    double first = 0, all = 0;
    for (std::size_t n = 0; n < early.samples.size(); ++n) {
        all += early.samples[n] * early.samples[n];
        if (n < 10) first += early.samples[n] * early.samples[n];
    }
    EXPECT_GT(first, 0.8 * all);  // within 40 ms of time 0
}

TEST(Conditioning, MuteGainAndEnd) {
    Conditioning c;
    c.mute = {2000, 0.1, {}, 0};
    c.source_time = 0.02;
    c.last = 0.6;
    c.gain = 1;
    c.point_source = true;
    std::vector<float> u(100, 1.0f);
    c.apply(u, 0.04, 0.01, 200);  // sample 18 lies at 0.22: 0.2 after the source, where the mute of this offset ends
    EXPECT_EQ(u[17], 0.0f);
    EXPECT_NEAR(u[18], std::pow(0.2, 1.5), 1e-6);
    EXPECT_NEAR(u[55], std::pow(0.57, 1.5), 1e-6);
    EXPECT_EQ(u[57], 0.0f);
    const Mute table{0, 0, {{100, 0.1}, {300, 0.5}}, 0};
    EXPECT_DOUBLE_EQ(table.time(50), 0.1);
    EXPECT_DOUBLE_EQ(table.time(150), 0.2);
    EXPECT_DOUBLE_EQ(table.time(900), 0.5);
}

TEST(DirectWave, FittedOrLeftAlone) {
    Array<float, 2> u({300, 40});
    std::vector<SampleTrace> heads;
    for (int i = 0; i < 40; ++i) {
        heads.push_back({50.0 * i, 0.1});
        const int at = static_cast<int>(std::lround((0.03 + 50.0 * i / 1900 - 0.1) / 0.004));
        if (at >= 0 && at < 300) u(at, i) = 1;
        u(299, i) = 5;  // a later, stronger event
    }
    const DirectWave direct = fit_direct_wave(heads, u.view(), 0.004, 1500, 0.02);
    EXPECT_TRUE(direct.fitted);
    EXPECT_NEAR(direct.velocity, 1900, 30);
    EXPECT_NEAR(direct.intercept, 0.03, 0.01);
    EXPECT_FALSE(fit_direct_wave({heads.begin(), heads.begin() + 5}, u.view(), 0.004, 1500, 0.02).fitted);
}

TEST(Velocity, UnitsAreNamedOrRefused) {
    const files::TempDir dir;
    struct Case {
        const char *table, *unit, *says;
    };
    for (const Case& c : {Case{"0 0 1500\n100 0 2500\n", "", "accepted"}, Case{"0 0 1.5\n", "", "velocity_unit=km/s"},
                          Case{"0 0 0.0005\n", "", "velocity_unit=s/m"}, Case{"0 0 1.5\n", "km/s", "accepted"},
                          Case{"0 0 250000\n", "", "No unit"}, Case{"0 0 -5\n", "", "must be positive"},
                          Case{"0 0 nan\n", "", "line 1"}, Case{"0 0\n", "", "line 1"},
                          Case{"0 0 1500\n0 0 1600\n", "", "a second value"}}) {
        SCOPED_TRACE(c.table);
        files::write_text(dir / "v.txt", c.table);
        qas::Session session({"prepare", "velocity=" + (dir / "v.txt")});
        VelocityOptions o;
        o.file = dir / "v.txt";
        o.unit = c.unit;
        EXPECT_THAT(refusal([&] { read_velocity(session, o, Line()); }), HasSubstr(c.says));
    }
    files::write_text(dir / "v.txt", "# x z v\n0 0 2000\n0 100 4000\n200 0 1000\n");
    qas::Session session({"prepare"});
    VelocityOptions o;
    o.file = dir / "v.txt";
    o.length = 0.3048;  // the run in feet, the table in m/s
    o.unit = "m/s";
    const Velocity v = read_velocity(session, o, Line());
    EXPECT_NEAR(0.3048 / v.slowness(-5, 0), 2000, 1e-6);
    EXPECT_NEAR(v.slowness(0, 50) / 0.3048, 0.5 * (1 / 2000.0 + 1 / 4000.0), 1e-12);  // slowness is interpolated
    EXPECT_NEAR(v.slowness(100, 0) / 0.3048, 0.5 * (1 / 2000.0 + 1 / 1000.0), 1e-12);
    EXPECT_NEAR(v.slowness(300, 900) / 0.3048, 1 / 1000.0, 1e-12);
}

TEST(Plan, StepsAreRoundedDown) {
    for (const auto& [value, expected] : {std::pair{14.7, 12.5}, {1.0, 1.0}, {9.99, 8.0}, {0.31, 0.3}, {200.0, 200.0}})
        EXPECT_DOUBLE_EQ(round_down(value), expected) << value;
}
