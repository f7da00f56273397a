#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "lib/class/helix/lapfac.h"
#include "lib/class/helix/wilson.h"
#include "lib/corelibs/qas/messages/qaserr.h"

using namespace morvane;

namespace {

/// Autocorrelation of a0 (1, aa) at a lag.
double autocorrelation(double a0, const Filter& aa, int length, int lag) {
    std::vector<double> a(static_cast<std::size_t>(length));
    a[0] = 1;
    for (std::ptrdiff_t i = 0; i < aa.na(); ++i) a[static_cast<std::size_t>(aa.lags(i, 0))] += aa.coeffs(i, 0);
    double sum = 0;
    for (std::size_t i = static_cast<std::size_t>(lag); i < a.size(); ++i)
        sum += a[i] * a[i - static_cast<std::size_t>(lag)];
    return a0 * a0 * sum;
}

}  // namespace

TEST(Wilson, FactorsAKnownAutocorrelation) {
    // minimum phase: 2 (1 - 0.5 z + 0.3 z^3), and 2 (1 - 0.9 z), where more iterations count
    for (const auto& f : {std::array{2.0, -1.0, 0.0, 0.6}, {2.0, -1.8, 0.0, 0.0}}) {
        const int n = 80;
        float r[4] = {};  // its autocorrelation at lags 0, 1, 2, 3
        for (std::size_t lag = 0; lag < 4; ++lag)
            for (std::size_t i = lag; i < 4; ++i) r[lag] += static_cast<float>(f[i] * f[i - lag]);
        Filter ss = stationary_filter(2 * n - 1, {1, 2, 3}), aa = ss;
        for (int lag = 1; lag < 4; ++lag) ss.coeffs(lag - 1, 0) = r[lag];
        EXPECT_NEAR(wilson_factor(n, 30, r[0], ss, aa, false), f[0], 2e-5);
        for (int lag = 1; lag < 4; ++lag)
            EXPECT_NEAR(aa.coeffs(lag - 1, 0), f[static_cast<std::size_t>(lag)] / f[0], 2e-5);
    }
}

TEST(Wilson, ReportsEachIteration) {
    Filter ss = stationary_filter(9, {1}), aa = stationary_filter(9, {1});
    testing::internal::CaptureStderr();
    wilson_factor(5, 1, 4.0f, ss, aa, true);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "           1 0.0000000000000000\n");
}

TEST(Lapfac, FactorsTheLaplacianOnAHelix) {
    const int n1 = 20;
    const Filter aa = lapfac2(0.01f, n1, 10);
    ASSERT_EQ(aa.na(), 20);
    EXPECT_EQ(aa.lags(0, 0), 1);
    EXPECT_EQ(aa.lags(9, 0), 10);
    EXPECT_EQ(aa.lags(10, 0), 11);
    EXPECT_EQ(aa.lags(19, 0), 20);
    // a0 is dropped: it follows from the zero lag
    const double a0 = std::sqrt(4.01 / autocorrelation(1, aa, 60, 0));
    for (int lag = 1; lag <= 50; ++lag) {
        const double expected = lag == 1 || lag == n1 ? -1 : 0;
        EXPECT_NEAR(autocorrelation(a0, aa, 60, lag), expected, 1e-3) << lag;
    }
}

TEST(Lapfac, FewCoefficientsStayClose) {
    const Filter aa = lapfac2(0.01f, 40, 3);
    const double a0 = std::sqrt(4.01 / autocorrelation(1, aa, 120, 0));
    EXPECT_NEAR(autocorrelation(a0, aa, 120, 1), -1, 0.1);
    EXPECT_NEAR(autocorrelation(a0, aa, 120, 40), -1, 0.1);
    EXPECT_EQ(aa.lags(3, 0), 38);
    EXPECT_EQ(aa.lags(5, 0), 40);
}

TEST(Lapfac, RefusesMoreCoefficientsThanAColumnHolds) {
    EXPECT_THROW(lapfac2(0.01f, 20, 11), qas::Fatal);
    EXPECT_THROW(lapfac2(0.01f, 20, 0), qas::Fatal);
}
