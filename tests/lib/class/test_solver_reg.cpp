#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "lib/class/cgstep_mod.h"
#include "lib/class/solver_reg_mod.h"
#include "tests/dense.h"
#include "tests/dot_test.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

/// A dense matrix as an operator, stored by rows.
struct Matrix {
    std::size_t rows, columns;
    std::vector<float> a;
    Matrix(std::size_t r, std::size_t c, unsigned seed) : rows(r), columns(c), a(random_vector<float>(r * c, seed)) {}
    double operator()(std::size_t r, std::size_t c) const { return a[r * columns + c]; }
    LinOp op() const {
        return [this](bool adj, bool add, std::span<float> x, std::span<float> y) {
            adjnull(adj, add, x, y);
            for (std::size_t r = 0; r < rows; ++r)
                for (std::size_t c = 0; c < columns; ++c) {
                    if (adj) {
                        x[c] += a[r * columns + c] * y[r];
                    } else {
                        y[r] += a[r * columns + c] * x[c];
                    }
                }
            return 0;
        };
    }
};

/// Rows of a least-squares problem; solve() by the normal equations, unknowns not in `free` held at zero.
struct Dense {
    std::size_t n;
    std::vector<std::vector<double>> rows;
    std::vector<double> right;
    explicit Dense(std::size_t unknowns) : n(unknowns) {}
    void add(const Matrix& m, double factor, const std::vector<double>& rhs) {
        for (std::size_t r = 0; r < m.rows; ++r) {
            rows.emplace_back();
            for (std::size_t c = 0; c < n; ++c) rows.back().push_back(factor * m(r, c));
            right.push_back(rhs[r]);
        }
    }
    std::vector<double> solve(const std::vector<float>& free) const {
        DenseMatrix a(n, std::vector<double>(n));
        std::vector<double> b(n);
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t r = 0; r < rows.size(); ++r) {
                for (std::size_t j = 0; j < n; ++j) a[i][j] += rows[r][i] * rows[r][j] * (free[i] * free[j]);
                b[i] += rows[r][i] * right[r] * free[i];
            }
            if (free[i] == 0.0f) a[i][i] = 1.0;
        }
        return dense_solve(a, b);
    }
};

Stepper conjugate(CgState& state) {
    return [&state](bool& forget, std::span<float> x, std::span<const float> g, std::span<float> rr,
                    std::span<const float> gg) { return cgstep(state, forget, x, g, rr, gg); };
}

const Matrix fop(12, 6, 1), aop(6, 6, 2), wop(12, 12, 3);
const std::vector<float> all(6, 1.0f);

std::vector<double> widened(std::span<const float> v) {
    return {v.begin(), v.end()};
}

void expect_near(std::span<const float> m, const std::vector<double>& expected) {
    for (std::size_t i = 0; i < m.size(); ++i) EXPECT_NEAR(m[i], expected[i], 2e-5) << i;
}

}  // namespace

TEST(SolverReg, StartModelWeightAndMask) {
    const std::vector<float> d = random_vector<float>(12, 5), m0 = random_vector<float>(6, 6);
    const float eps = 0.5f;
    std::vector<float> free{1, 1, 0, 1, 0, 1};
    // W F m = W d
    Matrix wf(12, 6, 0);
    std::vector<double> wd(12);
    for (std::size_t r = 0; r < 12; ++r) {
        for (std::size_t c = 0; c < 6; ++c) {
            double sum = 0;
            for (std::size_t k = 0; k < 12; ++k) sum += wop(r, k) * fop(k, c);
            wf.a[r * 6 + c] = static_cast<float>(sum);
        }
        for (std::size_t k = 0; k < 12; ++k) wd[r] += wop(r, k) * d[k];
    }
    SolverReg options;
    options.wop = wop.op();
    options.m0 = m0;
    {
        Dense dense(6);
        dense.add(wf, 1, wd);
        dense.add(aop, eps, std::vector<double>(6));
        CgState state;
        std::vector<float> m(6), resd, resm, err;
        std::vector<std::vector<float>> mmov, rmov;
        options.resd = &resd;
        options.resm = &resm;
        options.err = &err;
        options.mmov = &mmov;
        options.rmov = &rmov;
        solver_reg(m, d, fop.op(), aop.op(), conjugate(state), 6, 15, eps, options);
        expect_near(m, dense.solve(all));
        for (std::size_t r = 0; r < 12; ++r) {
            double expected = -wd[r];
            for (std::size_t c = 0; c < 6; ++c) expected += wf(r, c) * m[c];
            EXPECT_NEAR(resd[r], expected, 1e-4);
        }
        for (std::size_t r = 0; r < 6; ++r) {
            double expected = 0;
            for (std::size_t c = 0; c < 6; ++c) expected += eps * aop(r, c) * m[c];
            EXPECT_NEAR(resm[r], expected, 1e-4);
        }
        ASSERT_EQ(err.size(), mmov.size());
        ASSERT_GE(err.size(), 6u);
        EXPECT_EQ(mmov.back(), m);
        EXPECT_EQ(rmov.back().size(), 18u);
        EXPECT_FLOAT_EQ(err[2],
                        static_cast<float>(inner<float>(std::span(rmov[2]).first(12), std::span(rmov[2]).first(12))));
    }
    {
        options = {};
        options.jop = [&](bool, bool, std::span<float> x, std::span<float> y) {
            for (std::size_t i = 0; i < x.size(); ++i) y[i] = free[i] * x[i];
            return 0;
        };
        Dense dense(6);
        dense.add(fop, 1, widened(d));
        dense.add(aop, eps, std::vector<double>(6));
        CgState state;
        std::vector<float> m(6);
        solver_reg(m, d, fop.op(), aop.op(), conjugate(state), 6, 12, eps, options);
        expect_near(m, dense.solve(free));
        EXPECT_EQ(m[2], 0.0f);
        EXPECT_EQ(m[4], 0.0f);
    }
}

TEST(SolverReg, StartOfTheModelResidual) {
    // with F = 0 the problem is |A m + rm0|^2
    const std::vector<float> d(12), rm0 = random_vector<float>(6, 7);
    Matrix nothing(12, 6, 0);
    std::ranges::fill(nothing.a, 0.0f);
    SolverReg options;
    options.rm0 = rm0;
    Dense dense(6);
    std::vector<double> minus;
    for (const float v : rm0) minus.push_back(-v);
    dense.add(aop, 1, minus);
    CgState state;
    std::vector<float> m(6), residual;
    options.resm = &residual;
    solver_reg(m, d, nothing.op(), aop.op(), conjugate(state), 6, 30, 1.0f, options);
    for (const float r : residual) EXPECT_NEAR(r, 0.0f, 1e-3);
}

TEST(SolverReg, NoIterationLeavesTheStartModel) {
    const std::vector<float> d = random_vector<float>(12, 5), m0 = random_vector<float>(6, 6);
    CgState state;
    std::vector<float> m(6, 9.0f);
    solver_reg(m, d, fop.op(), aop.op(), conjugate(state), 6, 0, 1.0f, {});
    EXPECT_EQ(m, std::vector<float>(6, 0.0f));
    SolverReg options;
    options.m0 = m0;
    solver_reg(m, d, fop.op(), aop.op(), conjugate(state), 6, 0, 1.0f, options);
    EXPECT_EQ(m, m0);
}

TEST(SolverReg, ReportsOneLineAnIteration) {
    // F = 2: the first step solves it, m = 3, and the scale is that of the residual after it, zero
    const LinOp twice = [](bool adj, bool add, std::span<float> x, std::span<float> y) {
        adjnull(adj, add, x, y);
        (adj ? x[0] : y[0]) += 2 * (adj ? y[0] : x[0]);
        return 0;
    };
    SolverReg options;
    options.verb = true;
    CgState state;
    std::vector<float> m(1);
    const std::vector<float> d{6};
    testing::internal::CaptureStderr();
    solver_reg(m, d, twice, i_op, conjugate(state), 1, 1, 2.0f, options);
    // min (2m - 6)^2 + (2m)^2: m = 1.5, residuals -3 and 3, gradient -12
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              " DOT PRODUCT VALUES SCALED BY  9.0000000000000000\n"
              "iteration    1 res dat    1 res mod    1 mod       0  grad              16\n");
    EXPECT_EQ(m[0], 1.5f);
}

TEST(SolverTiny, FindsTheLeastSquaresSolution) {
    const std::vector<float> d = random_vector<float>(12, 5), m0 = random_vector<float>(6, 6);
    Dense dense(6);
    dense.add(fop, 1, widened(d));
    CgState one, two;
    std::vector<float> m(6), again(6), residual;
    solver_tiny(m, d, fop.op(), conjugate(one), 12, {}, nullptr);
    expect_near(m, dense.solve(all));
    solver_tiny(again, d, fop.op(), conjugate(two), 12, m0, &residual);
    expect_near(again, dense.solve(all));
    EXPECT_EQ(residual.size(), 12u);
}

TEST(Cgstep, StopsOnAZeroGradientAndAfterwards) {
    CgState state;
    bool forget = false;
    std::vector<float> x(2), rr{1, 2, 3};
    const std::vector<float> g{1, 1}, zero(3), gg{1, 0, 0};
    EXPECT_EQ(refusal([&] { cgstep(state, forget, x, g, rr, zero); }), "cgstep: grad vanishes identically\n");
    CgState other;
    EXPECT_EQ(cgstep(other, forget, x, g, rr, gg), 0);
    EXPECT_FALSE(forget);
    EXPECT_EQ(x, (std::vector<float>{-1, -1}));
    EXPECT_EQ(rr, (std::vector<float>{0, 2, 3}));
    EXPECT_EQ(cgstep(other, forget, x, g, rr, zero), 1) << "nothing left to do";
    EXPECT_EQ(x, (std::vector<float>{-1, -1}));
    EXPECT_EQ(cgstep(other, forget, x, g, rr, gg), 0) << "collinear with the last step";
    EXPECT_TRUE(std::isfinite(x[0]));
}
