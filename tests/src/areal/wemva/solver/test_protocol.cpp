#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "tests/src/areal/wemva/solver/printed.h"
#include "tests/src/areal/wemva/solver/problems.h"
#include "tests/src/areal/wemva/solver/temporary_folder.h"

namespace {

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();

const Problem& named(const std::string& name) {
    static const std::vector<Problem> list = all_problems();
    for (const Problem& problem : list) {
        if (problem.name == name) return problem;
    }
    throw std::runtime_error("no problem " + name);
}

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

TEST(Dpmeps, IsTheSpacingOfDoublePrecision) {
    EXPECT_EQ(solver::dpmeps(), 2.220446049250313e-16);
}

TEST_F(Protocol, TextsComeInTheirOrder) {
    const Problem& problem = named("Rosenbrock");
    Caller caller = problem.caller(4);
    caller.pgtol = 1e-7;
    std::string story;
    for (;;) {
        caller.call();
        if (caller.task.starts_with("FG")) {
            caller.f = problem.objective(caller.x, caller.g);
            story += caller.text() == "FG_START" ? 'S' : caller.text() == "FG_LNSRCH" ? 'L' : '?';
        } else if (caller.task.starts_with("NEW_X")) {
            story += caller.text() == "NEW_X" ? 'N' : '?';
        } else {
            break;
        }
    }
    EXPECT_EQ(caller.text(), "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL");
    // One start, then trial points and an iterate, again and again.
    EXPECT_TRUE(story.starts_with("SL") && story.ends_with("LN")) << story;
    EXPECT_EQ(story.find_first_not_of("LN", 1), std::string::npos) << story;
    EXPECT_EQ(story.find("NN"), std::string::npos) << story;
    EXPECT_FALSE(std::filesystem::exists("iterate.dat"));
}

TEST_F(Protocol, PartitionAndStateAfterTheStart) {
    Caller caller(3, Vector{1, 2, 3, 4, 5, 6, 7}, Vector(7, 3), Vector(7, 5), {0, 1, 2, 3, 2, 3, 1});
    caller.u[4] = caller.l[4];
    caller.factr = 8;
    caller.call();
    EXPECT_EQ(caller.text(), "FG_START");
    //                                               ws wy  sy  ss  yy  wt  wn  snd  z    r    d    t    wa   sg   sgo
    //                                               yg   ygo
    const std::vector<int> expected{21,  9,   36,  1,   22,  43,  52,  61,  70,  79,
                                    115, 151, 158, 165, 172, 179, 203, 206, 209, 212};
    for (int k = 1; k <= 20; ++k) EXPECT_EQ(caller.saved_int(k), expected[static_cast<std::size_t>(k - 1)]) << k;
    EXPECT_EQ(212 + 3 - 1, static_cast<int>(solver::wa_size(7, 3)));
    EXPECT_EQ(solver::iwa_size(7), 21u);
    EXPECT_EQ(caller.x, (Vector{1, 3, 3, 4, 3, 5, 7}));  // into the box
    EXPECT_EQ(caller.lsave, (std::array<int, 4>{1, 1, 0, 0}));
    EXPECT_EQ(std::vector<int>(caller.iwa.begin() + 7, caller.iwa.begin() + 14),
              (std::vector<int>{-1, 0, 0, 0, 3, 0, 0}));
    for (const auto& [k, value] :
         {std::pair{22, 0}, {24, 0}, {26, 0}, {27, 1}, {28, 0}, {30, 0}, {31, 0}, {33, 0}, {34, 0}, {35, 0}, {38, 7}}) {
        EXPECT_EQ(caller.saved_int(k), value) << k;
    }
    EXPECT_EQ(caller.saved_real(1), 1);                          // theta
    EXPECT_EQ(caller.saved_real(3), 8 * 2.220446049250313e-16);  // tol
    EXPECT_EQ(caller.saved_real(5), 2.220446049250313e-16);      // epsmch
}

TEST_F(Protocol, StateWithinARun) {
    // f = x^2 from 4: see the numbers in the comments.
    Caller caller(2, {4});
    const Objective square = bowl({2}, {0});
    caller.call();
    caller.f = square(caller.x, caller.g);
    caller.call();
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    EXPECT_EQ(caller.x[0], 3);                    // d = -8, first step 1/8
    EXPECT_EQ(caller.saved_int(34), 2);           // nfgv
    EXPECT_EQ(caller.saved_int(36), 1);           // ifun
    EXPECT_EQ(caller.saved_int(37), -1);          // no subspace step
    EXPECT_EQ(caller.saved_int(40), 2);           // ileave: none
    EXPECT_EQ(caller.saved_int(41), 0);           // nenter
    EXPECT_EQ(caller.saved_int(43), 0);           // not bracketed
    EXPECT_EQ(caller.saved_int(44), 1);           // first stage
    EXPECT_EQ(caller.saved_real(2), 16);          // fold
    EXPECT_EQ(caller.saved_real(4), 8);           // dnorm
    EXPECT_GE(caller.saved_real(6), 0);           // cpu1
    EXPECT_GE(caller.saved_real(10), 0);          // time1
    EXPECT_EQ(caller.saved_real(11), -64);        // gd
    EXPECT_EQ(caller.saved_real(12), 1e10);       // stpmx
    EXPECT_EQ(caller.saved_real(13), 8);          // sbgnrm
    EXPECT_EQ(caller.saved_real(14), 0.125);      // stp
    EXPECT_EQ(caller.saved_real(15), -64);        // gdold
    EXPECT_EQ(caller.saved_real(16), 64);         // dtd
    EXPECT_EQ(caller.saved_real(17), -64);        // the line search's own: ginit
    EXPECT_EQ(caller.saved_real(27), 5 * 0.125);  // stmax
    EXPECT_EQ(caller.block(13)[0], 8);            // r: g where the search started
    EXPECT_EQ(caller.block(15)[0], 4);            // t: x there
    caller.f = square(caller.x, caller.g);
    caller.call();
    EXPECT_EQ(caller.text(), "NEW_X");
    EXPECT_EQ(caller.saved_int(30), 1);
    caller.call();
    EXPECT_EQ(caller.text(), "FG_LNSRCH");
    EXPECT_EQ(caller.saved_real(1), 2);  // theta: y'y / s'y = 4 / 2
    EXPECT_EQ(caller.saved_int(27), 1);  // head
    EXPECT_EQ(caller.saved_int(28), 1);  // col
    EXPECT_EQ(caller.saved_int(29), 1);  // itail
    EXPECT_EQ(caller.saved_int(31), 1);  // iupdat
    EXPECT_EQ(caller.saved_int(37), 0);  // the subspace minimiser lay inside
    EXPECT_EQ(caller.lsave[3], 1);       // updatd
    EXPECT_EQ(caller.x[0], 0);
    EXPECT_EQ(caller.block(4)[0], -1);  // s
    EXPECT_EQ(caller.block(5)[0], -2);  // y
    EXPECT_EQ(caller.block(6)[0], 2);   // s'y
}

TEST_F(Protocol, ErrorTexts) {
    struct Row {
        const char* what;
        int n, m;
        double factr;
        std::vector<int> nbd;
        Vector l, u;
        std::string text, report;
    };
    const Vector zero(3), one(3, 1);
    for (const Row& row :
         std::vector<Row>{{"no variables", 0, 2, 0, {0, 0, 0}, zero, one, "ERROR: N .LE. 0", ""},
                          {"no pairs", 3, 0, 0, {0, 0, 0}, zero, one, "ERROR: M .LE. 0", ""},
                          {"both, and more: the last one", -1, -1, -1, {0, 0, 0}, zero, one, "ERROR: FACTR .LT. 0", ""},
                          {"indices that isave cannot hold",
                           3,
                           200000000,
                           0,
                           {0, 0, 0},
                           zero,
                           one,
                           "ERROR: N*M TOO LARGE FOR 32-BIT INDICES",
                           ""},
                          {"kind of bound",
                           3,
                           2,
                           0,
                           {0, 4, 0},
                           zero,
                           one,
                           "ERROR: INVALID NBD",
                           "  Input nbd(           2 ) is invalid.\n"},
                          {"kind of bound, negative, the last variable",
                           3,
                           2,
                           0,
                           {9, 0, -1},
                           zero,
                           one,
                           "ERROR: INVALID NBD",
                           "  Input nbd(           3 ) is invalid.\n"},
                          {"bounds that cross",
                           3,
                           2,
                           0,
                           {2, 1, 2},
                           {2, 2, 0},
                           one,
                           "ERROR: NO FEASIBLE SOLUTION",
                           "  l(           1 ) > u(           1 ).  No feasible solution.\n"},
                          {"the last fault wins",
                           3,
                           2,
                           -1,
                           {7, 2, 2},
                           {0, 0, 2},
                           one,
                           "ERROR: NO FEASIBLE SOLUTION",
                           "  l(           3 ) > u(           3 ).  No feasible solution.\n"}}) {
        SCOPED_TRACE(row.what);
        Caller caller(2, Vector(3), row.l, row.u, row.nbd);
        caller.n = row.n, caller.m = row.m, caller.factr = row.factr;
        caller.iprint = 0;
        const std::array<int, 44> before = caller.isave;
        // The row of the end block alone, without the times.
        const std::string out = printed([&] { caller.call(); });
        EXPECT_EQ(caller.text(), row.text);
        const std::string shown = '\n' + row.text + std::string(60 - row.text.size(), ' ') + '\n' + row.report;
        EXPECT_EQ(out.substr(0, out.find("\n Total")), shown);
        for (std::size_t k = 20; k < 44; ++k) EXPECT_EQ(caller.isave[k], before[k]);  // nothing is saved
        EXPECT_EQ(caller.x, Vector(3));
        EXPECT_TRUE(std::filesystem::is_empty("."));
    }
}

TEST_F(Protocol, AFaultyRunCalledAgainIsRefusedAgain) {
    for (const auto& [n, m] : {std::pair{0, 2}, {1, 0}}) {
        Caller caller(2, {1});
        caller.n = n, caller.m = m;
        for (const char* text : {"START", "FG_START", "NEW_X", "FG_LNSRCH", "STOP"}) {
            caller.task = text;
            caller.call();
            EXPECT_EQ(caller.text(), n == 0 ? "ERROR: N .LE. 0" : "ERROR: M .LE. 0") << text;
        }
    }
}

TEST_F(Protocol, StartPointWithoutSlopeEndsAfterOneEvaluation) {
    Caller caller(3, {0, 2}, {0, 0}, {1, 2}, {1, 3});
    caller.run([](std::span<const double>, std::span<double> g) {
        g[0] = 5, g[1] = -7;
        return 1.0;
    });
    EXPECT_EQ(caller.text(), "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL");
    EXPECT_EQ(caller.evaluations, 1);
    EXPECT_EQ(caller.saved_int(30), 0);
    EXPECT_EQ(caller.saved_int(34), 1);
    EXPECT_EQ(caller.saved_int(35), 0);
}

TEST_F(Protocol, NoDecreaseAtAllIsConvergence) {
    Caller caller(3, {1}, {0}, {9}, {2});
    caller.run([&](std::span<const double>, std::span<double> g) {
        g[0] = caller.evaluations == 0 ? 1e-7 : 1e-8;
        return 1.0;  // the sufficient decrease, 1e-3 g g, is below the last bit
    });
    EXPECT_EQ(caller.text(), "CONVERGENCE: REL_REDUCTION_OF_F <= FACTR*EPSMCH");
    EXPECT_EQ(caller.saved_int(30), 1);
    EXPECT_EQ(caller.evaluations, 2);
}

TEST_F(Protocol, ToleranceOfTheDecreaseIsRelativeToTheLargestOfTheValuesAndOne) {
    for (const auto& [value, factr_stops, factr_goes_on] : {std::tuple{1000.0, 1.01, 0.99}, {0.01, 1.01, 0.99}}) {
        for (const bool stops : {true, false}) {
            // One step lowers f by exactly the tolerance for a factor of 1, a power of two in units of the last place.
            const double size = std::max(value, 1.0);
            Caller caller(3, {4}, {0}, {9}, {2});
            caller.factr = (stops ? factr_stops : factr_goes_on) * 1e6;
            int evaluation = 0;
            const Objective objective = [&, value = value](std::span<const double>, std::span<double> g) {
                g[0] = ++evaluation == 1 ? 1e-9 : 1e-10;
                return evaluation == 1 ? value : value - 1e6 * 2.220446049250313e-16 * size;
            };
            caller.advance(objective);
            ASSERT_EQ(caller.text(), "NEW_X");
            caller.call();
            EXPECT_EQ(caller.task.starts_with("CONVERGENCE: REL"), stops) << value << ' ' << caller.text();
        }
    }
}

TEST_F(Protocol, CallersMayStop) {
    const Problem& problem = named("Wood");
    for (const char* text : {"STOP", "STOP: CPU TIME", "STOP:CPU", "STOPPED", "STOP  CPU"}) {
        SCOPED_TRACE(text);
        Caller caller = problem.caller(3);
        Vector x, g;
        double f = 0;
        for (int k = 0; k < 4; ++k) {
            caller.advance(problem.objective);
            x = caller.x, g = caller.g, f = caller.f;
        }
        caller.call();  // the first trial point of the next search
        ASSERT_EQ(caller.text(), "FG_LNSRCH");
        const Vector trial = caller.x;
        caller.f = -5;
        caller.g = {1, 2, 3, 4};
        caller.task = text;
        caller.call();
        EXPECT_EQ(caller.text(), text);
        const bool restores = solver::Text60(text).field().substr(6, 3) == "CPU";
        EXPECT_EQ(restores, std::string(text) == "STOP: CPU TIME" || std::string(text) == "STOP  CPU");
        EXPECT_EQ(caller.x, restores ? x : trial);
        EXPECT_EQ(caller.g, restores ? g : (Vector{1, 2, 3, 4}));
        EXPECT_EQ(caller.f, restores ? f : -5);
    }
}

TEST_F(Protocol, StoppingBeforeTheFirstSearchHasNothingToRestore) {
    Caller caller(2, {4, 5});
    caller.call();
    caller.f = 7;
    caller.task = "STOP: CPU";
    caller.call();
    EXPECT_EQ(caller.x, (Vector{4, 5}));
    EXPECT_EQ(caller.f, 7);
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

TEST_F(Protocol, OnlyTheFirstLettersOfAReplyCount) {
    const Problem& problem = named("Rosenbrock");
    Caller plain = problem.caller(3), vague = problem.caller(3);
    for (int k = 0; k < 40 && !plain.task.starts_with("CONV"); ++k) {
        if (plain.task.starts_with("FG")) {
            plain.f = problem.objective(plain.x, plain.g);
            vague.f = problem.objective(vague.x, vague.g);
            vague.task = vague.task.starts_with("FG_S") ? "FG_STxyz" : "FG_LNxyz";
        } else if (plain.task.starts_with("NEW_X")) {
            vague.task = "NEW_Xyz";
        }
        plain.call();
        vague.call();
        ASSERT_EQ(plain.text(), vague.text());
        ASSERT_EQ(plain.x, vague.x);
    }
}

TEST_F(Protocol, TheCallersEditOfATrialPointCounts) {
    // The caller rounds each trial point to a multiple of 1/8, and even moves one variable beyond its bound.
    Caller caller(3, {5, 5, 5}, {1, 1, 1}, {9, 9, 9}, {2, 2, 2});
    const Objective objective = bowl({1, 2, 3}, {3, -4, 12});
    int left_box = 0;
    for (int k = 0;
         k < 200 && (caller.task == "START" || caller.task.starts_with("FG") || caller.task.starts_with("NEW_X"));
         ++k) {
        if (caller.task.starts_with("FG")) {
            for (double& value : caller.x) value = std::round(8 * value) / 8;
            if (caller.evaluations == 1) caller.x[1] = 0.5, ++left_box;
            caller.f = objective(caller.x, caller.g);
            ++caller.evaluations;
        }
        caller.call();
    }
    EXPECT_EQ(left_box, 1);
    EXPECT_TRUE(caller.task.starts_with("CONVERGENCE") || caller.task.starts_with("ABNORMAL")) << caller.text();
    EXPECT_NEAR(caller.x[0], 3, 0.13);
    EXPECT_EQ(caller.x[2], 9);
}

// Copies of all arrays, at new addresses and with a foreign run in between, continue with the same bits.
TEST_F(Protocol, ARunContinuesFromItsArraysAlone) {
    for (const char* name : {"Wood", "every kind of bound", "membrane between plates", "chain of 25"}) {
        SCOPED_TRACE(name);
        const Problem& problem = named(name);
        const Problem& other = named("dense, 30 variables");
        Caller straight = problem.caller(4);
        auto moved = std::make_unique<Caller>(problem.caller(4));
        Caller foreign = other.caller(2);
        straight.factr = moved->factr = foreign.factr = 1e3;
        const auto step = [](Caller& caller, const Objective& objective) {
            if (caller.task.starts_with("FG")) {
                caller.f = objective(caller.x, caller.g);
                ++caller.evaluations;
            }
            caller.call();
        };
        do {
            step(straight, problem.objective);
            auto copy = std::make_unique<Caller>(*moved);
            std::fill(moved->wa.begin(), moved->wa.end(), not_a_number);
            moved->isave.fill(0);
            moved = std::move(copy);
            step(*moved, problem.objective);
            if (!foreign.task.starts_with("CONV")) step(foreign, other.objective);
            ASSERT_EQ(straight.text(), moved->text());
            ASSERT_EQ(std::memcmp(straight.x.data(), moved->x.data(), straight.x.size() * sizeof(double)), 0);
            ASSERT_EQ(straight.isave, moved->isave);
        } while (straight.task.starts_with("FG") || straight.task.starts_with("NEW_X"));
        EXPECT_TRUE(straight.task.starts_with("CONVERGENCE"));
        EXPECT_GT(straight.evaluations, 10);
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

TEST_F(Protocol, WithOnePairHeadAndTailStayInTheOnlyColumn) {
    const Problem& problem = named("Beale");
    Caller caller = problem.caller(1);
    caller.pgtol = 1e-6;
    int updates = 0;
    do {
        caller.advance(problem.objective);
        if (caller.saved_int(28) == 0) continue;
        ++updates;
        EXPECT_EQ(caller.saved_int(27), 1);
        EXPECT_EQ(caller.saved_int(29), 1);
        EXPECT_EQ(caller.saved_int(28), 1);
    } while (caller.task.starts_with("NEW_X"));
    EXPECT_GT(updates, 5);
}

TEST_F(Protocol, FirstStepOfAFreeOneSidedAndBoxedProblem) {
    const Objective objective = bowl({1, 1}, {0, 0});
    const auto first_trial = [&](std::vector<int> nbd) {
        Caller caller(2, {3, 4}, {-100, -100}, {100, 100}, std::move(nbd));
        caller.call();
        caller.f = objective(caller.x, caller.g);
        caller.call();
        return caller.x;
    };
    // Steepest descent of length 1 when some variable is not boxed, the minimiser of the model in the box else.
    for (const std::vector<int>& nbd : {std::vector{0, 0}, {1, 1}, {2, 3}}) {
        const Vector x = first_trial(nbd);
        EXPECT_NEAR(x[0], 3 - 0.6, 1e-15);
        EXPECT_NEAR(x[1], 4 - 0.8, 1e-15);
    }
    EXPECT_EQ(first_trial({2, 2}), (Vector{0, 0}));
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
    EXPECT_EQ(caller.saved_int(28), 0);   // col
    EXPECT_EQ(caller.saved_int(27), 1);   // head
    EXPECT_EQ(caller.saved_int(31), 0);   // iupdat
    EXPECT_EQ(caller.saved_int(35), 0);   // info
    EXPECT_EQ(caller.saved_real(1), 1);   // theta
    EXPECT_EQ(caller.lsave[3], 0);        // updatd
    EXPECT_EQ(caller.saved_int(37), -1);  // the search runs along the Cauchy direction
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

TEST_F(Restart, FirstFactorisationOfTheSubspaceMatrix) {
    const Problem& problem = named("Wood in a box");
    Caller caller = with_pairs(problem, 5, 5);
    caller.block(11)[0] = -1e9;  // an old element of Y'ZZ'Y
    expect_restart(caller, problem, "Nonpositive definiteness in Cholesky factorization in formk;");
}

TEST_F(Restart, SecondFactorisationOfTheSubspaceMatrix) {
    const Problem& problem = named("Wood in a box");
    Caller caller = with_pairs(problem, 5, 5);
    caller.block(11)[5 + 10 * 5] = -1e9;  // an old element of S'AA'S
    expect_restart(caller, problem, "Nonpositive definiteness in Cholesky factorization in formk;");
}

TEST_F(Restart, FactorisationOfTheMiddleMatrix) {
    for (const char* name : {"Wood in a box", "Wood"}) {
        const Problem& problem = named(name);
        Caller caller = with_pairs(problem, 5, 5);
        caller.block(7)[0] = -1e9;  // an old element of S'S
        expect_restart(caller, problem, "Nonpositive definiteness in Cholesky factorization in formt;");
    }
}

TEST_F(Restart, SingularFactorInTheCauchySearch) {
    const Problem& problem = named("Wood in a box");
    Caller caller = with_pairs(problem, 5, 5);
    skip_next_update(caller);
    caller.block(9)[0] = 0;  // wt
    expect_restart(caller, problem, "Singular triangular system detected;");
}

TEST_F(Restart, SingularFactorInTheSubspaceStep) {
    const Problem& problem = named("Wood");
    Caller caller = with_pairs(problem, 5, 5);
    caller.call();  // factors are formed
    caller.f = problem.objective(caller.x, caller.g);
    caller.advance(problem.objective);
    ASSERT_EQ(caller.text(), "NEW_X");
    skip_next_update(caller);
    caller.block(10)[0] = 0;  // wn
    expect_restart(caller, problem, "Singular triangular system detected;");
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
    EXPECT_EQ(again.saved_int(34), nfgv + 1);  // only the trial point handed out
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(again.block(15)[i], x[i]);  // the new search starts where the old one did
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(again.block(13)[i], g[i]);
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
    EXPECT_EQ(caller.saved_int(34), nfgv + 20 + 1);  // the 21st point of the old search does not count
    EXPECT_EQ(caller.saved_int(36), 1);
    EXPECT_EQ(caller.saved_real(2), 0);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(caller.block(15)[i], x[i]);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(caller.block(13)[i], g[i]);
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
    EXPECT_EQ(caller.saved_int(34), 21);
    EXPECT_EQ(caller.saved_int(36), 20);
    EXPECT_EQ(caller.saved_int(25), 19);
    EXPECT_EQ(caller.saved_int(35), -9);
    EXPECT_EQ(caller.saved_int(30), 1);
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
    // Slope -1 throughout: no curvature between the iterates; then a bowl.
    Caller caller(3, {0}, {-1}, {10}, {2});
    caller.iprint = 1;
    const auto linear = [](std::span<const double> x, std::span<double> g) {
        g[0] = x[0] < 1.5 ? -1 : x[0] - 2.5;
        return x[0] < 1.5 ? -x[0] : 0.5 * (x[0] - 2.5) * (x[0] - 2.5) - 2;
    };
    std::string out;
    out = printed([&] { caller.advance(linear); });
    EXPECT_EQ(caller.x[0], 1);  // the full step along -g, at the limit of the first search
    out = printed([&] { caller.call(); });
    EXPECT_EQ(out, "  ys= 0.000E+00  -gs= 1.000E+00 BFGS update SKIPPED\n");
    EXPECT_EQ(caller.saved_int(26), 1);  // nskip
    EXPECT_EQ(caller.saved_int(28), 0);
    EXPECT_EQ(caller.lsave[3], 0);
    caller.iprint = -1;
    caller.run(linear);
    EXPECT_TRUE(caller.task.starts_with("CONVERGENCE"));
    EXPECT_NEAR(caller.x[0], 2.5, 1e-6);
}

TEST_F(Restart, ReportOfASkippedUpdateScalesTheSlopeWithTheStep) {
    // Linear; the second search runs 15 times its full step, to the bound of the first variable.
    Caller caller(3, {0, 0}, {0, 0}, {16, 1e6}, {2, 2});
    const auto linear = [](std::span<const double> x, std::span<double> g) {
        g[0] = -1, g[1] = -1e-3;
        return -x[0] - 1e-3 * x[1];
    };
    caller.advance(linear);
    caller.advance(linear);
    ASSERT_EQ(caller.x[0], 16);
    caller.iprint = 1;
    EXPECT_EQ(printed([&] { caller.call(); }), "  ys= 0.000E+00  -gs= 1.500E+01 BFGS update SKIPPED\n");
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
    for (const double bad : {not_a_number, infinite, -infinite}) {
        for (const int from : {1, 2, 5, 20}) {
            for (const int what : {0, 1, 2}) {
                for (const char* bounds : {"Wood", "Wood in a box"}) {
                    SCOPED_TRACE(std::to_string(bad) + " from " + std::to_string(from) + " in " + std::to_string(what));
                    Caller caller = named(bounds).caller(3);
                    caller.factr = 10;
                    caller.run(
                        [&](std::span<const double> x, std::span<double> g) {
                            double f = problem.objective(x, g);
                            if (caller.evaluations + 1 >= from) {
                                if (what != 1) f = bad;
                                if (what != 0) g[1] = bad;
                            }
                            return f;
                        },
                        500);
                    EXPECT_LT(caller.evaluations, 500);
                    EXPECT_TRUE(caller.task.starts_with("ABNORMAL") || caller.task.starts_with("CONV"))
                        << caller.text();
                    if (what == 0 && from > 1) {
                        EXPECT_TRUE(std::isfinite(caller.f));
                    }
                }
            }
        }
    }
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
