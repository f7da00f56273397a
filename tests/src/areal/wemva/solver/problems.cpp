#include "tests/src/areal/wemva/solver/problems.h"

#include <algorithm>
#include <random>
#include <stdexcept>

namespace morvane {

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();

/// Bounds given as numbers; an infinite one does not hold.
Problem boxed(std::string name, Vector x0, const Vector& l, const Vector& u, Objective objective, Vector solution,
              double tolerance = 5e-6) {
    const std::size_t n = x0.size();
    const Vector unread(n, std::numeric_limits<double>::quiet_NaN());  // where no bound holds
    Vector g(n);
    const double value = objective(solution, g);
    Problem problem{std::move(name),      std::move(x0),       unread, unread,   std::vector<int>(n),
                    std::move(objective), std::move(solution), value,  tolerance};
    for (std::size_t i = 0; i < n; ++i) {
        const bool lower = std::isfinite(l[i]);
        const bool upper = std::isfinite(u[i]);
        problem.nbd[i] = lower ? (upper ? 2 : 1) : (upper ? 3 : 0);
        if (lower) problem.l[i] = l[i];
        if (upper) problem.u[i] = u[i];
    }
    return problem;
}

Problem unbounded(std::string name, const Vector& x0, Objective objective, Vector solution) {
    return boxed(std::move(name), x0, Vector(x0.size(), -inf), Vector(x0.size(), inf), std::move(objective),
                 std::move(solution));
}

double rosenbrock(std::span<const double> x, std::span<double> g) {
    double f = 0;
    for (std::size_t i = 0; i + 1 < x.size(); i += 2) {
        const double a = x[i + 1] - x[i] * x[i];
        const double b = 1 - x[i];
        f += 100 * a * a + b * b;
        g[i] = -400 * x[i] * a - 2 * b;
        g[i + 1] = 200 * a;
    }
    return f;
}

/// 4 ((x1 - 1)^2 / 4 + sum (x(i) - x(i-1)^2)^2)
double chained(std::span<const double> x, std::span<double> g) {
    double f = 0.25 * (x[0] - 1) * (x[0] - 1);
    std::fill(g.begin(), g.end(), 0.0);
    g[0] = 2 * (x[0] - 1);
    for (std::size_t i = 1; i < x.size(); ++i) {
        const double a = x[i] - x[i - 1] * x[i - 1];
        f += a * a;
        g[i] += 8 * a;
        g[i - 1] -= 16 * x[i - 1] * a;
    }
    return 4 * f;
}

/// Residuals and the rows of their Jacobian; the objective is the sum of squares.
struct Residuals {
    Vector r;
    std::vector<Vector> jacobian;
};
Objective squares(std::function<Residuals(std::span<const double> x)> residuals) {
    return [residuals = std::move(residuals)](std::span<const double> x, std::span<double> g) {
        const auto [r, jacobian] = residuals(x);
        double f = 0;
        std::fill(g.begin(), g.end(), 0.0);
        for (std::size_t k = 0; k < r.size(); ++k) {
            f += r[k] * r[k];
            for (std::size_t i = 0; i < x.size(); ++i) g[i] += 2 * r[k] * jacobian[k][i];
        }
        return f;
    };
}

Residuals beale(std::span<const double> x) {
    Residuals at;
    for (const auto& [k, y] : {std::pair{1, 1.5}, {2, 2.25}, {3, 2.625}}) {
        at.r.push_back(y - x[0] * (1 - std::pow(x[1], k)));
        at.jacobian.push_back({std::pow(x[1], k) - 1, x[0] * k * std::pow(x[1], k - 1)});
    }
    return at;
}

Residuals wood(std::span<const double> x) {
    const double s90 = std::sqrt(90.0), s10 = std::sqrt(10.0), s01 = std::sqrt(0.1);
    return {{10 * (x[1] - x[0] * x[0]), 1 - x[0], s90 * (x[3] - x[2] * x[2]), 1 - x[2], s10 * (x[1] + x[3] - 2),
             s01 * (x[1] - x[3])},
            {{-20 * x[0], 10, 0, 0},
             {-1, 0, 0, 0},
             {0, 0, -2 * s90 * x[2], s90},
             {0, 0, -1, 0},
             {0, s10, 0, s10},
             {0, s01, 0, -s01}}};
}

Residuals himmelblau(std::span<const double> x) {
    return {{x[0] * x[0] + x[1] - 11, x[0] + x[1] * x[1] - 7}, {{2 * x[0], 1}, {1, 2 * x[1]}}};
}

/// sum w(i) phi(x(i) - c(i)), phi(t) = t^2 / 2 + quartic t^4
Objective separable(Vector w, Vector c, double quartic) {
    return [w = std::move(w), c = std::move(c), quartic](std::span<const double> x, std::span<double> g) {
        double f = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            const double t = x[i] - c[i];
            f += w[i] * (0.5 * t * t + quartic * t * t * t * t);
            g[i] = w[i] * (t + 4 * quartic * t * t * t);
        }
        return f;
    };
}

Problem clipped(std::string name, const Vector& x0, const Vector& l, const Vector& u, const Vector& w, const Vector& c,
                double quartic) {
    Vector solution(c);
    for (std::size_t i = 0; i < c.size(); ++i) solution[i] = std::min(std::max(c[i], l[i]), u[i]);
    return boxed(std::move(name), x0, l, u, separable(w, c, quartic), solution);
}

/// A sparse symmetric matrix by rows of (column, value), A x / 2 - b.
using Rows = std::vector<std::vector<std::pair<std::size_t, double>>>;
Objective quadratic(Rows rows, Vector b) {
    return [rows = std::move(rows), b = std::move(b)](std::span<const double> x, std::span<double> g) {
        double f = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            double ax = 0;
            for (const auto& [j, a] : rows[i]) ax += a * x[j];
            g[i] = ax - b[i];
            f += x[i] * (0.5 * ax - b[i]);
        }
        return f;
    };
}

/// The solution the slow way: one variable after the other to its minimum within the box, until nothing moves.
Problem bounded_quadratic(std::string name, const Vector& x0, const Vector& l, const Vector& u, const Rows& rows,
                          const Vector& b) {
    Vector x(b.size());
    double moved = 1;
    for (int sweep = 0; sweep < 200000 && moved >= 1e-14; ++sweep) {
        moved = 0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            double residual = b[i];
            double diagonal = 1;
            for (const auto& [j, a] : rows[i]) {
                if (j == i)
                    diagonal = a;
                else
                    residual -= a * x[j];
            }
            const double next = std::min(std::max(residual / diagonal, l[i]), u[i]);
            moved = std::max(moved, std::abs(next - x[i]));
            x[i] = next;
        }
    }
    return boxed(std::move(name), x0, l, u, quadratic(rows, b), x);
}

/// Second differences on a grid whose fastest side has `nx` points.
Rows laplacian(std::size_t nx, std::size_t ny, double shift) {
    Rows rows(nx * ny);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i].emplace_back(i, (ny > 1 ? 4 : 2) + shift);
        if (i % nx > 0) rows[i].emplace_back(i - 1, -1);
        if (i % nx + 1 < nx) rows[i].emplace_back(i + 1, -1);
        if (i >= nx) rows[i].emplace_back(i - nx, -1);
        if (i + nx < rows.size()) rows[i].emplace_back(i + nx, -1);
    }
    return rows;
}

/// G'G + I with G uniform in (-1, 1).
Rows random_matrix(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<Vector> factor(n, Vector(n));
    for (Vector& row : factor) {
        for (double& a : row) a = 2.0 * random() / 4294967296.0 - 1;
    }
    Rows rows(n);
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j) {
            double a = i == j ? 1 : 0;
            for (std::size_t k = 0; k < n; ++k) a += factor[k][i] * factor[k][j];
            rows[i].emplace_back(j, a);
        }
    }
    return rows;
}

Vector ramp(std::size_t n, double first, double step) {
    Vector x(n);
    for (std::size_t i = 0; i < n; ++i) x[i] = first + step * static_cast<double>(i);
    return x;
}

Vector wave(std::size_t n, double amplitude, double frequency) {
    Vector x(n);
    for (std::size_t i = 0; i < n; ++i) x[i] = amplitude * std::sin(frequency * static_cast<double>(i + 1));
    return x;
}

Vector same(std::size_t n, double value) {
    return Vector(n, value);
}

Vector tiled(std::size_t n, double a, double b) {
    Vector x(n, a);
    for (std::size_t i = 1; i < n; i += 2) x[i] = b;
    return x;
}

std::vector<Problem> make_problems() {
    constexpr std::size_t many = 10000;
    Vector w10(10), pinned_l = same(40, -inf), pinned_u = same(40, inf), b(many);
    for (std::size_t i = 0; i < 10; ++i) w10[i] = std::pow(10.0, static_cast<double>(i) / 3);
    for (std::size_t i = 0; i < 40; i += 3) pinned_l[i] = pinned_u[i] = 0.1;
    quadratic(laplacian(many, 1, 0.1), same(many, 0))(wave(many, 1, 0.01), b);
    const Objective linear = [](std::span<const double> x, std::span<double> g) {
        g[0] = 1, g[1] = -2, g[2] = 3, g[3] = -4;
        return x[0] - 2 * x[1] + 3 * x[2] - 4 * x[3];
    };
    return {
        unbounded("parabola", {7}, separable({3}, {-2}, 0), {-2}),
        unbounded("diagonal, condition 1000", same(10, 1), separable(w10, ramp(10, -1, 0.3), 0), ramp(10, -1, 0.3)),
        unbounded("Rosenbrock", {-1.2, 1}, rosenbrock, {1, 1}),
        unbounded("Rosenbrock, 100 variables", tiled(100, -1.2, 1), rosenbrock, same(100, 1)),
        unbounded("Beale", {1, 1}, squares(beale), {3, 0.5}),
        unbounded("Wood", {-3, -1, -3, -1}, squares(wood), same(4, 1)),
        unbounded("Himmelblau", {4, 1}, squares(himmelblau), {3, 2}),
        unbounded("10000 coupled variables", same(many, 0), quadratic(laplacian(many, 1, 0.1), b), wave(many, 1, 0.01)),
        // The curvature along the last variables is 4^-24 of the first one's: a value of 0 leaves them undetermined.
        boxed("chain of 25", same(25, 3), tiled(25, 1, -100), same(25, 100), chained, same(25, 1), inf),
        clipped("lower bounds only", same(7, 5), same(7, 0), same(7, inf), ramp(7, 1, 2), ramp(7, -3, 1), 0),
        clipped("upper bounds only", same(7, -5), same(7, -inf), same(7, 0), ramp(7, 1, 2), ramp(7, -3, 1), 0),
        clipped("both bounds", same(9, 0), same(9, -1), same(9, 2), ramp(9, 9, -1), ramp(9, -4, 1), 0),
        clipped("one variable against its bound", {3}, {1}, {inf}, {2}, {-5}, 1),
        clipped("one variable between its bounds", {3}, {1}, {4}, {2}, {2.5}, 1),
        clipped("every kind of bound", {4, -4, 0.5, 9, 2, -2, -0.7, -9}, {-1, -inf, 0, -inf, 2, -inf, -1, -inf},
                {inf, 1, 1, inf, inf, -2, -0.5, inf}, ramp(8, 1, 1), {-3, 3, -2, 1, 1, -1, 4, 2}, 0.5),
        clipped("fixed variables among others", {0, 0.25, 0, 0, -3, 0}, {-1, 0.25, -1, -1, -3, -1},
                {1, 0.25, 1, 1, -3, 1}, ramp(6, 1, 1), {2, 2, 0.5, -0.5, 2, -9}, 0.1),
        clipped("all variables fixed", {0, 0, 0}, {1, -2, 3}, {1, -2, 3}, {1, 2, 3}, {0, 0, 0}, 0),
        clipped("start outside the box", {-50, 50, 50, -50}, {0, 0, -1, -1}, {1, 1, inf, 1}, {1, 2, 3, 4},
                {0.5, 0.5, -7, 0.2}, 0.3),
        boxed("linear, all variables end at bounds", same(4, 0.5), {0, -1, 0, -2}, {1, 1, 3, 2}, linear, {0, 1, 0, 2}),
        boxed("Rosenbrock, upper bound on the first", {-1.2, 1}, {-inf, -inf}, {0.5, inf}, rosenbrock, {0.5, 0.25}),
        boxed("Rosenbrock, inactive bound", {-2, 1}, {-inf, -1.5}, {inf, inf}, rosenbrock, {1, 1}),
        // The root of 400 x1^3 - (600 - 2) x1 - 2.
        boxed("Rosenbrock, lower bound on the second", {2, 2}, {-inf, 1.5}, {inf, inf}, rosenbrock,
              {1.2243707487363527, 1.5}),
        boxed("Rosenbrock, 1000 variables in a box", tiled(1000, -1.2, 1), tiled(1000, -2, -0.5), tiled(1000, 0.5, 2),
              rosenbrock, tiled(1000, 0.5, 0.25)),
        boxed("Wood in a box", {-3, -1, -3, -1}, same(4, -10), same(4, 10), squares(wood), same(4, 1)),
        boxed("Beale in a box", {1, 1}, {0.6, 0.5}, {10, 100}, squares(beale), {3, 0.5}),
        boxed("Himmelblau, one root left", {0, 0}, {-5, 0}, {0, 5}, squares(himmelblau),
              {-2.805118086953, 3.131312518250}),
        bounded_quadratic("string over an obstacle", same(60, 0), wave(60, 1, 0.3), same(60, inf),
                          laplacian(60, 1, 0.05), same(60, -0.1)),
        bounded_quadratic("membrane between plates", same(225, 0), same(225, -0.8), same(225, 0.5),
                          laplacian(15, 15, 0), wave(225, 1, 0.11)),
        bounded_quadratic("dense, 30 variables", same(30, 0), same(30, -0.3), same(30, 0.4), random_matrix(30, 1),
                          wave(30, 9, 1)),
        bounded_quadratic("dense, one-sided", same(20, 1), tiled(20, 0, -inf), tiled(20, inf, 0), random_matrix(20, 2),
                          wave(20, 5, 2)),
        clipped("10000 variables in a box", wave(many, 1, 0.7), same(many, -0.5), same(many, 0.7), tiled(many, 1, 30),
                wave(many, 1, 0.01), 0.2),
        bounded_quadratic("string with pinned points", same(40, 5), pinned_l, pinned_u, laplacian(40, 1, 0),
                          same(40, 0.3)),
    };
}

}  // namespace

const std::vector<Problem>& all_problems() {
    static const std::vector<Problem> list = make_problems();
    return list;
}

const Problem& named(const std::string& name) {
    for (const Problem& problem : all_problems()) {
        if (problem.name == name) return problem;
    }
    throw std::runtime_error("no problem " + name);
}

}  // namespace morvane
