#include <gtest/gtest.h>

#include "src/areal/wemva/solver/line_search.h"
#include "tests/src/areal/wemva/solver/caller.h"

using namespace morvane;

namespace {

struct Step {
    double stx, fx, dx, sty, fy, dy, stp, fp, dp;
    bool brackt;
    double stpmin, stpmax;
    // expected
    double next;
    bool bracketed;
    double best, other;  // stx, sty afterwards
    const char* what;
};

/// The routine sets stx, sty, stp and brackt of `s`.
Step take(Step s) {
    solver::End best{s.stx, s.fx, s.dx}, other{s.sty, s.fy, s.dy};
    solver::dcstep(best, other, s.stp, s.fp, s.dp, s.brackt, s.stpmin, s.stpmax);
    s.stx = best.st, s.sty = other.st;
    return s;
}

/// The same along the reversed axis.
Step mirrored(Step s) {
    for (double* v : {&s.stx, &s.dx, &s.sty, &s.dy, &s.stp, &s.dp, &s.next, &s.best, &s.other}) *v = -*v;
    std::swap(s.stpmin, s.stpmax);
    s.stpmin = -s.stpmin;
    s.stpmax = -s.stpmax;
    return s;
}

const double root10 = std::sqrt(10.0);
const double root276 = std::sqrt(276.0);

// Function and derivative 0 and -1 (or as written) at the best step 0.
const Step steps[] = {
    {0, 0, -0.5, 0, 0, 0, 1, 0.5, 1.5, false, 0, 5, 0.25, true, 0, 1, "1: a parabola: cubic and quadratic step agree"},
    {0, 0, -1, 0, 0, 0, 1, 1, 1, false, 0, 5, (root10 - 2) / (2 * root10 + 2), true, 0, 1, "1: cubic step nearer"},
    {0, 0, -1, 0, 0, 0, 1, 1, 20, false, 0, 5, ((root276 + 17) / (2 * root276 + 21) + 0.25) / 2, true, 0, 1,
     "1: cubic step farther, the mean of both"},
    {0, 0, -2, 0, 0, 0, 1.5, -0.75, 1, false, 0, 5, 1, true, 1.5, 0, "2: a parabola"},
    {0, 0, -1, 0, 0, 0, 1, -0.25, 2, false, 0, 5, 1.0 / 3, true, 1, 0, "2: secant step farther from the trial step"},
    {0, 0, -1, 0, 0, 0, 1, -0.1, 0.4, false, 0, 5, 0.5, true, 1, 0, "2: cubic step farther from the trial step"},
    {0, 0, -4, 0, 0, 0, 1, -3, -2, false, 0, 5, 2, false, 1, 0, "3: a parabola"},
    {0, 0, -1, 0, 0, 0, 1, -11.0 / 12, -0.75, false, 0, 5, 4, false, 1, 0, "3: not bracketed, the farther step"},
    {0, 0, -1, 0, 0, 0, 1, -11.0 / 12, -0.75, false, 0, 3, 3, false, 1, 0, "3: not bracketed, the upper limit"},
    {0, 0, -1, 0, 0, 0, 1, -11.0 / 12, -0.75, false, 4.5, 9, 4.5, false, 1, 0, "3: not bracketed, the lower limit"},
    {0, 0, -1, 10, 0, 1, 1, -11.0 / 12, -0.75, true, 0, 10, 2, true, 1, 10, "3: bracketed, the nearer step"},
    {0, 0, -1, 2, 0, 1, 1, -11.0 / 12, -0.75, true, 0, 10, 1.66, true, 1, 2, "3: bracketed, 0.66 of the interval"},
    {0, 0, -1, 0, 0, 0, 1, -0.25, -0.75, false, 0, 20, 20, false, 1, 0, "3: cubic turns down, its step is the limit"},
    {0, 0, -1, 40, 0, 1, 1, -0.25, -0.75, true, 0, 20, 4, true, 1, 40, "3: cubic turns down, bracketed: secant"},
    {0, 0, -1, 0, 0, 0, 1, -0.75, -0.75, false, 0, 7, 7, false, 1, 0, "3: no root, the limit"},
    {0, 0, -1, 3, -1, 2, 1, -1, -2, true, 0, 5, 2, true, 1, 3, "4: bracketed, cubic with the other end"},
    {0, 0, -1, 0, 0, 0, 1, -1, -2, false, 0, 5, 5, false, 1, 0, "4: not bracketed, the limit"},
};

struct Search1d {
    solver::Text60 task = "START";
    std::array<int, 2> isave{};
    std::array<double, 13> dsave{};
    double stp, stpmin, stpmax;
    double xtol = 0.1, gtol = 0.9, ftol = 1e-3;

    void call(double f, double g) { solver::dcsrch(f, g, stp, ftol, gtol, xtol, stpmin, stpmax, task, isave, dsave); }
    std::string text() const { return std::string(task.text()); }
};

Search1d search(double stp, double stpmin, double stpmax) {
    Search1d s;
    s.stp = stp;
    s.stpmin = stpmin;
    s.stpmax = stpmax;
    return s;
}

}  // namespace

TEST(Dcstep, TableOfAllCasesInBothDirections) {
    for (const Step& plain : steps) {
        for (const Step& s : {plain, mirrored(plain)}) {
            SCOPED_TRACE(s.what + std::string(s.stp < 0 ? ", mirrored" : ""));
            const Step got = take(s);
            EXPECT_NEAR(got.stp, s.next, 1e-14 * std::max(1.0, std::abs(s.next)));
            EXPECT_EQ(got.brackt, s.bracketed);
            EXPECT_EQ(got.stx, s.best);
            EXPECT_EQ(got.sty, s.other);
        }
    }
}

TEST(Dcstep, ValuesThatAllowNoInterpolationHalveTheInterval) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (const double fp : {nan, std::numeric_limits<double>::infinity()}) {
        const Step got = take({0, 0, -1, 0, 0, -1, 1, fp, nan, false, 0, 5, 0, false, 0, 0, ""});
        EXPECT_EQ(got.stp, 0.5);
        EXPECT_TRUE(got.brackt);
        EXPECT_EQ(got.stx, 0);
    }
    // No slope at the best step, and none anywhere: no division by it.
    EXPECT_EQ(take({0, 0, 0, 0, 0, 0, 1, -1, -1, false, 0, 5, 0, false, 0, 0, ""}).stp, 5);
    EXPECT_TRUE(std::isfinite(take({0, 0, 0, 2, 0, 0, 1, 0, 0, true, 0, 5, 0, false, 0, 0, ""}).stp));
    EXPECT_TRUE(std::isfinite(take({1, 0, -1, 1, 0, -1, 1, 0, -1, true, 0, 5, 0, false, 0, 0, ""}).stp));
}

TEST(Dcsrch, ArgumentsAreCheckedAndTheLastFaultIsReported) {
    struct Row {
        double stp, g, ftol, gtol, xtol, stpmin, stpmax;
        std::string text;
    };
    for (const Row& row :
         {Row{1, -1, 0, 0, 0, 2, 5, "ERROR: STP .LT. STPMIN"}, Row{6, -1, 0, 0, 0, 2, 5, "ERROR: STP .GT. STPMAX"},
          Row{3, 0, 0, 0, 0, 2, 5, "ERROR: INITIAL G .GE. ZERO"}, Row{3, -1, -1, 0, 0, 2, 5, "ERROR: FTOL .LT. ZERO"},
          Row{3, -1, 0, -1, 0, 2, 5, "ERROR: GTOL .LT. ZERO"}, Row{3, -1, 0, 0, -1, 2, 5, "ERROR: XTOL .LT. ZERO"},
          Row{3, -1, 0, 0, 0, -2, 5, "ERROR: STPMIN .LT. ZERO"}, Row{6, 1, 0, 0, 0, 2, 5, "ERROR: INITIAL G .GE. ZERO"},
          Row{6, 1, -1, -1, -1, 7, 5, "ERROR: STPMAX .LT. STPMIN"}, Row{6, 1, 0, 0, -1, 2, 5, "ERROR: XTOL .LT. ZERO"},
          Row{3, -1, 0, 0, 0, -2, -5, "ERROR: STPMAX .LT. STPMIN"}, Row{2, -1, 0, 0, 0, 2, 2, "FG"}}) {
        Search1d s = search(row.stp, row.stpmin, row.stpmax);
        s.ftol = row.ftol, s.gtol = row.gtol, s.xtol = row.xtol;
        s.call(0, row.g);
        EXPECT_EQ(s.text(), row.text);
        if (row.text == "FG") continue;
        s.call(-1, -0.1);  // an error stands until the caller gives up
        EXPECT_EQ(s.text(), row.text);
        EXPECT_EQ(s.stp, row.stp);
    }
}

TEST(Dcsrch, TextsThatEndASearch) {
    struct Row {
        const char* what;
        double stp, stpmin, stpmax, gtol;
        std::vector<std::pair<double, double>> values;  // f and slope; the last ones again until the search ends
        std::string text;
    };
    for (const Row& row :
         {Row{"both conditions at the first trial step", 1, 0, 10, 0.9, {{-0.5, -0.9}}, "CONVERGENCE"},
          Row{"the slope may be steep the other way", 1, 0, 10, 0.9, {{-0.5, 0.91}}, "FG"},
          Row{"a decrease just short of the sufficient one", 1, 0, 10, 0.9, {{-0.00099, 0}}, "FG"},
          Row{"still falling at the longest step", 4, 0, 4, 0.9, {{-4, -1}}, "WARNING: STP = STPMAX"},
          Row{"too high at the shortest step", 0.5, 0.5, 4, 0.9, {{1, 1}}, "WARNING: STP = STPMIN"},
          Row{"as flat as the sufficient decrease there", 0.5, 0.5, 4, 0, {{-1, -1e-3}}, "WARNING: STP = STPMIN"},
          Row{"higher everywhere: down to a step of zero", 1, 0, 10, 0.9, {{1, 1}}, "WARNING: STP = STPMIN"},
          // Best step 1 and other end 0, then a best step below 1: steep on both sides.
          Row{"a narrow interval", 1, 0, 10, 0.9, {{-0.5, 2}, {-0.9, -0.95}}, "WARNING: XTOL TEST SATISFIED"}}) {
        SCOPED_TRACE(row.what);
        Search1d s = search(row.stp, row.stpmin, row.stpmax);
        s.gtol = row.gtol;
        s.call(0, -1);
        const std::size_t calls = row.text == "FG" ? 1 : 50;
        for (std::size_t k = 0; k < calls && s.text() == "FG"; ++k) {
            const auto& [f, g] = row.values[std::min(k, row.values.size() - 1)];
            s.call(f, g);
        }
        EXPECT_EQ(s.text(), row.text);
        if (row.text == "FG") {
            EXPECT_EQ(s.isave, (std::array<int, 2>{1, row.values[0].second > 0.5 ? 2 : 1}));
        }
    }
    // A trial step at an end of the interval.
    Search1d s = search(1, 0, 10);
    s.xtol = 0;
    s.call(0, -1);
    s.call(-0.5, 2);
    s.stp = s.dsave[10];  // stmax
    s.call(-0.2, 2);
    EXPECT_EQ(s.text(), "WARNING: ROUNDING ERRORS PREVENT PROGRESS");
}

TEST(Dcsrch, WithoutABracketTheStepGrowsWithinItsLimits) {
    Search1d s = search(1, 0, 100);
    s.call(0, -1);
    s.call(-1, -1);  // no curvature: the limit of 1 + 4
    EXPECT_EQ(s.stp, 5);
    EXPECT_EQ(s.isave[1], 1);  // still the first stage: it falls
    EXPECT_EQ((Vector{s.dsave[7], s.dsave[9], s.dsave[10]}), (Vector{1, 5 + 1.1 * 4, 5 + 4 * 4}));  // stx, stmin, stmax
    for (const double next : {21, 85, 100}) {  // the last one is stpmax, not 85 + 4 * 64
        s.call(-s.stp, -1);
        EXPECT_EQ(s.stp, next);
    }
}

TEST(Dcsrch, AnIntervalThatShrinksTooSlowlyIsHalved) {
    Search1d s = search(1, 0, 1);
    s.xtol = 0;
    s.call(0, -1);
    s.call(-0.01, 1e6);  // the steep end draws the secant step close to itself: interval 0 to 1
    EXPECT_GT(s.dsave[11], 0.999);
    const double width1 = s.dsave[12];
    EXPECT_EQ(width1, 1);
    const double trial = s.stp;
    EXPECT_LT(trial, 0.3);
    s.call(0, 1);  // higher there: nearly the whole interval is left
    EXPECT_EQ(s.dsave[8], trial);
    EXPECT_EQ(s.stp, 1 + 0.5 * (trial - 1));
}

TEST(Dcsrch, AnIntervalThatGotNarrowLeadsBackToItsBestEnd) {
    Search1d s = search(1.1, 0, 10);
    s.task = "FG";
    s.isave = {1, 2};
    //          ginit gtest gx gy finit fx    fy    stx sty  stmin stmax width width1
    s.dsave = {-1, -1e-3, -1, 2, 0, -0.5, -0.4, 1, 1.2, 1, 1.2, 0.2, 0.2};
    s.call(-0.45, 1.5);  // 1 to 1.1 is left
    EXPECT_EQ(s.text(), "FG");
    EXPECT_EQ(s.dsave[8], 1.1);
    EXPECT_EQ(s.stp, 1);
}

// phi falls by less than the sufficient decrease: interpolating phi itself goes on outwards without end, while
// phi - ftol phi'(0) t has its minimum at a step that satisfies both conditions.
TEST(Dcsrch, TheFirstStageLooksAtTheFunctionLessItsSufficientDecrease) {
    Search1d s = search(1, 0, 1e10);
    s.ftol = 0.5;
    s.call(0, -1);
    s.call(-0.25, -0.125);  // above the line -0.5 t
    // The modified function has values 0 and 0.25, slopes -0.5 and 0.375: higher, so bracketed by the cubic of case 1.
    EXPECT_EQ(s.isave[0], 1);
    // gy, fy (of the function itself again), stx, sty
    EXPECT_EQ((Vector{s.dsave[3], s.dsave[6], s.dsave[7], s.dsave[8]}), (Vector{-0.125, -0.25, 0, 1}));
    const double theta = -0.75 - 0.5 + 0.375;
    const double gamma = std::sqrt(theta * theta + 0.5 * 0.375);
    const double cubic = (gamma + 0.5 + theta) / (2 * gamma + 0.5 + 0.375);
    const double square = 0.5 / 0.75 / 2;
    EXPECT_NEAR(s.stp, cubic < square ? cubic : (cubic + square) / 2, 1e-15);
}

TEST(Dcsrch, TheBestStepKeepsItsOwnValueThroughTheFirstStage) {
    Search1d s = search(1, 0, 1e10);
    s.ftol = 0.5;
    s.call(0, -1);
    s.call(-0.6, -0.95);  // low enough, but steep: the best step
    ASSERT_GT(s.stp, 1.3);
    s.call(-0.61, -0.95);  // lower, but above the line now
    EXPECT_EQ(s.isave[1], 1);
    EXPECT_EQ(s.dsave[7], 1);
    EXPECT_DOUBLE_EQ(s.dsave[5], -0.6);
    EXPECT_DOUBLE_EQ(s.dsave[2], -0.95);
}

namespace {

/// A line search of the solver on two variables.
struct Line {
    Vector l{0, 0}, u{10, 10};
    std::vector<int> nbd{0, 0};
    Vector x{4, 4}, g{3, 4}, d{-3, -4}, r{0, 0}, t{0, 0}, z{1, 0};
    solver::Search search;
    solver::Text60 task = "NEW_X", csave;
    std::array<int, 2> isave{};
    std::array<double, 13> dsave{};
    solver::Progress progress{.nfgv = 1};

    int call(int iter, double f, bool boxed, bool cnstnd) {
        progress.iter = iter;
        return solver::lnsrlb({l, u, nbd}, {false, cnstnd, boxed}, {x, g, d, z, r, t}, f, search, progress, task,
                              {csave, isave, dsave});
    }
};

}  // namespace

TEST(Lnsrlb, FirstAndLongestSteps) {
    struct Row {
        const char* what;
        int iter;
        bool boxed;
        std::vector<int> nbd;
        double stp, stpmx;
    };
    for (const Row& row :
         {Row{"free, first iteration", 0, false, {0, 0}, 0.2, 1e10}, Row{"free, later", 1, false, {0, 0}, 1, 1e10},
          Row{"bounded, first iteration", 0, false, {1, 0}, 0.2, 1},
          Row{"boxed, first iteration", 0, true, {2, 2}, 1, 1}, Row{"lower bounds, later", 1, false, {1, 1}, 1, 1},
          Row{"one lower bound", 1, false, {1, 0}, 1, 4.0 / 3},
          Row{"upper bounds behind", 1, false, {3, 3}, 1, 1e10}}) {
        SCOPED_TRACE(row.what);
        Line line;
        line.nbd = row.nbd;
        line.z = {100, 200};  // on purpose another point than x + d: the full step is z itself
        const bool cnstnd = row.nbd != std::vector<int>{0, 0};
        ASSERT_EQ(line.call(row.iter, 9, row.boxed, cnstnd), 0);
        EXPECT_DOUBLE_EQ(line.search.stp, row.stp);
        EXPECT_DOUBLE_EQ(line.search.stpmx, row.stpmx);
        const solver::Search& s = line.search;
        EXPECT_EQ((Vector{s.dnorm, s.dtd, s.gd, s.gdold, s.fold}), (Vector{5, 25, -25, -25, 9}));
        EXPECT_EQ((std::vector{line.progress.nfgv, s.ifun, s.iback}), (std::vector{2, 1, 0}));
        EXPECT_EQ(line.task.text(), "FG_LNSRCH");
        EXPECT_EQ(line.t, (Vector{4, 4}));
        EXPECT_EQ(line.r, (Vector{3, 4}));
        const Vector expected = row.stp == 1 ? Vector{100, 200} : Vector{4 - 0.2 * 3, 4 - 0.2 * 4};
        for (std::size_t i = 0; i < 2; ++i) EXPECT_NEAR(line.x[i], expected[i], 1e-15);
    }
    // Upwards, at a bound, and beyond one, where a caller put the point.
    for (const auto& [x, sign, nbd, stpmx] : {std::tuple{4.0, 1, std::vector{2, 3}, 1.5},  // (10 - 4) / 4
                                              {0.0, -1, {1, 1}, 0.0},
                                              {-1.0, -1, {1, 1}, 0.0},
                                              {11.0, 1, {2, 3}, 0.0}}) {
        Line line;
        line.x = {x, 4}, line.nbd = nbd;
        line.d = {3.0 * sign, 4.0 * sign}, line.g = {-3.0 * sign, -4.0 * sign};
        ASSERT_EQ(line.call(1, 9, false, true), 0);
        EXPECT_DOUBLE_EQ(line.search.stpmx, stpmx);
        EXPECT_EQ(line.csave.text(), stpmx == 0 ? "ERROR: STP .GT. STPMAX" : "FG");
        EXPECT_EQ(line.task.text(), "FG_LNSRCH");
    }
}

TEST(Lnsrlb, EndsWithTheFirstGoodStepAndNeedsADescentDirection) {
    Line line;
    ASSERT_EQ(line.call(1, 9, false, false), 0);
    line.g = {0.3, 0.4};
    ASSERT_EQ(line.call(1, 1, false, false), 0);
    EXPECT_EQ(line.task.text(), "NEW_X");
    EXPECT_EQ(line.search.iback, 0);
    EXPECT_EQ(line.search.xstep, 5);
    EXPECT_EQ(line.progress.nfgv, 2);
    Line level;
    level.g = {4, -3};  // at right angles
    EXPECT_EQ(level.call(1, 9, false, false), -4);
    EXPECT_EQ(level.x, (Vector{4, 4}));
    EXPECT_EQ(level.progress.nfgv, 1);
}

TEST(Lnsrlb, ATrialPointIsWithinTheBoundsToTheLastBit) {
    int rounded = 0;
    for (int k = 1; k <= 200; ++k) {
        Line line;
        line.nbd = {1, 1};
        line.l = {0.1 * k, -1000};
        line.x = {0.1 * k + 0.7, 4};
        line.d = {-0.0034 * k, -0.001};
        line.g = {1, 1};
        line.z = {line.x[0] + line.d[0], line.x[1] + line.d[1]};
        ASSERT_EQ(line.call(1, 9, false, true), 0);
        // No curvature in sight: the search runs to the longest step.
        for (int i = 0; i < 30 && line.task.starts_with("FG"); ++i) {
            const double f = 9 + (line.x[0] - line.t[0]) + (line.x[1] - line.t[1]);
            EXPECT_GE(line.x[0], line.l[0]);
            ASSERT_EQ(line.call(1, f, false, true), 0);
        }
        EXPECT_EQ(line.csave.text(), "WARNING: STP = STPMAX");
        rounded += line.search.stp * line.d[0] + line.t[0] < line.l[0];
    }
    EXPECT_GT(rounded, 0);  // the case occurs
}
