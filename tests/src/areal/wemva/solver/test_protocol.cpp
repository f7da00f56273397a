#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>

#include "tests/src/areal/wemva/solver/output.h"
#include "tests/src/areal/wemva/solver/problems.h"

using namespace morvane;

namespace {

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();

/// sum w(i) (x(i) - c(i))^2 / 2
Objective bowl(Vector w, Vector c) {
    return [w, c](std::span<const double> x, std::span<double> g) {
        double f = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            g[i] = w[i] * (x[i] - c[i]);
            f += 0.5 * g[i] * (x[i] - c[i]);
        }
        return f;
    };
}

/// Saved values by their numbers from 1.
void expect_ints(const Caller& caller, const std::map<int, int>& expected) {
    for (const auto& [k, value] : expected) EXPECT_EQ(caller.saved_int(k), value) << "isave " << k;
}
void expect_reals(const Caller& caller, const std::map<int, double>& expected) {
    for (const auto& [k, value] : expected) EXPECT_EQ(caller.saved_real(k), value) << "dsave " << k;
}

class Protocol : public TemporaryFolder {};
class Restart : public TemporaryFolder {};

}  // namespace

TEST(Text60, IsAFieldPaddedWithBlanks) {
    const solver::Text60 text = "NEW_X";
    EXPECT_EQ(text.field(), "NEW_X" + std::string(55, ' '));
    EXPECT_EQ(text.text(), "NEW_X");
    EXPECT_TRUE(text == "NEW_X");
    EXPECT_TRUE(text == "NEW_X   ");
    EXPECT_FALSE(text == "NEW_");
    EXPECT_FALSE(text == "NEW_XX");
    EXPECT_TRUE(text.starts_with("NEW"));
    EXPECT_EQ(solver::Text60(std::string(70, 'a')).field(), std::string(60, 'a'));
    EXPECT_EQ(solver::Text60().text(), "");
}

TEST_F(Protocol, PartitionAndStateAfterTheStart) {
    Caller caller(3, Vector{1, 2, 3, 4, 5, 6, 7}, Vector(7, 3), Vector(7, 5), {0, 1, 2, 3, 2, 3, 1});
    caller.u[4] = caller.l[4];
    caller.factr = 8;
    caller.call();
    EXPECT_EQ(caller.text(), "FG_START");
    //                              nm mm 4mm ws  wy  sy  ss  yy  wt  wn  snd  z    r    d    t    wa   sg   sgo  yg ygo
    const std::vector<int> expected{21,  9,   36,  1,   22,  43,  52,  61,  70,  79,
                                    115, 151, 158, 165, 172, 179, 203, 206, 209, 212};
    EXPECT_EQ(std::vector<int>(caller.isave.begin(), caller.isave.begin() + 20), expected);
    EXPECT_EQ(212 + 3 - 1, static_cast<int>(solver::wa_size(7, 3)));
    EXPECT_EQ(solver::iwa_size(7), 21u);
    EXPECT_EQ(caller.x, (Vector{1, 3, 3, 4, 3, 5, 7}));  // into the box
    EXPECT_EQ(caller.lsave, (std::array<int, 4>{1, 1, 0, 0}));
    EXPECT_EQ(std::vector<int>(caller.iwa.begin() + 7, caller.iwa.begin() + 14),
              (std::vector<int>{-1, 0, 0, 0, 3, 0, 0}));
    expect_ints(caller,
                {{22, 0}, {24, 0}, {26, 0}, {27, 1}, {28, 0}, {30, 0}, {31, 0}, {33, 0}, {34, 0}, {35, 0}, {38, 7}});
    constexpr double epsmch = 2.220446049250313e-16;
    expect_reals(caller, {{1, 1}, {3, 8 * epsmch}, {5, epsmch}});  // theta, tol, epsmch
}

TEST_F(Protocol, StateWithinARun) {
    Caller caller(2, {4});  // f = x^2
    const Objective square = bowl({2}, {0});
    caller.call();
    caller.f = square(caller.x, caller.g);
    caller.call();
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    EXPECT_EQ(caller.x[0], 3);  // d = -8, first step 1/8
    // nfgv, ifun, no subspace step, ileave and nenter (none), not bracketed, first stage
    expect_ints(caller, {{34, 2}, {36, 1}, {37, -1}, {40, 2}, {41, 0}, {43, 0}, {44, 1}});
    // fold, dnorm, gd, stpmx, sbgnrm, stp, gdold, dtd; the line search's own ginit and stmax
    expect_reals(
        caller,
        {{2, 16}, {4, 8}, {11, -64}, {12, 1e10}, {13, 8}, {14, 0.125}, {15, -64}, {16, 64}, {17, -64}, {27, 0.625}});
    EXPECT_GE(caller.saved_real(6), 0);   // cpu1
    EXPECT_GE(caller.saved_real(10), 0);  // time1
    EXPECT_EQ(caller.block(13)[0], 8);    // r: g where the search started
    EXPECT_EQ(caller.block(15)[0], 4);    // t: x there
    caller.f = square(caller.x, caller.g);
    caller.call();
    EXPECT_EQ(caller.text(), "NEW_X");
    expect_ints(caller, {{30, 1}});
    expect_reals(caller, {{11, -48}, {13, 6}, {15, -64}});
    caller.call();
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    // head, col, itail, iupdat; the subspace minimiser lay inside
    expect_ints(caller, {{27, 1}, {28, 1}, {29, 1}, {31, 1}, {37, 0}});
    expect_reals(caller, {{1, 2}});  // theta: y'y / s'y = 4 / 2
    EXPECT_EQ(caller.lsave[3], 1);   // updatd
    EXPECT_EQ(caller.x[0], 0);
    EXPECT_EQ((Vector{*caller.block(4), *caller.block(5), *caller.block(6)}), (Vector{-1, -2, 2}));  // s, y, s'y
}

TEST_F(Protocol, ErrorTexts) {
    struct Row {
        std::string text, report;  // report: on the screen only, beside the text
        int n, m;
        double factr;
        std::vector<int> nbd;
        Vector l;
    };
    const auto crossed = [](const std::string& k) {
        return "  l(           " + k + " ) > u(           " + k + " ).  No feasible solution.\n";
    };
    const std::string nbd = "ERROR: INVALID NBD", feasible = "ERROR: NO FEASIBLE SOLUTION";
    for (const Row& row :
         std::vector<Row>{{"ERROR: N .LE. 0", "", 0, 2, 0, {0, 0, 0}, {0, 0, 0}},
                          {"ERROR: FACTR .LT. 0", "", -1, -1, -1, {0, 0, 0}, {0, 0, 0}},  // the last fault wins
                          {"ERROR: M .LE. 0", "", -1, 0, 0, {0, 0, 0}, {0, 0, 0}},
                          {"ERROR: N*M TOO LARGE FOR 32-BIT INDICES", "", 3, 200000000, 0, {0, 0, 0}, {0, 0, 0}},
                          {nbd, "  Input nbd(           2 ) is invalid.\n", 3, 2, 0, {0, 4, 0}, {0, 0, 0}},
                          {nbd, "  Input nbd(           3 ) is invalid.\n", 3, 2, 0, {9, 0, -1}, {0, 0, 0}},
                          {feasible, crossed("1"), 3, 2, 0, {2, 1, 2}, {2, 2, 0}},
                          {feasible, crossed("3"), 3, 2, -1, {7, 2, 2}, {0, 0, 2}}}) {
        SCOPED_TRACE(row.text + row.report);
        Caller caller(2, Vector(3), row.l, Vector(3, 1), row.nbd);
        caller.n = row.n, caller.m = row.m, caller.factr = row.factr;
        caller.iprint = 0;
        const std::array<int, 44> before = caller.isave;
        const std::string out = printed([&] { caller.call(); });
        EXPECT_EQ(caller.text(), row.text);
        const std::string shown = '\n' + row.text + std::string(60 - row.text.size(), ' ') + '\n' + row.report;
        EXPECT_EQ(out.substr(0, out.find("\n Total")), shown);
        EXPECT_TRUE(std::equal(before.begin() + 20, before.end(), caller.isave.begin() + 20));  // nothing is saved
        EXPECT_EQ(caller.x, Vector(3));
        EXPECT_TRUE(std::filesystem::is_empty("."));
        for (const char* text : {"FG_START", "NEW_X", "FG_LNSRCH", "STOP"}) {  // and what cannot run is refused again
            if (row.n > 0 && row.m > 0) break;
            caller.task = text;
            printed([&] { caller.call(); });
            EXPECT_EQ(caller.text(), row.text);
        }
    }
}

TEST_F(Protocol, RunsThatEndAtOnce) {
    Caller level(3, {0, 2}, {0, 0}, {1, 2}, {1, 3});
    level.run([](std::span<const double>, std::span<double> g) {
        g[0] = 5, g[1] = -7;
        return 1.0;
    });
    EXPECT_EQ(level.text(), "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL");
    EXPECT_EQ(level.evaluations, 1);
    expect_ints(level, {{30, 0}, {34, 1}, {35, 0}});

    Caller flat(3, {1}, {0}, {9}, {2});
    flat.run([&](std::span<const double>, std::span<double> g) {
        g[0] = flat.evaluations == 0 ? 1e-7 : 1e-8;
        return 1.0;  // the sufficient decrease, 1e-3 g g, is below the last bit
    });
    EXPECT_EQ(flat.text(), "CONVERGENCE: REL_REDUCTION_OF_F <= FACTR*EPSMCH");
    EXPECT_EQ(flat.evaluations, 2);
    expect_ints(flat, {{30, 1}});
}

TEST_F(Protocol, ToleranceOfTheDecreaseIsRelativeToTheLargestOfTheValuesAndOne) {
    for (const double value : {1000.0, 0.01}) {
        for (const bool stops : {true, false}) {
            // One step lowers f by exactly the tolerance for a factor of 1e6.
            Caller caller(3, {4}, {0}, {9}, {2});
            caller.factr = (stops ? 1.01 : 0.99) * 1e6;
            caller.advance([&](std::span<const double>, std::span<double> g) {
                g[0] = caller.evaluations == 0 ? 1e-9 : 1e-10;
                return value - (caller.evaluations == 0 ? 0 : 1e6 * 2.220446049250313e-16 * std::max(value, 1.0));
            });
            ASSERT_EQ(caller.text(), "NEW_X");
            caller.call();
            EXPECT_EQ(caller.task.starts_with("CONVERGENCE: REL"), stops) << value << ' ' << caller.text();
        }
    }
}

TEST_F(Protocol, CallersMayStop) {
    const Problem& problem = named("Wood");
    for (const auto& [text, restores] : {std::pair{"STOP", false},
                                         {"STOP: CPU TIME", true},
                                         {"STOP:CPU", false},
                                         {"STOPPED", false},
                                         {"STOP  CPU", true}}) {
        SCOPED_TRACE(text);
        Caller caller = problem.caller(3);
        for (int k = 0; k < 4; ++k) caller.advance(problem.objective);
        Caller expected = caller;
        caller.call();  // the first trial point of the next search
        ASSERT_EQ(caller.text(), "FG_LNSRCH");
        caller.f = -5;
        caller.g = {1, 2, 3, 4};
        if (!restores) expected = caller;
        caller.task = text;
        caller.call();
        EXPECT_EQ(caller.text(), text);
        EXPECT_EQ(caller.x, expected.x);
        EXPECT_EQ(caller.g, expected.g);
        EXPECT_EQ(caller.f, expected.f);
    }
    Caller early(2, {4, 5});  // before the first search there is nothing to restore
    early.call();
    early.f = 7;
    early.task = "STOP: CPU";
    early.call();
    EXPECT_EQ(early.x, (Vector{4, 5}));
    EXPECT_EQ(early.f, 7);
}

TEST_F(Protocol, AnUnknownTextAsksForTheValueAgain) {
    const Problem& problem = named("Rosenbrock");
    Caller caller = problem.caller(3);
    caller.pgtol = 1e-8;
    for (int k = 0; k < 3; ++k) caller.advance(problem.objective);
    const Vector x = caller.x;
    for (const char* text : {"HELLO", "", "fg_start", "START AGAIN", "CONVERGENCE"}) {
        caller.task = text;
        caller.call();
        EXPECT_EQ(caller.text(), "FG_START") << text;
        EXPECT_EQ(caller.x, x);
    }
    caller.run(problem.objective);
    EXPECT_EQ(caller.text(), "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL");
    EXPECT_NEAR(caller.x[0], 1, 1e-6);
}

// Copies of all arrays, at new addresses, with replies of which only the first letters count and with a foreign run in
// between, continue with the same bits.
TEST_F(Protocol, ARunContinuesFromItsArraysAlone) {
    const auto step = [](Caller& caller, const Objective& objective) {
        if (caller.task.starts_with("FG")) caller.f = objective(caller.x, caller.g);
        caller.call();
    };
    for (const char* name : {"Wood", "every kind of bound", "membrane between plates", "chain of 25"}) {
        SCOPED_TRACE(name);
        const Problem& problem = named(name);
        const Problem& other = named("dense, 30 variables");
        Caller straight = problem.caller(4);
        auto moved = std::make_unique<Caller>(problem.caller(4));
        Caller foreign = other.caller(2);
        straight.factr = moved->factr = foreign.factr = 1e3;
        do {
            step(straight, problem.objective);
            auto copy = std::make_unique<Caller>(*moved);
            std::fill(moved->wa.begin(), moved->wa.end(), not_a_number);
            moved->isave.fill(0);
            moved = std::move(copy);
            if (moved->task != "START") moved->task = solver::Text60(moved->text().substr(0, 5) + "xyz");
            step(*moved, problem.objective);
            if (!foreign.task.starts_with("CONV")) step(foreign, other.objective);
            ASSERT_EQ(straight.text(), moved->text());
            ASSERT_EQ(std::memcmp(straight.x.data(), moved->x.data(), straight.x.size() * sizeof(double)), 0);
            ASSERT_EQ(straight.isave, moved->isave);
        } while (straight.task.starts_with("FG") || straight.task.starts_with("NEW_X"));
        EXPECT_TRUE(straight.task.starts_with("CONVERGENCE"));
        EXPECT_GT(straight.saved_int(34), 10);
    }
}

TEST_F(Protocol, SegmentsAreCountedInAll) {
    const Problem& problem = named("every kind of bound");
    Caller caller = problem.caller(3);
    caller.factr = 10;
    int segments = 0;
    for (caller.advance(problem.objective); caller.task.starts_with("NEW_X"); caller.advance(problem.objective)) {
        segments += caller.saved_int(33);
    }
    EXPECT_EQ(caller.saved_int(22), segments);
    EXPECT_GT(segments, caller.saved_int(30));
}

// --- Restarts -----------------------------------------------------------------------------------------------------

namespace {

constexpr const char* refresh = "   refresh the lbfgs memory and restart the iteration.\n";

/// A run that has stored some pairs and stands at NEW_X.
Caller with_pairs(const Problem& problem, int m, int iterations) {
    Caller caller = problem.caller(m);
    caller.factr = 10;
    for (int k = 0; k < iterations; ++k) caller.advance(problem.objective);
    EXPECT_EQ(caller.text(), "NEW_X");
    EXPECT_GE(caller.saved_int(28), 2);
    return caller;
}

/// The next call resets the memory with this message, and the run then converges all the same.
void expect_restart(Caller caller, const Problem& problem, const std::string& message) {
    caller.iprint = 1;
    const std::string out = printed([&] { caller.call(); });
    EXPECT_NE(out.find("\n " + message + '\n' + refresh), std::string::npos) << out;
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    // col, head, iupdat, info; the search runs along the Cauchy direction
    expect_ints(caller, {{28, 0}, {27, 1}, {31, 0}, {35, 0}, {37, -1}});
    expect_reals(caller, {{1, 1}});  // theta
    EXPECT_EQ(caller.lsave[3], 0);   // updatd
    caller.iprint = -1;
    caller.run(problem.objective);
    EXPECT_TRUE(caller.task.starts_with("CONVERGENCE")) << caller.text();
    EXPECT_NEAR(caller.f, problem.value, 1e-8);
}

/// Make the update of the next call be skipped, so that all matrices stay as the test left them.
void skip_next_update(Caller& caller) {
    caller.dsave[10] = caller.dsave[14];  // gd = gdold: no curvature along the step
}

}  // namespace

TEST_F(Restart, EveryBreakdownOfTheFactors) {
    struct Row {
        const char *what, *problem;
        bool skip_update;
        int block;
        std::ptrdiff_t place;
        double value;
        std::string message;
    };
    const std::string formk = "Nonpositive definiteness in Cholesky factorization in formk;";
    const std::string formt = "Nonpositive definiteness in Cholesky factorization in formt;";
    const std::string singular = "Singular triangular system detected;";
    for (const Row& row : {Row{"wn1: an old element of Y'ZZ'Y", "Wood in a box", false, 11, 0, -1e9, formk},
                           Row{"wn1: an old element of S'AA'S", "Wood in a box", false, 11, 5 + 10 * 5, -1e9, formk},
                           Row{"an old element of S'S", "Wood in a box", false, 7, 0, -1e9, formt},
                           Row{"an old element of S'S, free", "Wood", false, 7, 0, -1e9, formt},
                           Row{"wt, in the Cauchy search", "Wood in a box", true, 9, 0, 0, singular},
                           Row{"wn, in the subspace step", "Wood", true, 10, 0, 0, singular}}) {
        SCOPED_TRACE(row.what);
        const Problem& problem = named(row.problem);
        Caller caller = with_pairs(problem, 5, row.skip_update ? 6 : 5);  // later, no old pair is left
        if (row.skip_update) skip_next_update(caller);
        caller.block(row.block)[row.place] = row.value;
        expect_restart(caller, problem, row.message);
    }
}

TEST_F(Restart, DirectionOfAscent) {
    const Problem& problem = named("Wood");
    Caller caller = with_pairs(problem, 5, 5);
    skip_next_update(caller);
    const Vector x = caller.x, g = caller.g;
    // wn: uncouple its halves, so that the negative one takes over in the inverse of the model.
    const int col = caller.saved_int(28);
    for (int j = col; j < 2 * col; ++j) std::fill_n(caller.block(10) + 10 * j, col, 0.0);
    caller.block(10)[0] *= 1e-4;
    const int nfgv = caller.saved_int(34);
    Caller again = caller;
    expect_restart(caller, problem, "Bad direction in the line search;");
    again.call();
    EXPECT_EQ(again.saved_int(34), nfgv + 1);                    // only the trial point handed out
    EXPECT_EQ(Vector(again.block(15), again.block(15) + 4), x);  // the new search starts where the old one did
    EXPECT_EQ(Vector(again.block(13), again.block(13) + 4), g);
}

TEST_F(Restart, SearchThatFindsNothingAfterTwentyTrialPoints) {
    const Problem& problem = named("Wood");
    Caller caller = with_pairs(problem, 5, 5);
    const Vector x = caller.x, g = caller.g;
    const int nfgv = caller.saved_int(34);
    const double f0 = caller.f;
    caller.f = 0;  // then there is no rounding in the values below
    caller.call();
    const double slope = caller.saved_real(15);
    caller.iprint = 1;
    int calls = 0;
    const std::string out = printed([&] {
        while (caller.task.starts_with("FG_LN") && caller.saved_int(28) > 0 && calls < 100) {
            ++calls;
            caller.f = -slope * caller.saved_real(14);  // it rises where the slope says that it falls
            caller.call();
        }
    });
    EXPECT_EQ(calls, 20);
    EXPECT_EQ(out, std::string("\n Bad direction in the line search;\n") + refresh);
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    expect_ints(caller, {{34, nfgv + 20 + 1}, {36, 1}});  // the 21st point of the old search does not count
    expect_reals(caller, {{2, 0}});
    EXPECT_EQ(Vector(caller.block(15), caller.block(15) + 4), x);
    EXPECT_EQ(Vector(caller.block(13), caller.block(13) + 4), g);
    caller.iprint = -1;
    caller.run(
        [&](std::span<const double> at, std::span<double> slopes) { return problem.objective(at, slopes) - f0; });
    EXPECT_TRUE(caller.task.starts_with("CONVERGENCE"));
    EXPECT_NEAR(caller.f, -f0, 1e-6);
}

TEST_F(Restart, WithoutPairsASearchThatFindsNothingEndsTheRun) {
    Caller caller(3, {0, 0});
    caller.run([&](std::span<const double> x, std::span<double> g) {  // a gradient of the wrong sign
        g[0] = 3, g[1] = 4;
        return -3 * x[0] - 4 * x[1];
    });
    EXPECT_EQ(caller.text(), "ABNORMAL_TERMINATION_IN_LNSRCH");
    EXPECT_EQ(caller.evaluations, 21);  // the start point and 20 trial points
    expect_ints(caller, {{34, 21}, {36, 20}, {25, 19}, {35, -9}, {30, 1}});
    EXPECT_EQ(caller.x, (Vector{0, 0}));
    EXPECT_EQ(caller.g, (Vector{3, 4}));
    EXPECT_EQ(caller.f, 0);
}

TEST_F(Restart, WithoutPairsAFlatDirectionEndsTheRun) {
    Caller caller(3, {2, -1});
    caller.pgtol = -1;  // not even a zero gradient satisfies it
    caller.iprint = 0;
    const std::string out = printed([&] {
        caller.run([](std::span<const double>, std::span<double> g) {
            g[0] = g[1] = 0;
            return 1.0;
        });
    });
    EXPECT_EQ(caller.text(), "ABNORMAL_TERMINATION_IN_LNSRCH");
    EXPECT_EQ(caller.saved_int(35), -4);
    EXPECT_EQ(caller.evaluations, 1);
    EXPECT_EQ(caller.saved_int(34), 1);
    EXPECT_EQ(caller.x, (Vector{2, -1}));
    EXPECT_NE(out.find("\n Subgnorm = 0.  GCP = X.\n"), std::string::npos);
}

TEST_F(Restart, UpdateWithoutCurvatureIsSkipped) {
    // Linear; the second search runs 15 times its full step, to the bound of the first variable.
    Caller caller(3, {0, 0}, {0, 0}, {16, 1e6}, {2, 2});
    const auto linear = [](std::span<const double> x, std::span<double> g) {
        g[0] = -1, g[1] = -1e-3;
        return -x[0] - 1e-3 * x[1];
    };
    caller.iprint = 1;
    printed([&] { caller.advance(linear); });
    EXPECT_EQ(caller.x, (Vector{1, 1e-3}));  // the full step along -g, at the limit of the first search
    const std::string first = printed([&] { caller.call(); });
    EXPECT_EQ(first, "  ys= 0.000E+00  -gs= 1.000E+00 BFGS update SKIPPED\n");
    expect_ints(caller, {{26, 1}, {28, 0}});  // nskip, col
    EXPECT_EQ(caller.lsave[3], 0);
    printed([&] { caller.advance(linear); });
    ASSERT_EQ(caller.x[0], 16);
    EXPECT_EQ(printed([&] { caller.call(); }), "  ys= 0.000E+00  -gs= 1.500E+01 BFGS update SKIPPED\n");
    caller.iprint = -1;
    caller.run(linear);
    EXPECT_TRUE(caller.task.starts_with("CONVERGENCE"));
    EXPECT_EQ(caller.x, (Vector{16, 1e6}));
}

TEST_F(Restart, ManyTrialPointsBeforeConvergenceAreAWarning) {
    for (const int too_high : {9, 10, 11}) {
        SCOPED_TRACE(too_high);
        Caller caller(3, {4}, {-9}, {9}, {2});
        caller.factr = 1e13;
        caller.iprint = 0;
        const std::string out = printed([&] {
            caller.run([&](std::span<const double>, std::span<double> g) {
                const double stp = caller.saved_real(14);
                const bool good = caller.evaluations > too_high;
                g[0] = good ? -0.5 : -1;
                return caller.evaluations == 0 ? 0 : good ? -0.01 * stp : 10 * stp;
            });
        });
        EXPECT_EQ(caller.text(), "CONVERGENCE: REL_REDUCTION_OF_F <= FACTR*EPSMCH");
        EXPECT_EQ(caller.evaluations, 2 + too_high);
        EXPECT_EQ(caller.saved_int(25), too_high);
        EXPECT_EQ(caller.saved_int(35), too_high < 10 ? 0 : -5);
        EXPECT_EQ(out.find("\n Warning:  more than 10 function and gradient\n") != std::string::npos, too_high >= 10);
    }
}

TEST_F(Restart, ValuesThatAreNotFiniteEndTheRun) {
    const Problem& problem = named("Wood");
    int searches = 0;
    for (int k = 0; k < 3 * 4 * 3 * 2; ++k) {
        const double bad = std::array{not_a_number, infinite, -infinite}[k % 3];
        const int from = std::array{1, 2, 5, 20}[k / 3 % 4];
        const int what = k / 12 % 3;  // f, g or both
        SCOPED_TRACE(std::to_string(bad) + " from " + std::to_string(from) + " in " + std::to_string(what));
        Caller caller = named(k < 36 ? "Wood" : "Wood in a box").caller(3);
        caller.factr = 10;
        caller.iprint = 0;
        const Objective objective = [&](std::span<const double> x, std::span<double> g) {
            double f = problem.objective(x, g);
            if (caller.evaluations + 1 >= from) {
                if (what != 1) f = bad;
                if (what != 0) g[1] = bad;
            }
            return f;
        };
        const std::string out = printed([&] { caller.run(objective, 500); });
        EXPECT_EQ(caller.text(), caller.evaluations < from ? "CONVERGENCE: REL_REDUCTION_OF_F <= FACTR*EPSMCH"
                                                           : "ABNORMAL_TERMINATION_IN_LNSRCH");
        EXPECT_TRUE(from == 1 || (std::isfinite(caller.f) && std::isfinite(caller.g[1])));
        if (from != 2 || caller.saved_int(35) != -9) continue;
        ++searches;  // one, from the start point
        const std::string count = std::to_string(caller.evaluations - 1);
        EXPECT_THAT(out,
                    testing::HasSubstr("adequate point after " + count + " function\n  and gradient evaluations."));
    }
    EXPECT_GT(searches, 0);
    // A hole in the domain is stepped over.
    Caller caller(3, {0.1});
    caller.factr = 10;
    caller.run([&](std::span<const double> x, std::span<double> g) {
        g[0] = 1 - 0.01 / x[0];
        return x[0] - 0.01 * std::log(x[0]);  // not a number for x < 0
    });
    EXPECT_TRUE(caller.task.starts_with("CONV")) << caller.text();
    EXPECT_NEAR(caller.x[0], 0.01, 1e-6);
}
