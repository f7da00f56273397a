#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

constexpr bool forward = false, adjoint = true, fresh = false, keep = true;

std::size_t size(const Axis& a) {
    return static_cast<std::size_t>(a.n);
}
double at(const Axis& a, std::size_t i) {
    return static_cast<float>(i) * a.d + a.o;
}

/// Every knot for every sample.
std::vector<double> direct(const base_spln2d& s, const std::vector<double>& modl) {
    std::vector<double> data(size(s.axd1) * size(s.ayd1));
    for (std::size_t iyd = 0; iyd < size(s.ayd1); ++iyd)
        for (std::size_t ixd = 0; ixd < size(s.axd1); ++ixd)
            for (std::size_t iyk = 0; iyk < size(s.ayk1); ++iyk)
                for (std::size_t ixk = 0; ixk < size(s.axk1); ++ixk)
                    data[iyd * size(s.axd1) + ixd] +=
                        double{spline(static_cast<float>(at(s.axd1, ixd) - at(s.axk1, ixk)), s.axk1.d)} *
                        double{spline(static_cast<float>(at(s.ayd1, iyd) - at(s.ayk1, iyk)), s.ayk1.d)} *
                        modl[iyk * size(s.axk1) + ixk];
    return data;
}

base_spln2d with_threads(base_spln2d s, int node) {
    s.node = node;
    return s;
}

}  // namespace

TEST(Spline, WeightsOnAndBetweenKnots) {
    for (const float dx : {1.0f, 12.5f}) {
        EXPECT_NEAR(spline(0, dx), 2.0f / 3, 2e-7);
        EXPECT_NEAR(spline(dx, dx), 1.0f / 6, 2e-7);
        EXPECT_NEAR(spline(-dx, dx), 1.0f / 6, 2e-7);
        EXPECT_NEAR(spline(dx / 2, dx), 23.0f / 48, 2e-7);
        EXPECT_NEAR(spline(-dx / 2, dx), 23.0f / 48, 2e-7);
        EXPECT_NEAR(spline(1.5f * dx, dx), 1.0f / 48, 2e-7);
        EXPECT_NEAR(spline(-1.5f * dx, dx), 1.0f / 48, 2e-7);
        for (const float out : {2.0f, -2.0f, 2.5f, -7.0f}) EXPECT_EQ(spline(out * dx, dx), 0.0f);
    }
}

TEST(Spline, AgreesWithTheSumOverAllKnots) {
    struct Case {
        const char* fault;
        base_spln2d s;
    };
    const Case cases[] = {
        {"axes exchanged", {{31, 10, 5, {}}, {17, 8, 3, {}}, {6, 60, 0, {}}, {4, 45, -20, {}}}},
        {"knots finer than the samples", {{9, 10, 0, {}}, {7, 8, 0, {}}, {400, 0.7f, 20, {}}, {50, 1, 0, {}}}},
        {"samples outside the knots", {{40, 10, -100, {}}, {30, 8, -90, {}}, {3, 20, 50, {}}, {2, 15, 40, {}}}},
        {"one of each", {{1, 10, 5, {}}, {1, 8, 3, {}}, {1, 60, 0, {}}, {1, 45, -20, {}}}},
        {"far from the origin", {{20, 10, 5e5f, {}}, {15, 8, 0, {}}, {5, 60, 4.999e5f, {}}, {4, 45, 0, {}}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        std::vector<double> modl = random_vector<double>(size(c.s.axk1) * size(c.s.ayk1), 5);
        std::vector<double> data(size(c.s.axd1) * size(c.s.ayd1), 7.0);
        EXPECT_EQ(base_spln2d_oper(c.s, forward, fresh, modl, data), 0);
        const std::vector<double> expected = direct(c.s, modl);
        for (std::size_t i = 0; i < data.size(); ++i) ASSERT_NEAR(data[i], expected[i], 1e-14) << i;
        base_spln2d_oper(c.s, forward, keep, modl, data);
        for (std::size_t i = 0; i < data.size(); ++i) ASSERT_NEAR(data[i], 2 * expected[i], 1e-14) << i;
    }
}

TEST(Spline, DotProducts) {
    const Axis fine_x{41, 10, 3, {}}, fine_y{30, 8, -5, {}}, fine_z{7, 4, 1, {}};
    const Axis knot_x{9, 50, -10, {}}, knot_y{6, 48, 0, {}}, knot_z{4, 9, 0, {}};
    const auto one = [&](bool adj, bool add, std::span<double> m, std::span<double> d) {
        return base_spln1d_oper(base_spln1d_init(fine_x, knot_x), adj, add, m, d);
    };
    const auto two = [&](bool adj, bool add, std::span<double> m, std::span<double> d) {
        return base_spln2d_oper(base_spln2d_init(fine_x, fine_y, knot_x, knot_y, 2), adj, add, m, d);
    };
    const auto three = [&](bool adj, bool add, std::span<double> m, std::span<double> d) {
        return base_spln3d_oper(base_spln3d_init(fine_x, fine_y, fine_z, knot_x, knot_y, knot_z), adj, add, m, d);
    };
    EXPECT_LT(dot_mismatch<double>(one, 9, 41), 1e-14);
    EXPECT_LT(dot_mismatch<double>(two, 9 * 6, 41 * 30), 1e-14);
    EXPECT_LT(dot_mismatch<double>(three, 9 * 6 * 4, 41 * 30 * 7), 1e-14);
    const Axis sample{1, 10, 5, {}}, knot{1, 60, 0, {}};
    const auto point = [&](bool adj, bool add, std::span<double> m, std::span<double> d) {
        return base_spln2d_oper({sample, sample, knot, knot}, adj, add, m, d);
    };
    EXPECT_LT(dot_mismatch<double>(point, 1, 1), 1e-14);
}

TEST(Spline, FamilyMembersAgree) {
    // with a single sample on a single knot the added axes contribute a factor of 2/3 each
    const Axis fine{21, 10, 3, {}}, knots{6, 40, -7, {}}, point{1, 1, 0, {}};
    std::vector<double> modl = random_vector<double>(6, 3), one(21), two(21), three(21);
    base_spln1d_oper({fine, knots}, forward, fresh, modl, one);
    base_spln2d_oper({point, fine, point, knots}, forward, fresh, modl, two);
    base_spln3d_oper({point, point, fine, point, point, knots}, forward, fresh, modl, three);
    for (std::size_t i = 0; i < one.size(); ++i) {
        EXPECT_NEAR(two[i], one[i] * 2 / 3, 1e-7);
        EXPECT_NEAR(three[i], one[i] * 4 / 9, 1e-7);
    }
}

TEST(Spline, TheNumberOfThreadsChangesNothing) {
    const base_spln2d s{{37, 10, 0, {}}, {29, 8, 0, {}}, {7, 60, 0, {}}, {9, 30, 0, {}}};
    std::vector<double> data = random_vector<double>(37 * 29, 1), modl(7 * 9), again(7 * 9);
    base_spln2d_oper(with_threads(s, 1), adjoint, fresh, modl, data);
    base_spln2d_oper(with_threads(s, 3), adjoint, fresh, again, data);
    EXPECT_EQ(modl, again);
    std::vector<double> spread(37 * 29), spread_again(37 * 29);
    base_spln2d_oper(with_threads(s, 1), forward, fresh, modl, spread);
    base_spln2d_oper(with_threads(s, 3), forward, fresh, modl, spread_again);
    EXPECT_EQ(spread, spread_again);
}

TEST(Spline, ALongerCoefficientVectorIsClearedAndOtherwiseLeft) {
    const base_spln2d s{{5, 10, 0, {}}, {4, 10, 0, {}}, {2, 40, 0, {}}, {2, 30, 0, {}}};
    std::vector<double> data(20, 1.0), modl(12, 9.0);
    base_spln2d_oper(s, adjoint, fresh, modl, data);
    EXPECT_GT(modl[3], 0.0);
    for (std::size_t i = 4; i < 12; ++i) EXPECT_EQ(modl[i], 0.0);
}

TEST(Spline, RefusesAKnotIntervalThatIsNotPositive) {
    const Axis fine{5, 10, 0, {}}, good{3, 20, 0, {}};
    for (const float d : {0.0f, -20.0f, std::numeric_limits<float>::infinity(), std::nanf("")}) {
        const Axis bad{3, d, 0, {}};
        EXPECT_THROW(base_spln2d_init(fine, fine, good, bad), qas::Fatal) << d;
        EXPECT_THROW(base_spln2d_init(fine, fine, bad, good), qas::Fatal) << d;
    }
}
