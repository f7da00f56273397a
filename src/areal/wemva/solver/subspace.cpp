#include "src/areal/wemva/solver/subspace.h"

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/solver/console.h"
#include "src/areal/wemva/solver/dense.h"

namespace morvane::solver {

namespace {

/// d = (1/theta) r + (1/theta^2) Z'W K^-1 W'Z r, the Newton step in the free variables.
int newton_step(const Pairs& pairs, std::span<const int> free, std::span<double> d, double* wv,
                View<const double, 2> wn) {
    const int col = pairs.col;
    const double theta = pairs.theta;
    for (int i = 0; i < col; ++i) {
        wv[i] = dot_gathered(free, pairs.n, pairs.y(i), d.data());
        wv[col + i] = theta * dot_gathered(free, pairs.n, pairs.s(i), d.data());
    }
    const int m2 = 2 * pairs.m;
    if (const int info = dtrsl(wn.p, m2, 2 * col, wv, 11); info != 0) return info;
    dscal(col, -1, wv);
    if (const int info = dtrsl(wn.p, m2, 2 * col, wv, 1); info != 0) return info;
    for (int j = 0; j < col; ++j) {
        add_gathered(free, pairs.n, wv[j] / theta, pairs.y(j), d.data());
        add_gathered(free, pairs.n, wv[col + j], pairs.s(j), d.data());
    }
    for (double& di : d.first(free.size())) di /= theta;
    return 0;
}

}  // namespace

int subsm(const Pairs& pairs, std::span<const int> free, const Bounds& bounds, std::span<double> x, std::span<double> d,
          int& iword, double* wv, View<const double, 2> wn, int iprint) {
    if (free.empty()) return 0;
    if (iprint >= 99) screen("\n----------------SUBSM entered-----------------\n\n");
    if (const int info = newton_step(pairs, free, d, wv, wn); info != 0) return info;

    double alpha = 1;  // longest step that stays in the box
    double temp1 = 1;
    std::size_t ibd = 0;
    for (std::size_t i = 0; i < free.size(); ++i) {
        const auto k = static_cast<std::size_t>(free[i] - 1);
        const double dk = d[i];
        if (dk < 0 && bounds.has_lower(k)) {
            const double temp2 = bounds.l[k] - x[k];
            if (temp2 >= 0)
                temp1 = 0;
            else if (dk * alpha < temp2)
                temp1 = temp2 / dk;
        } else if (dk > 0 && bounds.has_upper(k)) {
            const double temp2 = bounds.u[k] - x[k];
            if (temp2 <= 0)
                temp1 = 0;
            else if (dk * alpha > temp2)
                temp1 = temp2 / dk;
        }
        if (temp1 < alpha) {
            alpha = temp1;
            ibd = i;
        }
    }
    if (alpha < 1) {  // the variable that blocks lands on its bound without rounding
        const auto k = static_cast<std::size_t>(free[ibd] - 1);
        if (d[ibd] != 0) x[k] = d[ibd] > 0 ? bounds.u[k] : bounds.l[k];
        d[ibd] = 0;
    }
    for (std::size_t i = 0; i < free.size(); ++i) {
        const auto k = static_cast<std::size_t>(free[i] - 1);
        x[k] = bounds.stop_at_bound(k, d[i], x[k] + alpha * d[i]);
    }
    if (iprint >= 99) {
        if (alpha < 1)
            screen("ALPHA = " + column_fixed(alpha, 7, 5) + " backtrack to the BOX\n");
        else
            screen(list_line({"SM solution inside the box"}) + '\n');
        if (iprint > 100) screen("Subspace solution X =  \n" + six_a_line(x));
    }
    iword = alpha < 1 ? 1 : 0;
    if (iprint >= 99) screen("\n----------------exit SUBSM --------------------\n\n");
    return 0;
}

}  // namespace morvane::solver
