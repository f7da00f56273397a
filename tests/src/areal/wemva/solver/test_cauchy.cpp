#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "src/areal/wemva/solver/cauchy.h"
#include "tests/src/areal/wemva/solver/caller.h"
#include "tests/src/areal/wemva/solver/dense_model.h"
#include "tests/src/areal/wemva/solver/output.h"

using namespace morvane;

using solver::Where;

TEST(Bounds, StartPointIsProjectedAndCounted) {
    struct Row {
        const char* what;
        Vector x;
        std::vector<int> nbd;
        Vector projected;
        bool prjctd, cnstnd, boxed;
        std::vector<int> iwhere;
        int at_bounds;
    };
    for (const Row& row :
         std::vector<Row>{{"inside", {3, 4}, {2, 2}, {3, 4}, false, true, true, {0, 0}, 0},
                          {"exactly at bounds", {1, 9}, {2, 2}, {1, 9}, false, true, true, {0, 0}, 2},
                          {"one below, one at its bound", {0, 9}, {2, 2}, {1, 9}, true, true, true, {0, 0}, 2},
                          {"one above, one inside", {10, 5}, {3, 2}, {9, 5}, true, true, false, {0, 0}, 1},
                          {"bounds that do not hold", {0, 10}, {3, 1}, {0, 10}, false, true, false, {0, 0}, 0},
                          {"free", {0, 10}, {0, 0}, {0, 10}, false, false, false, {-1, -1}, 0}}) {
        SCOPED_TRACE(row.what);
        const Vector l{1, 1}, u{9, 9};
        Vector x = row.x;
        std::vector<int> iwhere(2, 99);
        solver::Kind kind;
        const std::string out = printed([&] { kind = solver::active({l, u, row.nbd}, x, iwhere, 1); });
        EXPECT_EQ(x, row.projected);
        EXPECT_EQ(kind.prjctd, row.prjctd);
        EXPECT_EQ(kind.cnstnd, row.cnstnd);
        EXPECT_EQ(kind.boxed, row.boxed);
        EXPECT_EQ(iwhere, row.iwhere);
        EXPECT_EQ(out, std::string(kind.prjctd ? " The initial X is infeasible.  Restart with its projection.\n" : "") +
                           (kind.cnstnd ? "" : " This problem is unconstrained.\n") + "\nAt X0         " +
                           std::to_string(row.at_bounds) + " variables are exactly at the bounds\n");
    }
}

TEST(Bounds, ProjectedGradient) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Row {
        Vector x, g;
        double norm;
    };
    // One variable of each kind of bound, 0 to 1.
    for (const Row& row : {Row{{0, 0, 0, 0}, {-7, 0, 0, 0}, 7}, Row{{0, 0.5, 0, 0}, {0, 7, 0, 0}, 0.5},
                           Row{{0, 0.5, 0, 0}, {0, -7, 0, 0}, 7}, Row{{0, 0, 0.25, 0}, {0, 0, 7, 0}, 0.25},
                           Row{{0, 0, 0.25, 0}, {0, 0, -7, 0}, 0.75}, Row{{0, 0, 0.25, 0}, {0, 0, -0.5, 0}, 0.5},
                           Row{{0, 0, 0, 0.25}, {0, 0, 0, 7}, 7}, Row{{0, 0, 0, 0.25}, {0, 0, 0, -7}, 0.75},
                           Row{{9, -3, 1, 2}, {0, 1, 0, -1}, 3},  // beyond its bounds, where a caller put it
                           Row{{0, 0, 0, 0}, {nan, 0, 0, 0}, nan}, Row{{0, 0, 0, 0}, {nan, -1, 0, 0}, nan},
                           Row{{0, 0, 0, 0}, {0, nan, 0, 0}, nan},  // at its bound
                           Row{{0, nan, 0, 0}, {0, 1, 0, 0}, nan}}) {
        const double norm = solver::projgr({Vector(4, 0), Vector(4, 1), std::vector<int>{0, 1, 2, 3}}, row.x, row.g);
        EXPECT_TRUE(norm == row.norm || (std::isnan(norm) && std::isnan(row.norm))) << norm << ' ' << row.norm;
    }
}

namespace {

struct Cauchy {
    Vector l, u, x, g;
    std::vector<int> nbd, iwhere, iorder;
    Vector t, d, xcp, work;
    int nint = -1;

    explicit Cauchy(std::size_t n, int m)
        : l(n), u(l), x(l), g(l), nbd(n), iwhere(nbd), iorder(nbd), t(l), d(l), xcp(n, -999) {
        work.assign(static_cast<std::size_t>(8 * m), std::numeric_limits<double>::quiet_NaN());
    }

    solver::Bounds bounds() const { return {l, u, nbd}; }
    double* c() { return work.data() + work.size() / 4; }
    /// With the states that the start of a run gives.
    int find(const solver::Pairs& pairs) {
        Vector start = x;
        solver::active(bounds(), start, iwhere, -1);
        return again(pairs);
    }
    int again(const solver::Pairs& pairs) {
        const std::size_t m2 = work.size() / 4;
        double* w = work.data();
        return solver::cauchy(pairs, bounds(), {x, g, iorder, iwhere, t, d, xcp}, {w, w + m2, w + 2 * m2, w + 3 * m2},
                              nint, -1, solver::projgr(bounds(), x, g), 2.220446049250313e-16);
    }
};

/// The slow way: break points sorted, the model's matrix in full, each segment's parabola from its definition.
Vector slow_cauchy(const Cauchy& problem, const Matrix& B) {
    const std::size_t n = problem.x.size();
    Vector d(n), limit(n, std::numeric_limits<double>::infinity());
    for (std::size_t i = 0; i < n; ++i) {
        d[i] = -problem.g[i];
        const int nbd = problem.nbd[i];
        if (d[i] < 0 && (nbd == 1 || nbd == 2)) limit[i] = (problem.x[i] - problem.l[i]) / -d[i];
        if (d[i] > 0 && nbd >= 2) limit[i] = (problem.u[i] - problem.x[i]) / d[i];
    }
    Vector times(limit);
    std::sort(times.begin(), times.end());
    Vector at(problem.x);
    double now = 0;
    for (const double next : times) {
        for (std::size_t i = 0; i < n; ++i) {
            if (limit[i] <= now) d[i] = 0;
        }
        Vector step(n);
        for (std::size_t i = 0; i < n; ++i) step[i] = at[i] - problem.x[i];
        const Vector Bd = times_vector(B, d);
        double slope = 0, curvature = 0;
        for (std::size_t i = 0; i < n; ++i) {
            slope += d[i] * problem.g[i] + step[i] * Bd[i];
            curvature += d[i] * Bd[i];
        }
        const double best = slope < 0 ? -slope / curvature : 0;
        if (!(curvature > 0) || best < next - now) {
            for (std::size_t i = 0; i < n && curvature > 0; ++i) at[i] += best * d[i];
            return at;
        }
        for (std::size_t i = 0; i < n; ++i) at[i] += (next - now) * d[i];
        now = next;
    }
    return at;
}

}  // namespace

TEST(Cauchy, AgreesWithTheSlowSearchOnRandomProblems) {
    std::mt19937 random(11);
    const auto uniform = [&] { return static_cast<double>(random()) / 4294967296.0; };
    int longest = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const std::size_t n = 1 + random() % 12;
        const int m = 1 + static_cast<int>(random() % 5);
        PairStore store(static_cast<int>(n), m, random());
        store.add(static_cast<int>(random() % 8));
        Cauchy cauchy(n, m);
        for (std::size_t i = 0; i < n; ++i) {
            cauchy.nbd[i] = trial % 10 == 0 ? 0 : static_cast<int>(random() % 4);
            cauchy.l[i] = -uniform();
            cauchy.u[i] = uniform();
            cauchy.x[i] = cauchy.l[i] + uniform() * (cauchy.u[i] - cauchy.l[i]);
            cauchy.g[i] = 4 * (uniform() - 0.5);
            if (random() % 8 == 0) cauchy.x[i] = random() % 2 ? cauchy.l[i] : cauchy.u[i];
            if (random() % 12 == 0) cauchy.g[i] = 0;
            if (random() % 12 == 0) cauchy.u[i] = cauchy.l[i] = cauchy.x[i];
        }
        SCOPED_TRACE(trial);
        if (solver::projgr(cauchy.bounds(), cauchy.x, cauchy.g) == 0) continue;
        ASSERT_EQ(cauchy.find(store.pairs), 0);
        const Vector expected = slow_cauchy(cauchy, model_matrix(store.pairs));
        for (std::size_t i = 0; i < n; ++i) {
            EXPECT_NEAR(cauchy.xcp[i], expected[i], 1e-9) << i;
            const int state = cauchy.iwhere[i];
            const bool held = state == Where::at_lower || state == Where::at_upper;
            EXPECT_TRUE(!held || cauchy.xcp[i] == (state == Where::at_lower ? cauchy.l : cauchy.u)[i]);
        }
        // c = W'(xcp - x), which the reduced gradient is made of.
        const solver::Pairs& pairs = store.pairs;
        for (int k = 0; k < pairs.col; ++k) {
            double y = 0, s = 0;
            for (std::size_t i = 0; i < n; ++i) {
                y += pairs.y(k)[i] * (cauchy.xcp[i] - cauchy.x[i]);
                s += pairs.theta * pairs.s(k)[i] * (cauchy.xcp[i] - cauchy.x[i]);
            }
            EXPECT_NEAR(cauchy.c()[k], y, 1e-9);
            EXPECT_NEAR(cauchy.c()[pairs.col + k], s, 1e-9);
        }
        longest = std::max(longest, cauchy.nint);
    }
    EXPECT_GE(longest, 5);  // the walk over many break points was taken
}

TEST(Cauchy, StatesByHand) {
    PairStore none(6, 2, 1);
    Cauchy cauchy(6, 2);
    //             free  at lower,  at lower,  at upper  fixed  no slope
    //                   held       released   held
    cauchy.nbd = {0, 1, 2, 3, 2, 2};
    cauchy.l = {0, 1, 1, 0, 7, 0};
    cauchy.u = {0, 0, 5, 2, 7, 9};
    cauchy.x = {3, 1, 1, 2, 7, 4};
    cauchy.g = {2, 1, -1, -3, 5, 0};
    ASSERT_EQ(cauchy.find(none.pairs), 0);
    EXPECT_EQ(cauchy.iwhere, (std::vector<int>{Where::unbounded, Where::at_lower, Where::between, Where::at_upper,
                                               Where::fixed, Where::unmoved}));
    EXPECT_EQ(cauchy.xcp, (Vector{1, 1, 2, 2, 7, 4}));  // B = I: the whole of -g
    EXPECT_EQ(cauchy.nint, 1);
    // All at bounds in the next one, passed one after the other; the free one has no slope now.
    cauchy.g = {0, 9, -8, 9, 0, -20};
    cauchy.x = {3, 2, 1, 2, 7, 4};
    cauchy.nbd[3] = 2;
    ASSERT_EQ(cauchy.again(none.pairs), 0);
    EXPECT_EQ(cauchy.iwhere, (std::vector<int>{Where::unbounded, Where::at_lower, Where::at_upper, Where::at_lower,
                                               Where::fixed, Where::at_upper}));
    EXPECT_EQ(cauchy.xcp, (Vector{3, 1, 5, 0, 7, 9}));
    // At a bound and without slope: held there, as with a slope outwards.
    cauchy.nbd = {1, 3, 2, 2, 0, 0};
    cauchy.x = {0, 0, 1, 2, 0, 0};
    cauchy.g = {0, 0, -0.0, 0, 1, 0};
    ASSERT_EQ(cauchy.find(none.pairs), 0);
    EXPECT_EQ(std::vector<int>(cauchy.iwhere.begin(), cauchy.iwhere.begin() + 4),
              (std::vector<int>{Where::at_lower, Where::at_upper, Where::at_lower, Where::at_upper}));
}

TEST(Cauchy, MinimiserExactlyAtABoundHoldsTheVariableThere) {
    PairStore none(2, 1, 1);
    Cauchy cauchy(2, 1);
    cauchy.nbd = {1, 0};
    cauchy.x = {4, 0}, cauchy.g = {4, 3};  // break point and minimiser at t = 1
    ASSERT_EQ(cauchy.find(none.pairs), 0);
    EXPECT_EQ(cauchy.iwhere, (std::vector<int>{Where::at_lower, Where::unbounded}));
    EXPECT_EQ(cauchy.xcp, (Vector{0, -3}));
    EXPECT_EQ(cauchy.nint, 2);
}

// Once the steep variable is held, slope and curvature are rounding residues of it: their quotient must not carry the
// free one away.
TEST(Cauchy, CurvatureLostInRoundingHasAFloor) {
    PairStore none(2, 1, 1);
    for (int k = 1; k < 100; ++k) {
        Cauchy cauchy(2, 1);
        cauchy.nbd = {1, 0};
        cauchy.x = {0.01 * k, 0}, cauchy.g = {1, 1e-9};
        ASSERT_EQ(cauchy.find(none.pairs), 0);
        EXPECT_EQ(cauchy.xcp[0], 0);
        EXPECT_LT(std::abs(cauchy.xcp[1]), 1e-8) << k;
    }
}

TEST(Cauchy, APointShortOfABoundIsWithinItToTheLastBit) {
    int rounded = 0;
    for (int k = 1; k < 5000; ++k) {
        Cauchy cauchy(2, 1);
        const bool lower = k % 2 == 0;
        const double sign = lower ? 1 : -1;
        const double bound = 0.001 * k;
        const double x = bound + 0.0137 * k;
        const double g = 0.3 + 0.01 * k;
        cauchy.nbd = {lower ? 1 : 3, 0};
        cauchy.l[0] = bound, cauchy.u[0] = -bound;
        cauchy.x[0] = sign * x;
        cauchy.g[0] = sign * g;
        // B = theta I, from a pair along the other variable; the minimiser, at t = 1 / theta, is just inside.
        const double theta = std::nextafter(1 / ((x - bound) / g), 1e9);
        PairStore store(2, 1, 1);
        store.pairs.iupdat = 1;
        solver::matupd(store.pairs, Vector{0, 1}, Vector{0, theta}, theta * theta, theta, 1, 1);
        ASSERT_EQ(solver::formt(store.pairs), 0);
        ASSERT_EQ(cauchy.find(store.pairs), 0);
        EXPECT_GE(sign * cauchy.xcp[0], bound);
        const double slope = -g * g;
        rounded += cauchy.iwhere[0] == Where::between && x - -slope / (-store.pairs.theta * slope) * g < bound;
    }
    EXPECT_GT(rounded, 0);  // the case occurs
}

TEST(Cauchy, WithoutAWayToMoveThePointIsX) {
    PairStore store(2, 2, 5), none(2, 2, 5);
    store.add(2);
    struct Row {
        const char* what;
        const PairStore& store;
        std::vector<int> nbd, iwhere;
        double x;
    };
    for (const Row& row :
         {Row{"zero projected gradient: the states stay", store, {1, 0}, {-77, 88}, 0},
          Row{"beyond its bound, where a caller moved it, held by the gradient", store, {1, 1}, {0, 0}, -1},
          Row{"the same with a free variable without slope", none, {1, 0}, {0, -1}, -1}}) {
        SCOPED_TRACE(row.what);
        Cauchy cauchy(2, 2);
        cauchy.nbd = row.nbd, cauchy.iwhere = row.iwhere;
        cauchy.x = {row.x, 5}, cauchy.g = {3, 0};
        ASSERT_EQ(cauchy.again(row.store.pairs), 0);
        EXPECT_EQ(cauchy.xcp, cauchy.x);
        if (row.x == 0) {
            EXPECT_EQ(cauchy.nint, 0);
            EXPECT_EQ(cauchy.iwhere, row.iwhere);
        }
        for (int k = 0; k < 2 * row.store.pairs.col; ++k) EXPECT_EQ(cauchy.c()[k], 0);
    }
}

TEST(Cauchy, ASingularFactorIsReported) {
    PairStore store(3, 2, 5);
    store.add(2);
    store.pairs.wt(1, 1) = 0;
    Cauchy cauchy(3, 2);
    cauchy.g = {1, 1, 1};
    EXPECT_EQ(cauchy.find(store.pairs), 2);
}
