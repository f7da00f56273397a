/// Verdicts from made-up images and records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "src/tools/morvane_check/time_zero.h"
#include "src/tools/morvane_check/verdict.h"

using namespace morvane;

namespace {

/// Images whose share at zero offset is greatest at shift t0 + slope z / depth.
std::vector<Focus> ridge(const std::vector<double>& shifts, double t0, double slope) {
    std::vector<Focus> images;
    for (const double shift : shifts) {
        Focus image;
        for (int iz = 0; iz < 100; ++iz) {
            const double away = shift - t0 - slope * iz / 100.0;
            image.all.push_back(iz < 5 ? 0.0 : 1.0);
            image.zero.push_back(image.all.back() * (0.03 + 0.3 * std::exp(-8.0 * away * away)));
        }
        images.push_back(image);
    }
    return images;
}

Focus flat(double share) {
    return {std::vector<double>(10, share), std::vector<double>(10, 1.0)};
}

}  // namespace

TEST(TimeZero, AVelocityErrorIsNoWrongTimeZero) {
    std::vector<double> shifts;
    for (int k = -10; k <= 10; ++k) shifts.push_back(0.3 * k);
    for (const double t0 : {0.0, 0.5, -0.5})
        for (const double slope : {0.0, 1.5, -1.5}) {
            SCOPED_TRACE(testing::Message() << t0 << ' ' << slope);
            EXPECT_NEAR(time_zero_by_focus(shifts, ridge(shifts, t0, slope), 2.0), t0, 0.13);
        }
}

TEST(TimeZero, TopOfAParabola) {
    const std::vector<double> x{-1.0, -0.5, 0.0, 0.5, 2.0};
    const auto of = [&](double bend, double top) {
        std::vector<double> y;
        for (const double v : x) y.push_back(3.0 + bend * (v - top) * (v - top));
        return top_of_parabola(x, y);
    };
    EXPECT_NEAR(of(-0.7, 0.3), 0.3, 1e-9);
    EXPECT_NEAR(of(-0.7, -0.9), -0.9, 1e-9);
    EXPECT_TRUE(std::isnan(of(-0.7, 7.0)));  // beyond the shifts
    EXPECT_TRUE(std::isnan(of(0.7, 0.0)));   // no top
}

TEST(CheckVerdicts, TimeZeroByBothEstimates) {
    for (const auto& [focus, fit, level] : {std::tuple{0.1, -0.1, Level::ok},
                                            {0.35, 0.1, Level::ok},
                                            {0.5, 0.4, Level::wrong},
                                            {-0.5, -0.6, Level::wrong},
                                            {0.1, std::nan(""), Level::ok},
                                            {0.45, std::nan(""), Level::wrong}})
        EXPECT_EQ(judge_time_zero(focus, fit, 0.1).level, level) << focus << ' ' << fit;
}

TEST(CheckVerdicts, FitNamesTheSign) {
    const SignShares focused{0.2, 0.03, 0.03, 0.1}, blurred{0.03, 0.03, 0.2, 0.04};
    EXPECT_EQ(judge_fit({0.8, 0.2, 0.2, 0.4}, focused).level, Level::ok);
    EXPECT_EQ(judge_fit({0.3, 0.2, 0.2, 0.2}, focused).level, Level::look);
    // a source turned in time is one that is delayed, which may make up for a wrong velocity
    EXPECT_EQ(judge_fit({0.4, 0.2, 0.2, 0.6}, focused).level, Level::ok);
    const Verdict wrong = judge_fit({0.2, 0.1, 0.8, 0.2}, blurred);
    EXPECT_EQ(wrong.level, Level::wrong);
    EXPECT_THAT(wrong.text, testing::HasSubstr("conjugate of rec"));
}

TEST(CheckVerdicts, SignsNameTheFieldToConjugate) {
    struct Case {
        double as_is, both, rec, sou;
        bool direct;
        Level level;
        const char* told;
    };
    for (const Case& c : {Case{0.2, 0.03, 0.03, 0.04, false, Level::ok, "0.2 as they are"},
                          Case{0.03, 0.2, 0.03, 0.04, false, Level::wrong, "rec and sou"},
                          Case{0.03, 0.04, 0.2, 0.04, true, Level::wrong, "conjugate of rec"},
                          Case{0.03, 0.04, 0.05, 0.06, false, Level::wrong, "conjugate of sou"},
                          Case{0.2, 0.04, 0.03, 0.19, false, Level::look, "far off"},
                          Case{0.2, 0.3, 0.03, 0.04, true, Level::look, "direct wave"}}) {
        SCOPED_TRACE(c.told);
        const Verdict verdict = judge_signs({flat(c.as_is), flat(c.both), flat(c.rec), flat(c.sou)}, c.direct);
        EXPECT_EQ(verdict.level, c.level);
        EXPECT_THAT(verdict.text, testing::HasSubstr(c.told));
    }
}

TEST(CheckVerdicts, UnitsThatDoNotFit) {
    Parms par;
    par.v.z.d = 10.0f;
    Records records;
    records.highest = 30.0;
    for (const auto& [velocity, step, level] : {std::tuple{2000.0, 10.0f, Level::ok},
                                                {2.0, 0.01f, Level::ok},
                                                {6500.0, 30.0f, Level::ok},
                                                {2.0, 10.0f, Level::wrong},
                                                {2000.0, 0.01f, Level::wrong},
                                                {0.0005, 10.0f, Level::wrong}}) {
        par.v.z.d = step;
        EXPECT_EQ(judge_units(par, {velocity, velocity, velocity}, records).level, level) << velocity << ' ' << step;
    }
}
