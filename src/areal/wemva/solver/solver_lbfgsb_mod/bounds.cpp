#include "src/areal/wemva/solver/solver_lbfgsb_mod/bounds.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod/reports.h"

namespace solver {

double dpmeps() {
    // volatile: each intermediate result is rounded to double precision, and nothing is folded by the compiler.
    volatile double a = 1;
    volatile double b = 1;
    volatile double sum = 0;
    volatile double back = 0;
    do {  // the first power of two whose unit in the last place exceeds 1
        a = a + a;
        sum = a + 1;
        back = sum - a;
    } while (back - 1 == 0);
    int ibeta = 0;  // radix
    do {
        b = b + b;
        sum = a + b;
        ibeta = static_cast<int>(sum - a);
    } while (ibeta == 0);
    const double beta = ibeta;
    int it = 0;  // digits
    b = 1;
    do {
        ++it;
        b = b * beta;
        sum = b + 1;
        back = sum - b;
    } while (back - 1 == 0);
    int irnd = 0;
    sum = a + beta / 2;
    if (sum - a != 0) irnd = 1;
    const volatile double next = a + beta;
    sum = next + beta / 2;
    if (irnd == 0 && sum - next != 0) irnd = 2;
    a = 1;
    for (int i = 0; i < it + 3; ++i) a = a / beta;
    sum = 1 + a;
    while (sum - 1 == 0) {
        a = a * beta;
        sum = 1 + a;
    }
    if (ibeta != 2 && irnd != 0) {
        const double smaller = a * (1 + a) / 2;
        sum = 1 + smaller;
        if (sum - 1 != 0) a = smaller;
    }
    return a;
}

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

void active(const Bounds& bounds, std::span<double> x, std::span<int> iwhere, int iprint, bool& prjctd, bool& cnstnd,
            bool& boxed) {
    int nbdd = 0;
    prjctd = false;
    cnstnd = false;
    boxed = true;
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        if (bounds.has_lower(i) && x[i] <= bounds.l[i]) {
            prjctd |= x[i] < bounds.l[i];
            x[i] = bounds.l[i];
            ++nbdd;
        } else if (bounds.has_upper(i) && x[i] >= bounds.u[i]) {
            prjctd |= x[i] > bounds.u[i];
            x[i] = bounds.u[i];
            ++nbdd;
        }
    }
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        if (bounds.nbd[i] != 2) boxed = false;
        if (bounds.nbd[i] == 0) {
            iwhere[i] = unbounded;
        } else {
            cnstnd = true;
            iwhere[i] = bounds.nbd[i] == 2 && bounds.u[i] - bounds.l[i] <= 0 ? fixed : between;
        }
    }
    if (iprint >= 0) {
        if (prjctd) screen(list_line({"The initial X is infeasible.  Restart with its projection."}) + '\n');
        if (!cnstnd) screen(list_line({"This problem is unconstrained."}) + '\n');
    }
    if (iprint > 0) screen("\nAt X0 " + column_int(nbdd, 9) + " variables are exactly at the bounds\n");
}

double projgr(const Bounds& bounds, std::span<const double> x, std::span<const double> g) {
    double sbgnrm = 0;
    bool defined = true;
    for (std::size_t i = 0; i < g.size(); ++i) {
        double gi = g[i];
        if (gi < 0) {
            if (bounds.has_upper(i)) gi = std::max(x[i] - bounds.u[i], gi);
        } else {
            if (bounds.has_lower(i)) gi = std::min(x[i] - bounds.l[i], gi);
        }
        sbgnrm = std::max(sbgnrm, std::abs(gi));
        defined &= gi == gi;
    }
    return defined ? sbgnrm : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace solver
