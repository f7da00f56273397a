#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/tools/morvane_score/score.h"

using namespace morvane;

namespace {

using testing::HasSubstr;

constexpr const char* sample_log =
    " iter =    1 titer=    1 task = FG_ST J(x) =    5.000000E-02 min_x = 1799 max_x = 2500\n"
    " iter =    1 titer=    2 task = FG_LN J(x) =    6.000000E-02 min_x = 1787 max_x = 2499\n"
    "a line of something else\n"
    " iter =    1 titer=    3 task = FG_LN J(x) =    4.000000E-02 min_x = 1787 max_x = 2499\n"
    " iter =    1 titer=    4 task = NEW_X J(x) =    4.000000E-02 min_x = 1787 max_x = 2499\n"
    " iter =    2 titer=    4 task = FG_LN J(x) =    3.000000E-02 min_x =***** max_x = 2499\n"
    " iter =    2 titer=    5 task = NEW_X J(x) =    3.000000E-02 min_x = 1787 max_x = 2499\n"
    " iter =    3 titer=    5 task = FG_LN J(x) = ***************\n"
    " iter =    3 titer=";

std::vector<LogLine> log_of(const std::string& text) {
    std::istringstream stream(text);
    return read_log(stream);
}

Region everything() {
    return {-1e9, 1e9, -1e9, 1e9};
}

ModelPanel panel(const Axis& x, const Axis& z, const std::vector<float>& values) {
    ModelPanel p{x, z, Array<float, 2>({x.n, z.n})};
    std::ranges::copy(values, p.values.flat().begin());
    return p;
}

}  // namespace

// An accepted iterate belongs to the evaluation before its NEW_X line, whose count already stands at the next one.
TEST(Log, AcceptedStepsAreTheEvaluationsBeforeNewX) {
    const std::vector<LogLine> log = log_of(sample_log);
    ASSERT_EQ(log.size(), 7u);
    EXPECT_TRUE(std::isnan(log[6].fun));
    EXPECT_EQ(count_evaluations(log), 5);
    const std::vector<Accepted> steps = accepted_steps(log);
    ASSERT_EQ(steps.size(), 3u);
    const int evaluations[] = {1, 3, 4};
    const double funs[] = {0.05, 0.04, 0.03};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(steps[k].iteration, k);
        EXPECT_EQ(steps[k].evaluation, evaluations[k]);
        EXPECT_DOUBLE_EQ(steps[k].fun, funs[k]);
    }
    EXPECT_TRUE(accepted_steps(log_of("")).empty());
    EXPECT_TRUE(accepted_steps(log_of(" iter = nothing")).empty());
}

// The counts fill their four columns: no blank parts them from the label.
TEST(Log, FullColumnsAreRead) {
    const auto log = log_of(" iter = 1234 titer= 5678 task = FG_LN J(x) =   -1.500000E+02 min_x = 1799 max_x = 2500\n");
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].iter, 1234);
    EXPECT_EQ(log[0].titer, 5678);
    EXPECT_EQ(log[0].fun, -150.0);
}

// Truth 1 2 / 3 4 (two columns, two rows); the model starts a column earlier and a row later holds other values.
TEST(RelativeError, ComparesSamplesOfTheSamePlace) {
    const Axis tx{2, 10.0f, 0.0f, {}}, tz{2, 5.0f, 0.0f, {}}, mx{3, 10.0f, -10.0f, {}}, mz{3, 5.0f, 0.0f, {}};
    const ModelPanel truth = panel(tx, tz, {1, 2, 3, 4});
    const ModelPanel model = panel(mx, mz, {9, 1, 4, 9, 3, 4, 9, 9, 9});
    EXPECT_NEAR(relative_error(truth, model, everything()), std::sqrt(4.0 / 30), 1e-12);
    EXPECT_NEAR(relative_error(truth, model, {10, 10, 0, 0}), 1.0, 1e-12);  // the one sample that differs
    EXPECT_EQ(relative_error(truth, model, {-50, 50, 5, 50}), 0.0);         // the row below
    EXPECT_THROW(relative_error(truth, model, {100, 200, 0, 5}), qas::Fatal);
    ModelPanel other = model;
    other.x.d = 20.0f;
    EXPECT_THROW(relative_error(truth, other, everything()), qas::Fatal);
}

TEST(ZeroOffsetShare, CountsTheRegionOnly) {
    const Axis x{2, 1.0f, 0.0f, {}}, h{3, 10.0f, -10.0f, {}}, z{2, 1.0f, 0.0f, {}};
    Array<float, 3> image({2, 3, 2});
    // (x, h) planes of depth 0, then 1: squares 1 4 | 9 16 | 0 1 and 0 0 | 4 0 | 36 0
    std::ranges::copy(std::vector<float>{1, 2, 3, 4, 0, -1, 0, 0, 2, 0, 6, 0}, image.flat().begin());
    EXPECT_DOUBLE_EQ(zero_offset_share(image.view(), x, h, z, everything()), 29.0 / 71);
    EXPECT_DOUBLE_EQ(zero_offset_share(image.view(), x, h, z, {1, 1, 0, 0}), 16.0 / 21);
    EXPECT_DOUBLE_EQ(zero_offset_share(image.view(), x, h, z, {0, 0, 1, 1}), 4.0 / 40);
    EXPECT_EQ(zero_offset_share(image.view(), x, h, z, {1, 1, 1, 1}), 0.0);
}

TEST(Table, ShowsFallsAndSaysWhatHappened) {
    const ScoreRow truth{0, 1, 0.02, 0.0, 0.5};
    const std::string table = score_table({{0, 1, 0.08, 0.05, 0.2}, {1, 3, 0.04, 0.03, 0.3}, {2, 4, 0.03, 0.04, 0.45}},
                                          5, everything(), &truth);
    EXPECT_THAT(table, HasSubstr("8.000000e-02   3.000000e-02   2.000000e-02          -62.5 %"));
    EXPECT_THAT(table, HasSubstr("5.000          4.000          0.000          -20.0 %"));
    EXPECT_THAT(table, HasSubstr("40.0           90.0          100.0"));
    EXPECT_THAT(table, HasSubstr("2 iterations in 5 evaluations; least model error 3.000 % at iteration 1"));
    EXPECT_THAT(table, testing::Not(HasSubstr("below its value at the true model")));
    EXPECT_THAT(score_table({{0, 1, 0.08, 0.05, 0.2}, {1, 3, 0.01, 0.03, 0.3}}, 2, everything(), &truth),
                HasSubstr("below its value at the true model"));
    const std::vector<ScoreRow> fits = {
        {0, 1, 0.08, 0.05, 0.2, 0.7}, {1, 2, 0.07, 0.03, 0.2, 0.8}, {2, 3, 0.07, 0.04, 0.2, 0.9}, {3, 4, 0, 0, 0}};
    EXPECT_NEAR(correlation_of_fit(fits), -0.5, 1e-12);
    EXPECT_TRUE(std::isnan(correlation_of_fit({fits[0], fits[1], fits[3]})));
    EXPECT_THAT(score_table(fits, 4, everything(), nullptr),
                HasSubstr("greatest fit 0.90000 at iteration 2, where the model error is 4.000 %; correlation of fit "
                          "and error -0.500"));
    EXPECT_THAT(score_table({{0, 1, 0.08, 0.05, 0.2}}, 21, everything(), nullptr),
                HasSubstr("no step was accepted in 21 evaluations"));
}
