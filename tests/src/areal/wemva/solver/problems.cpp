#include "tests/src/areal/wemva/solver/problems.h"

#include <algorithm>
#include <numbers>
#include <random>

namespace {

constexpr double inf = std::numeric_limits<double>::infinity();

Problem free_problem(std::string name, Vector x0, Objective objective, Vector solution, double value) {
    const std::size_t n = x0.size();
    return {std::move(name),        std::move(x0),        Vector(n),           Vector(n),
            std::vector<int>(n, 0), std::move(objective), std::move(solution), value};
}

/// Bounds given as numbers; an infinite one does not hold.
Problem boxed_problem(std::string name, Vector x0, const Vector& l, const Vector& u, Objective objective,
                      Vector solution, double value) {
    Problem problem = free_problem(std::move(name), std::move(x0), std::move(objective), std::move(solution), value);
    for (std::size_t i = 0; i < l.size(); ++i) {
        const bool lower = std::isfinite(l[i]);
        const bool upper = std::isfinite(u[i]);
        problem.nbd[i] = lower ? (upper ? 2 : 1) : (upper ? 3 : 0);
        // Where no bound holds the number must not be read.
        problem.l[i] = lower ? l[i] : std::numeric_limits<double>::quiet_NaN();
        problem.u[i] = upper ? u[i] : std::numeric_limits<double>::quiet_NaN();
    }
    return problem;
}

double rosenbrock(std::span<const double> x, std::span<double> g) {
    double f = 0;
    std::fill(g.begin(), g.end(), 0.0);
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

/// Sum of squares of residuals from a routine that fills r and the rows of the Jacobian.
using Residuals = std::function<void(std::span<const double> x, Vector& r, std::vector<Vector>& jacobian)>;
Objective sum_of_squares(Residuals residuals) {
    return [residuals = std::move(residuals)](std::span<const double> x, std::span<double> g) {
        Vector r;
        std::vector<Vector> jacobian;
        residuals(x, r, jacobian);
        double f = 0;
        std::fill(g.begin(), g.end(), 0.0);
        for (std::size_t k = 0; k < r.size(); ++k) {
            f += r[k] * r[k];
            for (std::size_t i = 0; i < x.size(); ++i) g[i] += 2 * r[k] * jacobian[k][i];
        }
        return f;
    };
}

Objective beale() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        for (const auto& [k, y] : {std::pair{1, 1.5}, {2, 2.25}, {3, 2.625}}) {
            r.push_back(y - x[0] * (1 - std::pow(x[1], k)));
            jacobian.push_back({std::pow(x[1], k) - 1, x[0] * k * std::pow(x[1], k - 1)});
        }
    });
}

Objective powell_singular() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        const double b = x[1] - 2 * x[2];
        const double a = x[0] - x[3];
        const double s5 = std::sqrt(5.0), s10 = std::sqrt(10.0);
        r = {x[0] + 10 * x[1], s5 * (x[2] - x[3]), b * b, s10 * a * a};
        jacobian = {{1, 10, 0, 0}, {0, 0, s5, -s5}, {0, 2 * b, -4 * b, 0}, {2 * s10 * a, 0, 0, -2 * s10 * a}};
    });
}

Objective wood() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        const double s90 = std::sqrt(90.0), s10 = std::sqrt(10.0), s01 = std::sqrt(0.1);
        r = {10 * (x[1] - x[0] * x[0]), 1 - x[0],           s90 * (x[3] - x[2] * x[2]), 1 - x[2],
             s10 * (x[1] + x[3] - 2),   s01 * (x[1] - x[3])};
        jacobian = {{-20 * x[0], 10, 0, 0}, {-1, 0, 0, 0},    {0, 0, -2 * s90 * x[2], s90},
                    {0, 0, -1, 0},          {0, s10, 0, s10}, {0, s01, 0, -s01}};
    });
}

Objective helical_valley() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        const double q = x[0] * x[0] + x[1] * x[1];
        const double turn = std::atan2(x[1], x[0]) / (2 * std::numbers::pi);
        const double c = 100 / (2 * std::numbers::pi) / q;
        const double root = std::sqrt(q);
        r = {10 * (x[2] - 10 * turn), 10 * (root - 1), x[2]};
        jacobian = {{c * x[1], -c * x[0], 10}, {10 * x[0] / root, 10 * x[1] / root, 0}, {0, 0, 1}};
    });
}

Objective freudenstein_roth() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        const double y = x[1];
        r = {-13 + x[0] + ((5 - y) * y - 2) * y, -29 + x[0] + ((y + 1) * y - 14) * y};
        jacobian = {{1, 10 * y - 3 * y * y - 2}, {1, 3 * y * y + 2 * y - 14}};
    });
}

Objective himmelblau() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        r = {x[0] * x[0] + x[1] - 11, x[0] + x[1] * x[1] - 7};
        jacobian = {{2 * x[0], 1}, {1, 2 * x[1]}};
    });
}

Objective variably_dimensioned() {
    return sum_of_squares([](std::span<const double> x, Vector& r, std::vector<Vector>& jacobian) {
        const std::size_t n = x.size();
        double sum = 0;
        Vector weights(n);
        for (std::size_t i = 0; i < n; ++i) {
            weights[i] = static_cast<double>(i + 1);
            sum += weights[i] * (x[i] - 1);
            r.push_back(x[i] - 1);
            jacobian.emplace_back(n)[i] = 1;
        }
        r.push_back(sum);
        jacobian.push_back(weights);
        r.push_back(sum * sum);
        for (double& w : weights) w *= 2 * sum;
        jacobian.push_back(weights);
    });
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
    Vector g(c.size());
    const Objective objective = separable(w, c, quartic);
    return boxed_problem(std::move(name), x0, l, u, objective, solution, objective(solution, g));
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

/// The slow way: one variable after the other to its minimum within the box, until nothing moves.
Vector coordinate_descent(const Rows& rows, const Vector& b, const Vector& l, const Vector& u) {
    Vector x(b.size());
    for (int sweep = 0; sweep < 200000; ++sweep) {
        double moved = 0;
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
        if (moved < 1e-14) break;
    }
    return x;
}

Problem bounded_quadratic(std::string name, const Vector& x0, const Vector& l, const Vector& u, const Rows& rows,
                          const Vector& b) {
    const Vector solution = coordinate_descent(rows, b, l, u);
    Vector g(b.size());
    const Objective objective = quadratic(rows, b);
    return boxed_problem(std::move(name), x0, l, u, objective, solution, objective(solution, g));
}

/// Second differences on a line.
Rows laplacian(std::size_t n, double shift) {
    Rows rows(n);
    for (std::size_t i = 0; i < n; ++i) {
        rows[i].emplace_back(i, 2 + shift);
        if (i > 0) rows[i].emplace_back(i - 1, -1);
        if (i + 1 < n) rows[i].emplace_back(i + 1, -1);
    }
    return rows;
}

/// Five-point differences on a square.
Rows laplacian_2d(std::size_t side) {
    Rows rows(side * side);
    for (std::size_t iy = 0; iy < side; ++iy) {
        for (std::size_t ix = 0; ix < side; ++ix) {
            auto& row = rows[iy * side + ix];
            row.emplace_back(iy * side + ix, 4);
            if (ix > 0) row.emplace_back(iy * side + ix - 1, -1);
            if (ix + 1 < side) row.emplace_back(iy * side + ix + 1, -1);
            if (iy > 0) row.emplace_back((iy - 1) * side + ix, -1);
            if (iy + 1 < side) row.emplace_back((iy + 1) * side + ix, -1);
        }
    }
    return rows;
}

/// G'G + I with G uniform in (-1, 1).
Rows random_matrix(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    const auto uniform = [&] { return 2.0 * random() / 4294967296.0 - 1; };
    std::vector<Vector> factor(n, Vector(n));
    for (Vector& row : factor) {
        for (double& a : row) a = uniform();
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

void add_free_problems(std::vector<Problem>& list) {
    list.push_back(free_problem("parabola", {7}, separable({3}, {-2}, 0), {-2}, 0));
    {
        Vector w(10);
        for (std::size_t i = 0; i < w.size(); ++i) w[i] = std::pow(10.0, static_cast<double>(i) / 3);
        list.push_back(free_problem("diagonal, condition 1000", same(10, 1), separable(w, ramp(10, -1, 0.3), 0),
                                    ramp(10, -1, 0.3), 0));
    }
    list.push_back(free_problem("Rosenbrock", {-1.2, 1}, rosenbrock, {1, 1}, 0));
    list.push_back(free_problem("Rosenbrock, 100 variables", tiled(100, -1.2, 1), rosenbrock, same(100, 1), 0));
    list.push_back(free_problem("Beale", {1, 1}, beale(), {3, 0.5}, 0));
    list.push_back(free_problem("Powell singular", {3, -1, 0, 1}, powell_singular(), same(4, 0), 0));
    list.back().tolerance = 0.02;  // the matrix of second derivatives is singular there
    list.push_back(free_problem("Wood", {-3, -1, -3, -1}, wood(), same(4, 1), 0));
    list.push_back(free_problem("helical valley", {-1, 0, 0}, helical_valley(), {1, 0, 0}, 0));
    list.push_back(free_problem("Freudenstein and Roth", {0.5, -2}, freudenstein_roth(), {11.412778986, -0.8968052533},
                                48.98425367924));
    list.push_back(free_problem("Himmelblau", {4, 1}, himmelblau(), {3, 2}, 0));
    list.push_back(free_problem("variably dimensioned", ramp(10, 0.9, -0.1), variably_dimensioned(), same(10, 1), 0));
    list.push_back(
        free_problem("quartics", same(50, 0), separable(same(50, 1), ramp(50, -2, 0.1), 1), ramp(50, -2, 0.1), 0));
    {
        Vector solution(20);
        double value = 0;
        for (std::size_t i = 0; i < 20; ++i) {
            const auto k = static_cast<double>(i + 1);
            solution[i] = std::log(k);
            value += k - k * solution[i];
        }
        list.push_back(free_problem(
            "exponentials", same(20, 0),
            [](std::span<const double> x, std::span<double> g) {
                double f = 0;
                for (std::size_t i = 0; i < x.size(); ++i) {
                    const auto k = static_cast<double>(i + 1);
                    f += std::exp(x[i]) - k * x[i];
                    g[i] = std::exp(x[i]) - k;
                }
                return f;
            },
            solution, value));
    }
    {
        const std::size_t n = 10000;
        const Vector solution = wave(n, 1, 0.01);
        const Rows rows = laplacian(n, 0.1);
        Vector b(n), g(n);
        quadratic(rows, same(n, 0))(solution, b);
        const Objective objective = quadratic(rows, b);
        list.push_back(
            free_problem("10000 coupled variables", same(n, 0), objective, solution, objective(solution, g)));
    }
}

void add_bounded_problems(std::vector<Problem>& list) {
    list.push_back(
        boxed_problem("chain of 25", same(25, 3), tiled(25, 1, -100), same(25, 100), chained, same(25, 1), 0));
    // The curvature along the last variables is 4^-24 of the first one's: a value of 0 leaves them undetermined.
    list.back().solution.clear();
    list.push_back(
        clipped("lower bounds only", same(7, 5), same(7, 0), same(7, inf), ramp(7, 1, 2), ramp(7, -3, 1), 0));
    list.push_back(
        clipped("upper bounds only", same(7, -5), same(7, -inf), same(7, 0), ramp(7, 1, 2), ramp(7, -3, 1), 0));
    list.push_back(clipped("both bounds", same(9, 0), same(9, -1), same(9, 2), ramp(9, 9, -1), ramp(9, -4, 1), 0));
    list.push_back(clipped("one variable against its bound", {3}, {1}, {inf}, {2}, {-5}, 1));
    list.push_back(clipped("one variable between its bounds", {3}, {1}, {4}, {2}, {2.5}, 1));
    {
        Vector l(8, -inf), u(8, inf);
        l[0] = -1, u[1] = 1, l[2] = 0, u[2] = 1, l[4] = 2, u[5] = -2, l[6] = -1, u[6] = -0.5;
        list.push_back(clipped("every kind of bound", {4, -4, 0.5, 9, 2, -2, -0.7, -9}, l, u, ramp(8, 1, 1),
                               {-3, 3, -2, 1, 1, -1, 4, 2}, 0.5));
    }
    {
        Vector l(6, -1), u(6, 1);
        l[1] = u[1] = 0.25, l[4] = u[4] = -3;
        list.push_back(clipped("fixed variables among others", {0, 0.25, 0, 0, -3, 0}, l, u, ramp(6, 1, 1),
                               {2, 2, 0.5, -0.5, 2, -9}, 0.1));
    }
    list.push_back(clipped("all variables fixed", {0, 0, 0}, {1, -2, 3}, {1, -2, 3}, {1, 2, 3}, {0, 0, 0}, 0));
    list.push_back(clipped("start outside the box", {-50, 50, 50, -50}, {0, 0, -1, -1}, {1, 1, inf, 1}, {1, 2, 3, 4},
                           {0.5, 0.5, -7, 0.2}, 0.3));
    list.push_back(boxed_problem(
        "linear, all variables end at bounds", {0.5, 0.5, 0.5, 0.5}, {0, -1, 0, -2}, {1, 1, 3, 2},
        [](std::span<const double> x, std::span<double> g) {
            g[0] = 1, g[1] = -2, g[2] = 3, g[3] = -4;
            return x[0] - 2 * x[1] + 3 * x[2] - 4 * x[3];
        },
        {0, 1, 0, 2}, -10));
    list.push_back(boxed_problem("Rosenbrock, upper bound on the first", {-1.2, 1}, {-inf, -inf}, {0.5, inf},
                                 rosenbrock, {0.5, 0.25}, 0.25));
    list.push_back(
        boxed_problem("Rosenbrock, inactive bound", {-2, 1}, {-inf, -1.5}, {inf, inf}, rosenbrock, {1, 1}, 0));
    {
        // Minimum over x1 at x2 = 1.5: 400 x1^3 - (600 - 2) x1 - 2 = 0.
        double x1 = 1.2;
        for (int i = 0; i < 50; ++i) {
            x1 -= (400 * x1 * x1 * x1 - 598 * x1 - 2) / (1200 * x1 * x1 - 598);
        }
        Vector g(2);
        const Vector solution{x1, 1.5};
        list.push_back(boxed_problem("Rosenbrock, lower bound on the second", {2, 2}, {-inf, 1.5}, {inf, inf},
                                     rosenbrock, solution, rosenbrock(solution, g)));
    }
    list.push_back(boxed_problem("Rosenbrock, 1000 variables in a box", tiled(1000, -1.2, 1), tiled(1000, -2, -0.5),
                                 tiled(1000, 0.5, 2), rosenbrock, tiled(1000, 0.5, 0.25), 500 * 0.25));
    list.push_back(boxed_problem(
        "flat valley to a bound", {10, 1}, {-inf, 0}, {inf, inf},
        [](std::span<const double> x, std::span<double> g) {
            const double a = x[1] - x[0];
            g[0] = -2e-5 * a;
            g[1] = 1 + 2e-5 * a;
            return x[1] + 1e-5 * a * a;
        },
        {0, 0}, 0));
    list.push_back(boxed_problem(
        "cubic, corner", {1.125, 0.125}, {1, 0}, {inf, inf},
        [](std::span<const double> x, std::span<double> g) {
            g[0] = (x[0] + 1) * (x[0] + 1);
            g[1] = 1;
            return std::pow(x[0] + 1, 3) / 3 + x[1];
        },
        {1, 0}, 8.0 / 3));
    list.push_back(boxed_problem(
        "sine and parabola", {0, 0}, {-1.5, -3}, {4, 3},
        [](std::span<const double> x, std::span<double> g) {
            const double c = std::cos(x[0] + x[1]);
            const double d = 2 * (x[0] - x[1]);
            g[0] = c + d - 1.5;
            g[1] = c - d + 2.5;
            return std::sin(x[0] + x[1]) + d * d / 4 - 1.5 * x[0] + 2.5 * x[1] + 1;
        },
        {0.5 - std::numbers::pi / 3, -0.5 - std::numbers::pi / 3}, -std::sqrt(3.0) / 2 - std::numbers::pi / 3));
    list.push_back(boxed_problem("Wood in a box", {-3, -1, -3, -1}, same(4, -10), same(4, 10), wood(), same(4, 1), 0));
    list.push_back(boxed_problem(
        "product, corner", same(5, 2), same(5, 0), ramp(5, 1, 1),
        [](std::span<const double> x, std::span<double> g) {
            for (std::size_t i = 0; i < 5; ++i) {
                g[i] = -1.0 / 120;
                for (std::size_t j = 0; j < 5; ++j) {
                    if (j != i) g[i] *= x[j];
                }
            }
            return 2 - x[0] * x[1] * x[2] * x[3] * x[4] / 120;
        },
        ramp(5, 1, 1), 1));
    list.push_back(boxed_problem(
        "logarithms that end just beyond the box", same(10, 9), same(10, 2.001), same(10, 9.999),
        [](std::span<const double> x, std::span<double> g) {
            double f = 0;
            double product = 1;
            for (const double xi : x) product *= xi;
            const double root = std::pow(product, 0.2);
            for (std::size_t i = 0; i < x.size(); ++i) {
                const double a = std::log(x[i] - 2);
                const double b = std::log(10 - x[i]);
                f += a * a + b * b;
                g[i] = 2 * a / (x[i] - 2) - 2 * b / (10 - x[i]) - 0.2 * root / x[i];
            }
            return f - root;
        },
        same(10, 9.35026583), -45.7784697));
    list.push_back(boxed_problem("Beale in a box", {1, 1}, {0.6, 0.5}, {10, 100}, beale(), {3, 0.5}, 0));
    list.push_back(boxed_problem("Himmelblau, one root left", {0, 0}, {-5, 0}, {0, 5}, himmelblau(),
                                 {-2.805118086953, 3.131312518250}, 0));
    list.push_back(boxed_problem(
        "two wells and a bound", {0.5, 2.5}, {-2, 1.5}, {inf, 3},
        [](std::span<const double> x, std::span<double> g) {
            double f = 0;
            for (std::size_t i = 0; i < 2; ++i) {
                const double s = x[i] * x[i];
                f += s * s - 2 * s;
                g[i] = 4 * x[i] * (s - 1);
            }
            return f;
        },
        {1, 1.5}, -1 + 5.0625 - 4.5));
    list.push_back(bounded_quadratic("string over an obstacle", same(60, 0), wave(60, 1, 0.3), same(60, inf),
                                     laplacian(60, 0.05), same(60, -0.1)));
    list.push_back(bounded_quadratic("membrane between plates", same(225, 0), same(225, -0.8), same(225, 0.5),
                                     laplacian_2d(15), wave(225, 1, 0.11)));
    list.push_back(bounded_quadratic("dense, 30 variables", same(30, 0), same(30, -0.3), same(30, 0.4),
                                     random_matrix(30, 1), wave(30, 9, 1)));
    list.push_back(bounded_quadratic("dense, one-sided", same(20, 1), tiled(20, 0, -inf), tiled(20, inf, 0),
                                     random_matrix(20, 2), wave(20, 5, 2)));
    {
        const std::size_t n = 10000;
        list.push_back(clipped("10000 variables in a box", wave(n, 1, 0.7), same(n, -0.5), same(n, 0.7),
                               tiled(n, 1, 30), wave(n, 1, 0.01), 0.2));
    }
    {
        Vector l = same(40, -inf), u = same(40, inf);
        for (std::size_t i = 0; i < 40; i += 3) l[i] = u[i] = 0.1;  // pinned points
        list.push_back(
            bounded_quadratic("string with pinned points", same(40, 5), l, u, laplacian(40, 0), same(40, 0.3)));
    }
}

}  // namespace

double kkt_residual(const Problem& problem, std::span<const double> x, std::span<const double> g) {
    double largest = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        double moved = x[i] - g[i];
        const int nbd = problem.nbd[i];
        if (nbd == 1 || nbd == 2) moved = std::max(moved, problem.l[i]);
        if (nbd == 2 || nbd == 3) moved = std::min(moved, problem.u[i]);
        largest = std::max(largest, std::abs(moved - x[i]));
    }
    return largest;
}

std::vector<Problem> all_problems() {
    std::vector<Problem> list;
    add_free_problems(list);
    add_bounded_problems(list);
    return list;
}
