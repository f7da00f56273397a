#include "src/areal/wemva/solver/bounds.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/solver/console.h"

namespace morvane::solver {

void errclb(int n, int m, double factr, const Bounds& bounds, Text60& task, int& info, int& k) {
    if (n <= 0) task = "ERROR: N .LE. 0";
    if (m <= 0) task = "ERROR: M .LE. 0";
    if (factr < 0) task = "ERROR: FACTR .LT. 0";
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        if (bounds.nbd[i] < 0 || bounds.nbd[i] > 3) {
            task = "ERROR: INVALID NBD";
            info = -6;
            k = static_cast<int>(i) + 1;
        }
        if (bounds.nbd[i] == 2 && bounds.l[i] > bounds.u[i]) {
            task = "ERROR: NO FEASIBLE SOLUTION";
            info = -7;
            k = static_cast<int>(i) + 1;
        }
    }
}

Kind active(const Bounds& bounds, std::span<double> x, std::span<int> iwhere, int iprint) {
    Kind kind;
    int nbdd = 0;
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        if (bounds.has_lower(i) && x[i] <= bounds.l[i]) {
            kind.prjctd |= x[i] < bounds.l[i];
            x[i] = bounds.l[i];
            ++nbdd;
        } else if (bounds.has_upper(i) && x[i] >= bounds.u[i]) {
            kind.prjctd |= x[i] > bounds.u[i];
            x[i] = bounds.u[i];
            ++nbdd;
        }
    }
    kind.boxed = true;
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        if (bounds.nbd[i] != 2) kind.boxed = false;
        if (bounds.nbd[i] == 0) {
            iwhere[i] = unbounded;
        } else {
            kind.cnstnd = true;
            iwhere[i] = bounds.nbd[i] == 2 && bounds.u[i] - bounds.l[i] <= 0 ? fixed : between;
        }
    }
    if (iprint >= 0) {
        if (kind.prjctd) screen(list_line({"The initial X is infeasible.  Restart with its projection."}) + '\n');
        if (!kind.cnstnd) screen(list_line({"This problem is unconstrained."}) + '\n');
    }
    if (iprint > 0) screen("\nAt X0 " + column_int(nbdd, 9) + " variables are exactly at the bounds\n");
    return kind;
}

double projgr(const Bounds& bounds, std::span<const double> x, std::span<const double> g) {
    double sbgnrm = 0;
    for (std::size_t i = 0; i < g.size(); ++i) {
        double gi = g[i];
        if (gi < 0) {
            if (bounds.has_upper(i)) gi = std::max(x[i] - bounds.u[i], gi);
        } else {
            if (bounds.has_lower(i)) gi = std::min(x[i] - bounds.l[i], gi);
        }
        if (std::isnan(g[i]) || std::isnan(gi)) return std::numeric_limits<double>::quiet_NaN();
        sbgnrm = std::max(sbgnrm, std::abs(gi));
    }
    return sbgnrm;
}

}  // namespace morvane::solver
