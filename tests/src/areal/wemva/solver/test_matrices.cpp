#include <gtest/gtest.h>

#include <algorithm>

#include "src/areal/wemva/solver/cauchy.h"
#include "src/areal/wemva/solver/dense.h"
#include "src/areal/wemva/solver/matrices.h"
#include "src/areal/wemva/solver/subspace.h"
#include "tests/src/areal/wemva/solver/dense_model.h"
#include "tests/src/areal/wemva/solver/output.h"
#include "tests/src/areal/wemva/solver/problems.h"

using namespace morvane;

TEST(Dense, CholeskyNeedsPositivePivots) {
    for (const auto& [last, info] : {std::pair{1.25, 0}, {1.0, 2}, {std::numeric_limits<double>::quiet_NaN(), 2}}) {
        Vector a{4, -7, 2, last};  // the second pivot is last - 1
        EXPECT_EQ(solver::dpofa(a.data(), 2, 2), info) << last;
    }
}

TEST(Dense, TriangularSystemsOfAllFourKinds) {
    // Both triangles of one array, upper [2 1 3; . 4 5; . . 6] and lower [2 . .; 7 4 .; 8 9 6].
    const Vector t{2, 7, 8, -1, 1, 4, 9, -1, 3, 5, 6, -1};
    struct Row {
        int job;
        Vector b;  // for x = 1 2 3
    };
    for (const Row& row : {Row{1, {13, 23, 18}}, Row{11, {2, 9, 31}}, Row{0, {2, 15, 44}}, Row{10, {40, 35, 18}}}) {
        Vector b = row.b;
        EXPECT_EQ(solver::dtrsl(t.data(), 4, 3, b.data(), row.job), 0);
        EXPECT_EQ(b, (Vector{1, 2, 3})) << row.job;
        Vector singular = t;
        singular[5] = 0;
        b = row.b;
        EXPECT_EQ(solver::dtrsl(singular.data(), 4, 3, b.data(), row.job), 2);
        EXPECT_EQ(b, row.b);
    }
}

TEST(Pairs, TheSquaredStepComesFromTheUnscaledDirection) {
    PairStore store(2, 2, 1);
    const Vector d{1.5, 2}, y{3, 4};  // direction 3, 4 scaled by 0.5
    store.pairs.iupdat = 1;
    solver::matupd(store.pairs, d, y, 25, 12.5, 0.5, 25);
    EXPECT_EQ(store.pairs.ss(0, 0), 6.25);
    EXPECT_EQ(store.pairs.sy(0, 0), 12.5);
    EXPECT_EQ(store.pairs.theta, 2);
    // At the full step it is the caller's number, whatever d says.
    solver::matupd(store.pairs, d, y, 25, 12.5, 1, 77);
    EXPECT_EQ(store.pairs.ss(0, 0), 77);
}

TEST(Pairs, ASingularFactorIsReported) {
    PairStore store(3, 3, 1);
    store.add(3);
    store.pairs.wt(1, 1) = 0;
    std::vector<int> index{1, 2, 3};
    const Vector three(3, 1), six(6, 1);
    Vector r(3), out(6);
    EXPECT_EQ(solver::bmv(store.pairs, six.data(), out.data()), 2);
    const solver::FreeSet set{index, index, 3, 0, 4};
    EXPECT_EQ(solver::cmprlb(store.pairs, set, three, three, three, six.data(), out.data(), true, r), -8);
}

namespace {

/// Sums over free or active variables of a'b, by the flags.
double masked(int n, const double* a, const double* b, const std::vector<bool>& is_free, bool want_free) {
    double sum = 0;
    for (int i = 0; i < n; ++i) {
        if (is_free[static_cast<std::size_t>(i)] == want_free) sum += a[i] * b[i];
    }
    return sum;
}

/// Compare the lower triangle of [Y'ZZ'Y, L_a'+R_z'; L_a+R_z, S'AA'S] with its definition.
void expect_wn1(const solver::Pairs& p, const std::vector<bool>& is_free, View<const double, 2> wn1, double tolerance) {
    const int m = p.m;
    for (int i = 0; i < p.col; ++i) {
        for (int j = 0; j < p.col; ++j) {
            const double scale = std::sqrt(solver::ddot(p.n, p.s(i), p.s(i)) * solver::ddot(p.n, p.y(j), p.y(j)));
            EXPECT_NEAR(wn1(m + i, j), masked(p.n, p.s(i), p.y(j), is_free, i <= j), tolerance * scale)
                << "(2,1) " << i << ' ' << j;
            if (j > i) continue;
            const double yy = std::sqrt(solver::ddot(p.n, p.y(i), p.y(i)) * solver::ddot(p.n, p.y(j), p.y(j)));
            const double ss = std::sqrt(solver::ddot(p.n, p.s(i), p.s(i)) * solver::ddot(p.n, p.s(j), p.s(j)));
            EXPECT_NEAR(wn1(i, j), masked(p.n, p.y(i), p.y(j), is_free, true), tolerance * yy)
                << "(1,1) " << i << ' ' << j;
            EXPECT_NEAR(wn1(m + i, m + j), masked(p.n, p.s(i), p.s(j), is_free, false), tolerance * ss)
                << "(2,2) " << i << ' ' << j;
        }
    }
}

/// A store of pairs with sets of free variables that change, as the main iteration drives them.
struct Subspace {
    PairStore store;
    std::vector<int> index, indx2, iwhere;
    solver::FreeSet set;
    int iteration = 0;
    Array<double, 2> wn, wn1;

    Subspace(int n, int m, unsigned seed) : store(n, m, seed), wn({2 * m, 2 * m}), wn1({2 * m, 2 * m}) {
        for (auto* list : {&index, &indx2, &iwhere}) list->resize(static_cast<std::size_t>(n));
        set = {index, indx2};
        wn1.fill(std::numeric_limits<double>::quiet_NaN());
    }
    Subspace(const Subspace&) = delete;
    void choose(double share_free) {
        for (int& where : iwhere) where = store.uniform() < share_free ? 0 : 1;
    }
    /// @return info of formk
    int step(bool updatd) {
        if (updatd) store.add(1);
        solver::freev(set, iwhere, updatd, true, -1, iteration++);
        return solver::formk(store.pairs, set, updatd, wn, wn1);
    }
};

}  // namespace

// The step of the subspace against -(Z'BZ)^-1 Z'(B (z - x) + g) with B from the update formula.
TEST(Subsm, IsTheNewtonStepInTheFreeVariables) {
    constexpr double inf = std::numeric_limits<double>::infinity();
    for (int trial = 0; trial < 60; ++trial) {
        SCOPED_TRACE(trial);
        const int n = 10;
        const int m = 1 + trial % 4;
        Subspace subspace(n, m, static_cast<unsigned>(trial));
        for (int k = 0; k <= trial % 7; ++k) {
            subspace.choose(trial % 5 == 0 ? 1.0 : 0.7);
            subspace.iwhere[3] = 0;
            ASSERT_EQ(subspace.step(true), 0);
        }
        const solver::Pairs& p = subspace.store.pairs;
        Vector x(n), z(n), g(n), r(n);
        for (std::size_t i = 0; i < x.size(); ++i) {
            x[i] = subspace.store.uniform() - 0.5;
            z[i] = x[i] + 0.3 * (subspace.store.uniform() - 0.5);
            g[i] = subspace.store.uniform() - 0.5;
        }
        const Matrix B = model_matrix(p);
        Vector moved(n);
        for (std::size_t i = 0; i < x.size(); ++i) moved[i] = z[i] - x[i];
        const Vector slope = times_vector(B, moved);
        const auto nfree = static_cast<std::size_t>(subspace.set.nfree);
        Matrix reduced = zeros(nfree);
        Vector rhs(nfree), c(static_cast<std::size_t>(2 * p.col)), mc(c);
        for (std::size_t a = 0; a < nfree; ++a) {
            const auto i = static_cast<std::size_t>(subspace.index[a] - 1);
            rhs[a] = -slope[i] - g[i];
            for (std::size_t b = 0; b < nfree; ++b) {
                reduced[a][b] = B[i][static_cast<std::size_t>(subspace.index[b] - 1)];
            }
        }
        for (int k = 0; k < p.col; ++k) {
            c[static_cast<std::size_t>(k)] = solver::ddot(n, p.y(k), moved.data());
            c[static_cast<std::size_t>(p.col + k)] = p.theta * solver::ddot(n, p.s(k), moved.data());
        }
        ASSERT_EQ(solver::cmprlb(p, subspace.set, x, g, z, c.data(), mc.data(), true, r), 0);
        for (std::size_t a = 0; a < nfree; ++a) EXPECT_NEAR(r[a], rhs[a], 1e-10);

        const Vector step = dense_solve(reduced, rhs);
        for (const bool boxed : {false, true}) {
            // A box that cuts the step of each free variable i at (i + 2) / 4 of its length, the first one the most.
            double alpha = 1;
            std::size_t blocking = 0;
            Vector l(n, -inf), u(n, inf), end(z), d(r);
            std::vector<int> nbd(n, 0);
            for (std::size_t a = 0; a < nfree && boxed; ++a) {
                const auto i = static_cast<std::size_t>(subspace.index[a] - 1);
                const double share = static_cast<double>(a + 2) / 4;
                nbd[i] = a % 2 ? 2 : step[a] < 0 ? 1 : 3;
                (step[a] < 0 ? l : u)[i] = z[i] + share * step[a];
                if (share < alpha) alpha = share, blocking = i;
            }
            int iword = -1;
            Vector wv(c.size());
            ASSERT_EQ(solver::subsm(p, subspace.set.free(), {l, u, nbd}, end, d, iword, wv.data(), subspace.wn, -1), 0);
            EXPECT_EQ(iword, boxed ? 1 : 0);
            for (std::size_t i = 0; i < x.size(); ++i) {
                const auto at = std::find(subspace.index.begin(), subspace.index.begin() + subspace.set.nfree, i + 1);
                const auto a = static_cast<std::size_t>(at - subspace.index.begin());
                EXPECT_NEAR(end[i], z[i] + (a < nfree ? alpha * step[a] : 0), 1e-9) << i;
            }
            if (boxed) {
                EXPECT_TRUE(end[blocking] == l[blocking] || end[blocking] == u[blocking]);
            }
        }
    }
}

namespace {

/// B = 2 I, all variables free: the step is half of r.
struct Doubled {
    Subspace subspace;
    Vector l, u, x, r, wv{0, 0};
    std::vector<int> nbd;
    int iword = -7;

    explicit Doubled(int n, double x, double r)
        : subspace(n, 1, 1), l(subspace.index.size()), u(l), x(l.size(), x), r(l.size(), r), nbd(l.size()) {
        solver::Pairs& p = subspace.store.pairs;
        p.iupdat = 1;
        solver::matupd(p, Vector(l.size(), -1), Vector(l.size(), -2), 4 * n, 2 * n, 1, n);
        EXPECT_EQ(solver::formt(p), 0);
        for (int i = 0; i < n; ++i) subspace.index[static_cast<std::size_t>(i)] = i + 1;
        subspace.set.nfree = n;
        subspace.set.ileave = n + 1;
        EXPECT_EQ(solver::formk(p, subspace.set, true, subspace.wn, subspace.wn1), 0);
    }
    int step(int iprint = -1) {
        return solver::subsm(subspace.store.pairs, subspace.index, {l, u, nbd}, x, r, iword, wv.data(), subspace.wn,
                             iprint);
    }
};

}  // namespace

TEST(Subsm, LengthsOfTheStepByHand) {
    struct Row {
        const char* what;
        int nbd;
        double l, u, r, x;
        int iword;
    };
    for (const Row& row :
         {Row{"free", 0, 2, 2, -6, 0, 0}, Row{"cut back", 1, 1, 0, -6, 1, 1}, Row{"no step", 1, 1, 0, 0, 3, 0},
          Row{"exactly the whole step is inside", 1, 0, 0, -6, 0, 0}, Row{"at the bound already", 2, 3, 9, -6, 3, 1},
          Row{"beyond it", 1, 4, 0, -6, 4, 1}, Row{"only an upper bound, behind", 3, 0, 3, -6, 0, 0}}) {
        SCOPED_TRACE(row.what);
        Doubled one(1, 3, row.r);
        one.nbd = {row.nbd};
        one.l = {row.l}, one.u = {row.u};
        ASSERT_EQ(one.step(), 0);
        EXPECT_EQ(one.x[0], row.x);
        EXPECT_EQ(one.iword, row.iword);
    }
    Doubled singular(1, 3, -6);
    singular.subspace.wn(1, 1) = 0;
    EXPECT_EQ(singular.step(), 2);
}

TEST(Subsm, AVariableBeyondItsBoundHoldsTheOthersToo) {
    for (const int sign : {-1, 1}) {
        Doubled two(2, 7, 6.0 * sign);
        two.nbd = {sign < 0 ? 1 : 3, 0};
        two.l = {8, 0}, two.u = {6, 9};  // the one that the step runs away from
        ASSERT_EQ(two.step(), 0);
        EXPECT_EQ(two.x, (Vector{sign < 0 ? 8.0 : 6.0, 7}));
        EXPECT_EQ(two.iword, 1);
    }
}

// Variables that tie with the one that blocks land on their bounds too, not one bit beyond.
TEST(Subsm, AStepThatIsCutBackIsWithinTheBoxToTheLastBit) {
    int reached = 0;
    for (int k = 1; k < 500; ++k) {
        const double sign = k % 2 ? -1 : 1;
        Doubled three(3, sign * (0.003 * k + 0.1), sign * (-0.02 * k - 1));
        three.nbd.assign(3, sign > 0 ? 1 : 3);
        three.l.assign(3, 0.001 * k), three.u.assign(3, -0.001 * k);
        ASSERT_EQ(three.step(), 0);
        reached += three.iword;
        for (const double value : three.x) EXPECT_GE(sign * value, 0.001 * k);
    }
    EXPECT_GT(reached, 100);
}

TEST(Subsm, ReportOfAStepThatIsCutBack) {
    const std::string entered = "\n----------------SUBSM entered-----------------\n\n";
    const std::string cut = "ALPHA = 0.66667 backtrack to the BOX\n";
    const std::string point = "Subspace solution X =  \n      1.0000D+00\n";
    const std::string left = "\n----------------exit SUBSM --------------------\n\n";
    for (const auto& [iprint, text] : {std::pair{98, std::string()},
                                       {99, entered + cut + left},
                                       {100, entered + cut + left},
                                       {101, entered + cut + point + left}}) {
        Doubled one(1, 3, -6);
        one.nbd = {1}, one.l = {1};
        EXPECT_EQ(printed([&, level = iprint] { one.step(level); }), text) << iprint;
    }
}

// In a whole run: the block in the caller's array is right whenever the solver asks for the first point of a search,
// also after iterations in which all variables were active.
TEST(Formk, ItsMatrixIsRightThroughoutARun) {
    int checked = 0, none_free = 0;
    const auto follow = [&](Caller caller, const Objective& objective) {
        const int n = caller.n, m = caller.m;
        caller.factr = 1e7;
        do {
            if (caller.task.starts_with("FG")) caller.f = objective(caller.x, caller.g), ++caller.evaluations;
            const bool searching = caller.task.starts_with("FG_LN");
            caller.call();
            if (searching || !caller.task.starts_with("FG_LN") || caller.saved_int(28) == 0) continue;
            solver::Pairs p;
            p.n = n, p.m = m;
            p.ws = {caller.block(4), {n, m}}, p.wy = {caller.block(5), {n, m}};
            p.head = caller.saved_int(27), p.col = caller.saved_int(28);
            std::vector<bool> is_free;
            for (int i = 0; i < n; ++i) is_free.push_back(caller.iwa[static_cast<std::size_t>(n + i)] <= 0);
            none_free += std::count(is_free.begin(), is_free.end(), true) == 0;
            ++checked;
            expect_wn1(p, is_free, {caller.block(11), {2 * m, 2 * m}}, 1e-9);
        } while ((caller.task.starts_with("FG") || caller.task.starts_with("NEW_X")) && caller.evaluations < 500);
    };
    for (const Problem& problem : all_problems()) {
        const bool bounded = std::count(problem.nbd.begin(), problem.nbd.end(), 0) < std::ssize(problem.nbd);
        if (!bounded || problem.x0.size() > 300) continue;
        SCOPED_TRACE(problem.name);
        for (const int m : {1, 4}) follow(problem.caller(m), problem.objective);
    }
    EXPECT_GT(checked, 100);
    EXPECT_GT(none_free, 0);
}
