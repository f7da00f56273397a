#include "src/areal/wemva/solver/solver_lbfgsb_mod/cauchy.h"

#include <algorithm>

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod/dense.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod/reports.h"

namespace solver {

namespace {

/// The breakpoints of the path and the slope at its start.
struct Path {
    int nbreak = 0;     ///< variables that meet a bound
    int nfree = 0;      ///< place, from 1, of the first variable in iorder that never does
    int ibkmin = 0;     ///< place of the first breakpoint, from 1
    double bkmin = 0;   ///< its time
    bool bnded = true;  ///< no moving variable goes on for ever
};

/// Fix the variables that cannot move, set d to -g for the others, and list their breakpoints.
Path start_path(const Bounds& bounds, std::span<const double> x, std::span<const double> g, std::span<int> iorder,
                std::span<int> iwhere, std::span<double> t, std::span<double> d) {
    const std::size_t n = x.size();
    Path path;
    path.nfree = static_cast<int>(n) + 1;
    for (std::size_t i = 0; i < n; ++i) {
        const double neggi = -g[i];
        const bool lower = bounds.has_lower(i);
        const bool upper = bounds.has_upper(i);
        const double tl = lower ? x[i] - bounds.l[i] : 0;
        const double tu = upper ? bounds.u[i] - x[i] : 0;
        if (iwhere[i] != fixed && iwhere[i] != unbounded) {
            const bool xlower = lower && tl <= 0;
            const bool xupper = upper && tu <= 0;
            iwhere[i] = between;
            if (xlower) {
                if (neggi <= 0) iwhere[i] = at_lower;
            } else if (xupper) {
                if (neggi >= 0) iwhere[i] = at_upper;
            } else if (neggi == 0) {
                iwhere[i] = unmoved;
            }
        }
        if (iwhere[i] != between && iwhere[i] != unbounded) {
            d[i] = 0;
            continue;
        }
        d[i] = neggi;
        if ((lower && neggi < 0) || (upper && neggi > 0)) {
            const double time = neggi < 0 ? tl / -neggi : tu / neggi;
            iorder[path.nbreak] = static_cast<int>(i) + 1;
            t[path.nbreak] = time;
            ++path.nbreak;
            if (path.nbreak == 1 || time < path.bkmin) {
                path.bkmin = time;
                path.ibkmin = path.nbreak;
            }
        } else {
            --path.nfree;
            iorder[path.nfree - 1] = static_cast<int>(i) + 1;
            if (neggi != 0) path.bnded = false;
        }
    }
    return path;
}

std::string piece_line(int nint, double f1, double f2) {
    return "Piece    " + column_int(nint, 3) + " --f1, f2 at start point  " + column_exp(f1, 11, 4, 'D') + ' ' +
           column_exp(f2, 11, 4, 'D') + '\n';
}

std::string distance_line(const char* what, double distance) {
    return std::string("Distance to the ") + what + " point =  " + column_exp(distance, 11, 4, 'D') + '\n';
}

void show_point(int iprint, std::span<const double> xcp) {
    if (iprint > 100) screen("Cauchy X =  \n" + six_a_line(xcp));
}

}  // namespace

int cauchy(const Pairs& pairs, const Bounds& bounds, std::span<const double> x, std::span<const double> g,
           std::span<int> iorder, std::span<int> iwhere, std::span<double> t, std::span<double> d,
           std::span<double> xcp, CauchyScratch scratch, int& nint, int iprint, double sbgnrm, double epsmch) {
    const int n = static_cast<int>(x.size());
    const int col = pairs.col;
    const int col2 = 2 * col;
    const double theta = pairs.theta;
    const auto [p, c, wbp, v] = scratch;

    std::copy(x.begin(), x.end(), xcp.begin());
    std::fill_n(c, col2, 0.0);  // also where the point is x and the path is never walked: `cmprlb` reads it
    nint = 0;
    if (sbgnrm <= 0) {
        if (iprint >= 0) screen(list_line({"Subgnorm = 0.  GCP = X."}) + '\n');
        return 0;
    }
    if (iprint >= 99) screen("\n---------------- CAUCHY entered-------------------\n");

    const Path path = start_path(bounds, x, g, iorder, iwhere, t, d);
    if (path.nbreak == 0 && path.nfree == n + 1) {  // d is zero
        show_point(iprint, xcp);
        return 0;
    }
    double f1 = -ddot(n, d.data(), d.data());  // slope of the model along the segment
    for (int j = 0; j < col; ++j) {
        p[j] = ddot(n, pairs.y(j), d.data());
        p[col + j] = theta * ddot(n, pairs.s(j), d.data());
    }
    double f2 = -theta * f1;  // its curvature
    const double f2_org = f2;
    if (col > 0) {
        if (const int info = bmv(pairs, p, v); info != 0) return info;
        f2 -= ddot(col2, v, p);
    }
    double dtm = -f1 / f2;  // from the segment's start to the minimiser of its parabola
    double tsum = 0;        // time travelled up to the segment
    nint = 1;
    if (iprint >= 99) screen(list_line({"There are ", static_cast<long long>(path.nbreak), "  breakpoints "}) + '\n');

    bool found = path.nbreak == 0;
    bool all_fixed = false;
    int nleft = path.nbreak;
    double tj = 0;
    for (int iter = 1; !found; ++iter) {
        const double tj0 = tj;
        int ibp;  // the variable that meets its bound next
        if (iter == 1) {
            tj = path.bkmin;
            ibp = iorder[path.ibkmin - 1];
        } else {
            if (iter == 2 && path.ibkmin != path.nbreak) {
                t[path.ibkmin - 1] = t[path.nbreak - 1];
                iorder[path.ibkmin - 1] = iorder[path.nbreak - 1];
            }
            hpsolb(nleft, t.data(), iorder.data(), iter - 2);
            tj = t[nleft - 1];
            ibp = iorder[nleft - 1];
        }
        const double dt = tj - tj0;
        if (dt != 0 && iprint >= 100) {
            screen('\n' + piece_line(nint, f1, f2) + distance_line("next break", dt) +
                   distance_line("stationary", dtm));
        }
        if (dtm < dt) break;

        // The variable stays at its bound from here on.
        const auto b = static_cast<std::size_t>(ibp - 1);
        tsum += dt;
        --nleft;
        const double dibp = d[b];
        d[b] = 0;
        const bool up = dibp > 0;
        xcp[b] = up ? bounds.u[b] : bounds.l[b];
        const double zibp = xcp[b] - x[b];
        iwhere[b] = up ? at_upper : at_lower;
        if (iprint >= 100) screen(list_line({"Variable  ", static_cast<long long>(ibp), "  is fixed."}) + '\n');
        if (nleft == 0 && path.nbreak == n) {
            dtm = dt;
            all_fixed = true;
            break;
        }

        // Slope and curvature of the next segment.
        ++nint;
        const double dibp2 = dibp * dibp;
        f1 = f1 + dt * f2 + dibp2 - theta * dibp * zibp;
        f2 -= theta * dibp2;
        if (col > 0) {
            daxpy(col2, dt, p, c);
            for (int j = 0; j < col; ++j) {
                wbp[j] = pairs.y(j)[b];
                wbp[col + j] = theta * pairs.s(j)[b];
            }
            if (const int info = bmv(pairs, wbp, v); info != 0) return info;
            const double wmc = ddot(col2, c, v);
            const double wmp = ddot(col2, p, v);
            const double wmw = ddot(col2, wbp, v);
            daxpy(col2, -dibp, wbp, p);
            f1 += dibp * wmc;
            f2 = f2 + 2 * dibp * wmp - dibp2 * wmw;
        }
        f2 = std::max(epsmch * f2_org, f2);
        if (nleft > 0) {
            dtm = -f1 / f2;
        } else {
            found = true;
            if (path.bnded)
                f1 = 0, f2 = 0, dtm = 0;
            else
                dtm = -f1 / f2;
        }
    }
    if (!all_fixed) {
        if (iprint >= 99) {
            screen(list_line({}) + '\n' + list_line({"GCP found in this segment"}) + '\n' + piece_line(nint, f1, f2) +
                   distance_line("stationary", dtm));
        }
        dtm = dtm > 0 ? dtm : 0;  // also when f1 = f2 = 0
        tsum += dtm;
        daxpy(n, tsum, d.data(), xcp.data());
        bounds.stop_at_bounds(d, xcp);
    }
    daxpy(col2, dtm, p, c);
    show_point(iprint, xcp);
    if (iprint >= 99) screen("\n---------------- exit CAUCHY----------------------\n\n");
    return 0;
}

void hpsolb(int n, double* t, int* iorder, int iheap) {
    // One-based places: the children of i are 2i and 2i + 1.
    --t;
    --iorder;
    if (iheap == 0) {
        for (int k = 2; k <= n; ++k) {
            const double time = t[k];
            const int variable = iorder[k];
            int i = k;
            while (i > 1 && time < t[i / 2]) {
                t[i] = t[i / 2];
                iorder[i] = iorder[i / 2];
                i /= 2;
            }
            t[i] = time;
            iorder[i] = variable;
        }
    }
    if (n <= 1) return;
    const double least = t[1];
    const int least_variable = iorder[1];
    const double time = t[n];
    const int variable = iorder[n];
    int i = 1;
    for (int j = 2; j <= n - 1; j = 2 * i) {
        if (j + 1 <= n - 1 && t[j + 1] < t[j]) ++j;
        if (!(t[j] < time)) break;
        t[i] = t[j];
        iorder[i] = iorder[j];
        i = j;
    }
    t[i] = time;
    iorder[i] = variable;
    t[n] = least;
    iorder[n] = least_variable;
}

bool freev(std::span<int> index, int& nfree, int& nenter, int& ileave, std::span<int> indx2,
           std::span<const int> iwhere, bool updatd, bool cnstnd, int iprint, int iter) {
    const int n = static_cast<int>(index.size());
    const auto report = [&](int k, const char* what) {
        if (iprint >= 100) screen(list_line({"Variable ", static_cast<long long>(k), what}) + '\n');
    };
    nenter = 0;
    ileave = n + 1;
    if (iter > 0 && cnstnd) {
        for (int i = 0; i < n; ++i) {
            const int k = index[i];
            const bool is_active = iwhere[k - 1] > 0;
            if (i < nfree && is_active) {
                --ileave;
                indx2[ileave - 1] = k;
                report(k, " leaves the set of free variables");
            } else if (i >= nfree && !is_active) {
                indx2[nenter] = k;
                ++nenter;
                report(k, " enters the set of free variables");
            }
        }
        if (iprint >= 99) {
            screen(list_line({static_cast<long long>(n + 1 - ileave), " variables leave; ",
                              static_cast<long long>(nenter), " variables enter"}) +
                   '\n');
        }
    }
    const bool wrk = ileave < n + 1 || nenter > 0 || updatd;
    nfree = 0;
    int last = n;
    for (int i = 1; i <= n; ++i) {
        if (iwhere[i - 1] <= 0) {
            index[nfree++] = i;
        } else {
            index[--last] = i;
        }
    }
    if (iprint >= 99) {
        screen(list_line(
                   {static_cast<long long>(nfree), " variables are free at GCP ", static_cast<long long>(iter + 1)}) +
               '\n');
    }
    return wrk;
}

}  // namespace solver
