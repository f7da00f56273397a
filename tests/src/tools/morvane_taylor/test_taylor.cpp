#include "src/tools/morvane_taylor/taylor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace morvane;

namespace {

/// A cubic along d, with rounding noise of the given size.
double cubic(double h, double noise) {
    static std::mt19937 engine(3);
    std::normal_distribution<double> normal;
    return 5.0 + 2.0 * h + 3.0 * h * h - h * h * h + noise * normal(engine);
}

TaylorLine line_of(double slope, double noise) {
    const std::vector<double> x{1.0}, d{1.0}, g{slope};
    return taylor_line([&](std::span<const double> at) { return cubic(at[0] - 1.0, noise); }, x, d, g, 5.0, 8, 1.0);
}

}  // namespace

TEST(Taylor, RatesAreOneAndTwoForARightSlopeAndOneForAWrongOne) {
    const auto right = taylor_rows(line_of(2.0, 0.0)), wrong = taylor_rows(line_of(2.5, 0.0));
    EXPECT_TRUE(std::isnan(right[0].first_rate));
    EXPECT_NEAR(right.back().first_rate, 1.0, 0.05);
    EXPECT_NEAR(right.back().second_rate, 2.0, 0.02);
    EXPECT_NEAR(wrong.back().second_rate, 1.0, 0.15);
    for (const double noise : {0.0, 1e-9, 1e-3}) EXPECT_FALSE(bends_within_steps(line_of(2.0, noise))) << noise;
}

TEST(Taylor, SlopesAreRightWrongOrUndecided) {
    using enum SlopeVerdict;
    EXPECT_EQ(check_slope(line_of(2.0, 1e-9)).verdict, right);
    EXPECT_NEAR(check_slope(line_of(2.1, 1e-9)).error, 0.05, 1e-3);
    EXPECT_EQ(check_slope(line_of(2.1, 1e-9)).verdict, wrong);
    EXPECT_NEAR(check_slope(line_of(-2.0, 1e-9)).error, 2.0, 1e-2) << "the sign counts";
    const struct {
        double noise, bend, central, slope;
        SlopeVerdict verdict;
    } rows[] = {{1e-3, 0.0, 1e-3, 2e-2, undecided},  // three deviations of the difference are 0.03: no verdict
                {1e-3, 0.0, 1e-3, 1.0, undecided},  {1e-3, 0.0, 1.5e-2, 2.5e-2, undecided},
                {1e-3, 0.0, 1e-3, 1e-3, undecided},  // an agreement by chance proves nothing
                {1e-3, 0.0, 4.0, 4.05, right},      {1e-3, 0.0, 4.0, 4.08, wrong},
                {1e-3, 0.1, 4.0, 4.08, undecided}};
    for (const auto& row : rows) {
        TaylorLine line;
        line.noise = row.noise, line.bend = row.bend, line.central_h = 0.1, line.central = row.central,
        line.slope = row.slope;
        EXPECT_EQ(check_slope(line).verdict, row.verdict) << row.central << ' ' << row.slope;
    }
}

TEST(Taylor, StepGrowsWithTheNoise) {
    const TaylorLine fine = line_of(2.0, 1e-12), coarse = line_of(2.0, 1e-2);
    EXPECT_LT(fine.central_h, coarse.central_h);
    EXPECT_NEAR(coarse.central, 2.0, 0.3);
}

TEST(Taylor, AFunctionThatBendsWithinTheStepsIsSeenThrough) {
    const std::vector<double> x{1.0}, d{1.0}, g{3.0};
    const Value kinked = [](std::span<const double> at) {  // slope 3 within 1e-3, 2 outside
        const double h = at[0] - 1.0;
        return 5.0 + 2.0 * h + 1e-3 * std::tanh(h / 1e-3);
    };
    const TaylorLine line = taylor_line(kinked, x, d, g, 5.0, 6, 1.0);
    EXPECT_LT(line.central_h, 1e-3);
    EXPECT_TRUE(bends_within_steps(line));
    EXPECT_EQ(check_slope(line).verdict, SlopeVerdict::right);
}

TEST(Taylor, NoiseIsMeasuredBesideASmoothTrend) {
    std::vector<double> smooth, noisy;
    std::mt19937 engine(1);
    std::normal_distribution<double> normal;
    for (int i = 0; i < 400; ++i) {
        smooth.push_back(3.0 + 1e-4 * i + 1e-7 * i * i);
        noisy.push_back(smooth.back() + 1e-3 * normal(engine));
    }
    EXPECT_LT(noise_of(smooth), 1e-12);
    EXPECT_NEAR(noise_of(noisy), 1e-3, 1e-4);
    EXPECT_EQ(noise_of(std::vector<double>{1, 2}), 0.0);
}

TEST(Taylor, DirectionsKnowTheirMean) {
    for (const bool with_mean : {false, true}) {
        const std::vector<double> d = smooth_direction(30, 20, with_mean, 4);
        double row = 0.0;
        for (std::size_t ix = 0; ix < 30; ++ix) row += d[5 * 30 + ix] / 30;
        EXPECT_EQ(std::abs(row) > 1e-3, with_mean);
        EXPECT_EQ(std::abs(row) < 1e-12, !with_mean);
    }
    EXPECT_NE(smooth_direction(30, 20, true, 4), smooth_direction(30, 20, true, 5));
}
