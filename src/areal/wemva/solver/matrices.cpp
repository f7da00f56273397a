#include "src/areal/wemva/solver/matrices.h"

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/solver/dense.h"

namespace morvane::solver {

namespace {

/// All of n: the list of free variables is then 1 to n, and the vector kernels serve.
bool all(std::span<const int> variables, int n) {
    return static_cast<int>(variables.size()) == n && n > 0 && variables.front() == 1;
}

/// Sum of a(k) b(k) over the listed variables k of n.
double dot_over(std::span<const int> variables, int n, const double* a, const double* b) {
    if (all(variables, n)) return ddot(n, a, b);
    double sum = 0;
    for (const int k : variables) sum += a[k - 1] * b[k - 1];
    return sum;
}

/// Move everything one age towards the oldest, which falls out.
void shift_wn1(int m, View<double, 2> wn1) {
    for (int jy = 0; jy + 1 < m; ++jy) {
        const int js = m + jy;
        std::copy_n(&wn1(jy + 1, jy + 1), m - 1 - jy, &wn1(jy, jy));
        std::copy_n(&wn1(js + 1, js + 1), m - 1 - jy, &wn1(js, js));
        std::copy_n(&wn1(m + 1, jy + 1), m - 1, &wn1(m, jy));
    }
}

}  // namespace

void matupd(Pairs& pairs, std::span<const double> d, std::span<const double> r, double rr, double dr, double stp,
            double dtd) {
    const int n = pairs.n;
    const int m = pairs.m;
    if (pairs.iupdat <= m) {
        pairs.col = pairs.iupdat;
        pairs.itail = (pairs.head + pairs.iupdat - 2) % m + 1;
    } else {
        pairs.itail = pairs.itail % m + 1;
        pairs.head = pairs.head % m + 1;
    }
    std::copy_n(d.begin(), n, pairs.ws.slice(pairs.itail - 1).p);
    std::copy_n(r.begin(), n, pairs.wy.slice(pairs.itail - 1).p);
    pairs.theta = rr / dr;  // y'y / y's

    const int last = pairs.col - 1;
    if (pairs.iupdat > m) {
        for (int j = 0; j < last; ++j) {
            std::copy_n(&pairs.ss(1, j + 1), j + 1, &pairs.ss(0, j));
            std::copy_n(&pairs.sy(j + 1, j + 1), last - j, &pairs.sy(j, j));
        }
    }
    for (int j = 0; j < last; ++j) {
        pairs.sy(last, j) = ddot(n, d.data(), pairs.y(j));
        pairs.ss(j, last) = ddot(n, pairs.s(j), d.data());
    }
    pairs.ss(last, last) = stp == 1 ? dtd : stp * stp * dtd;
    pairs.sy(last, last) = dr;
}

int formt(Pairs& pairs) {
    const int col = pairs.col;
    const View<double, 2>& sy = pairs.sy;
    for (int i = 0; i < col; ++i) {
        for (int j = i; j < col; ++j) {
            double sum = 0;
            for (int k = 0; k < i; ++k) sum += sy(i, k) * sy(j, k) / sy(k, k);
            pairs.wt(i, j) = sum + pairs.theta * pairs.ss(i, j);
        }
    }
    return dpofa(pairs.wt.p, pairs.m, col) != 0 ? -3 : 0;
}

int bmv(const Pairs& pairs, const double* v, double* p) {
    const int col = pairs.col;
    if (col == 0) return 0;
    const View<double, 2>& sy = pairs.sy;
    // First factor: [D^1/2, 0; -L D^-1/2, J] p = v.
    for (int i = 0; i < col; ++i) {
        double sum = 0;
        for (int k = 0; k < i; ++k) sum += sy(i, k) * v[k] / sy(k, k);
        p[col + i] = v[col + i] + sum;
    }
    int info = dtrsl(pairs.wt.p, pairs.m, col, p + col, 11);
    if (info != 0) return info;
    for (int i = 0; i < col; ++i) p[i] = v[i] / std::sqrt(sy(i, i));
    // Second factor: [-D^1/2, D^-1/2 L'; 0, J'] p = p.
    info = dtrsl(pairs.wt.p, pairs.m, col, p + col, 1);
    if (info != 0) return info;
    for (int i = 0; i < col; ++i) p[i] = -p[i] / std::sqrt(sy(i, i));
    for (int i = 0; i < col; ++i) {
        double sum = 0;
        for (int k = i + 1; k < col; ++k) sum += sy(k, i) * p[col + k] / sy(i, i);
        p[i] += sum;
    }
    return 0;
}

void update_wn1(const Pairs& pairs, const FreeSet& set, bool updatd, View<double, 2> wn1) {
    const int n = pairs.n;
    const int m = pairs.m;
    const int col = pairs.col;
    int upcl = col;
    if (updatd) {
        if (pairs.iupdat > m) shift_wn1(m, wn1);
        upcl = col - 1;
        const double* s_new = pairs.s(upcl);
        const double* y_new = pairs.y(upcl);
        for (int j = 0; j < col; ++j) {
            wn1(upcl, j) = dot_over(set.free(), n, y_new, pairs.y(j));
            wn1(m + upcl, m + j) = dot_over(set.active(), n, s_new, pairs.s(j));
            wn1(m + upcl, j) = dot_over(set.active(), n, s_new, pairs.y(j));
        }
        for (int i = 0; i < col; ++i) wn1(m + i, upcl) = dot_over(set.free(), n, pairs.s(i), y_new);
    }
    if (set.entered().empty() && set.left().empty()) return;
    // A variable that entered the free set adds to the sums over free variables and is taken from those over active
    // ones.
    for (int i = 0; i < upcl; ++i) {
        for (int j = 0; j <= i; ++j) {
            wn1(i, j) +=
                dot_over(set.entered(), n, pairs.y(i), pairs.y(j)) - dot_over(set.left(), n, pairs.y(i), pairs.y(j));
            wn1(m + i, m + j) +=
                dot_over(set.left(), n, pairs.s(i), pairs.s(j)) - dot_over(set.entered(), n, pairs.s(i), pairs.s(j));
        }
        for (int j = 0; j < upcl; ++j) {
            const double entered = dot_over(set.entered(), n, pairs.s(i), pairs.y(j));
            const double left = dot_over(set.left(), n, pairs.s(i), pairs.y(j));
            wn1(m + i, j) += i <= j ? entered - left : left - entered;
        }
    }
}

int formk(const Pairs& pairs, const FreeSet& set, bool updatd, View<double, 2> wn, View<double, 2> wn1) {
    update_wn1(pairs, set, updatd, wn1);
    const int m = pairs.m;
    const int col = pairs.col;
    // Upper triangle of [D+Y'ZZ'Y/theta, -L_a'+R_z'; -L_a+R_z, S'AA'S theta].
    for (int i = 0; i < col; ++i) {
        for (int j = 0; j <= i; ++j) {
            wn(j, i) = wn1(i, j) / pairs.theta;
            wn(col + j, col + i) = wn1(m + i, m + j) * pairs.theta;
        }
        for (int j = 0; j < i; ++j) wn(j, col + i) = -wn1(m + i, j);
        for (int j = i; j < col; ++j) wn(j, col + i) = wn1(m + i, j);
        wn(i, i) += pairs.sy(i, i);
    }
    if (dpofa(wn.p, 2 * m, col) != 0) return -1;
    // The diagonal is positive now, so these solves cannot fail.
    for (int js = col; js < 2 * col; ++js) dtrsl(wn.p, 2 * m, col, wn.slice(js).p, 11);
    for (int is = col; is < 2 * col; ++is) {
        for (int js = is; js < 2 * col; ++js) wn(is, js) += ddot(col, wn.slice(is).p, wn.slice(js).p);
    }
    return dpofa(&wn(col, col), 2 * m, col) != 0 ? -2 : 0;
}

double dot_gathered(std::span<const int> variables, int n, const double* a, const double* b) {
    if (all(variables, n)) return ddot(n, a, b);
    double sum = 0;
    for (std::size_t i = 0; i < variables.size(); ++i) sum += a[variables[i] - 1] * b[i];
    return sum;
}

void add_gathered(std::span<const int> variables, int n, double factor, const double* a, double* b) {
    if (all(variables, n)) return daxpy(n, factor, a, b);
    for (std::size_t i = 0; i < variables.size(); ++i) b[i] += factor * a[variables[i] - 1];
}

int cmprlb(const Pairs& pairs, const FreeSet& set, std::span<const double> x, std::span<const double> g,
           std::span<const double> z, const double* c, double* mc, bool cnstnd, std::span<double> r) {
    if (!cnstnd && pairs.col > 0) {
        std::transform(g.begin(), g.end(), r.begin(), std::negate<>());
        return 0;
    }
    const std::span<const int> free = set.free();
    for (std::size_t i = 0; i < free.size(); ++i) {
        const auto k = static_cast<std::size_t>(free[i] - 1);
        r[i] = -pairs.theta * (z[k] - x[k]) - g[k];
    }
    if (bmv(pairs, c, mc) != 0) return -8;
    for (int j = 0; j < pairs.col; ++j) {
        add_gathered(free, pairs.n, mc[j], pairs.y(j), r.data());
        add_gathered(free, pairs.n, pairs.theta * mc[pairs.col + j], pairs.s(j), r.data());
    }
    return 0;
}

}  // namespace morvane::solver
