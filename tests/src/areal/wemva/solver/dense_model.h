#pragma once
/// The quadratic model in full, the slow way, from the stored pairs.
#include <random>
#include <vector>

#include "src/areal/wemva/solver/matrices.h"
#include "tests/dense.h"
#include "tests/src/areal/wemva/solver/caller.h"

namespace morvane {

using Matrix = DenseMatrix;

inline Matrix zeros(std::size_t n) {
    return Matrix(n, Vector(n));
}

inline Vector times_vector(const Matrix& A, const Vector& x) {
    Vector y(A.size());
    for (std::size_t i = 0; i < A.size(); ++i) {
        for (std::size_t j = 0; j < x.size(); ++j) y[i] += A[i][j] * x[j];
    }
    return y;
}

/// B by the update formula itself, pair after pair from theta I: B - B s s'B / s'B s + y y' / s'y.
inline Matrix model_matrix(const solver::Pairs& pairs) {
    const auto n = static_cast<std::size_t>(pairs.n);
    Matrix B = zeros(n);
    for (std::size_t i = 0; i < n; ++i) B[i][i] = pairs.theta;
    for (int k = 0; k < pairs.col; ++k) {
        const Vector s(pairs.s(k), pairs.s(k) + n);
        const Vector y(pairs.y(k), pairs.y(k) + n);
        const Vector Bs = times_vector(B, s);
        double sBs = 0, sy = 0;
        for (std::size_t i = 0; i < n; ++i) sBs += s[i] * Bs[i], sy += s[i] * y[i];
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t j = 0; j < n; ++j) B[i][j] += y[i] * y[j] / sy - Bs[i] * Bs[j] / sBs;
        }
    }
    return B;
}

/// Pairs with storage of their own, and new ones with positive curvature: y = A s, A diagonal.
struct PairStore {
    Array<double, 2> ws, wy, sy, ss, wt;
    solver::Pairs pairs;
    std::mt19937 random;

    PairStore(int n, int m, unsigned seed) : ws({n, m}), wy({n, m}), sy({m, m}), ss({m, m}), wt({m, m}), random(seed) {
        for (auto* a : {&ws, &wy, &sy, &ss, &wt}) a->fill(std::numeric_limits<double>::quiet_NaN());
        pairs.n = n;
        pairs.m = m;
        pairs.ws = ws, pairs.wy = wy, pairs.sy = sy, pairs.ss = ss, pairs.wt = wt;
    }
    PairStore(const PairStore&) = delete;

    double uniform() { return static_cast<double>(random()) / 4294967296.0; }
    void add(int count) {
        for (int k = 0; k < count; ++k) {
            const auto n = static_cast<std::size_t>(pairs.n);
            const double stp = k % 2 ? 0.5 : 1;
            Vector d(n), y(n);
            double rr = 0, dr = 0, dtd = 0;
            for (std::size_t i = 0; i < n; ++i) {
                d[i] = uniform() - 0.5;
                y[i] = (1 + static_cast<double>(i % 4)) * d[i] + 0.1 * (uniform() - 0.5) * d[i];
                rr += y[i] * y[i];
                dr += y[i] * d[i];
                dtd += d[i] * d[i] / (stp * stp);
            }
            ++pairs.iupdat;
            solver::matupd(pairs, d, y, rr, dr, stp, dtd);
            if (solver::formt(pairs) != 0) throw std::runtime_error("the pairs have no positive curvature");
        }
    }
};

}  // namespace morvane
