#include "src/areal/wemva/solver/cauchy.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "lib/base/fixed_format.h"
#include "lib/base/index.h"
#include "src/areal/wemva/solver/console.h"
#include "src/areal/wemva/solver/dense.h"

namespace morvane::solver {

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
Path start_path(const Bounds& bounds, const CauchyVectors& vectors) {
    const auto& [x, g, iorder, iwhere, t, d, xcp] = vectors;
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
            iorder[at(path.nbreak)] = static_cast<int>(i) + 1;
            t[at(path.nbreak)] = time;
            ++path.nbreak;
            if (path.nbreak == 1 || time < path.bkmin) {
                path.bkmin = time;
                path.ibkmin = path.nbreak;
            }
        } else {
            --path.nfree;
            iorder[at(path.nfree - 1)] = static_cast<int>(i) + 1;
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

/// The piecewise linear path P(x - t g), walked from one breakpoint to the next.
struct Walk {
    const Pairs& pairs;
    const Bounds& bounds;
    const CauchyVectors& vectors;
    CauchyScratch scratch;
    double epsmch;
    Path path{};
    double f1 = 0, f2 = 0;  ///< slope and curvature of the model along the segment
    double f2_org = 0;      ///< the curvature of the first one
    double dtm = 0;         ///< from the segment's start to the minimiser of its parabola
    double tsum = 0;        ///< time travelled up to the segment
    int nleft = 0;          ///< breakpoints ahead

    int col2() const { return 2 * pairs.col; }
    std::size_t n() const { return vectors.x.size(); }

    /// Slope and curvature of the first segment. @return info
    int begin() {
        const int col = pairs.col;
        const auto size = static_cast<std::ptrdiff_t>(n());
        const double* const d = vectors.d.data();
        nleft = path.nbreak;
        f1 = -ddot(size, d, d);
        for (int j = 0; j < col; ++j) {
            scratch.p[j] = ddot(size, pairs.y(j), d);
            scratch.p[col + j] = pairs.theta * ddot(size, pairs.s(j), d);
        }
        f2 = -pairs.theta * f1;
        f2_org = f2;
        if (col > 0) {
            if (const int info = bmv(pairs, scratch.p, scratch.v); info != 0) return info;
            f2 -= ddot(col2(), scratch.v, scratch.p);
        }
        dtm = -f1 / f2;
        return 0;
    }

    /// The next breakpoint, which ends segment number `segment`: its time, and the variable, from 1, that meets its
    /// bound. The first is known; the others come from a heap.
    std::pair<double, int> next_breakpoint(int segment) {
        const auto& [x, g, iorder, iwhere, t, d, xcp] = vectors;
        if (segment == 1) return {path.bkmin, iorder[at(path.ibkmin - 1)]};
        if (segment == 2 && path.ibkmin != path.nbreak) {
            t[at(path.ibkmin - 1)] = t[at(path.nbreak - 1)];
            iorder[at(path.ibkmin - 1)] = iorder[at(path.nbreak - 1)];
        }
        hpsolb(nleft, t.data(), iorder.data(), segment - 2);
        return {t[at(nleft - 1)], iorder[at(nleft - 1)]};
    }

    /// Leave variable b, from 0, at its bound from here on. @return its component of d
    double fix(std::size_t b) {
        --nleft;
        const double dibp = vectors.d[b];
        vectors.d[b] = 0;
        const bool up = dibp > 0;
        vectors.xcp[b] = up ? bounds.u[b] : bounds.l[b];
        vectors.iwhere[b] = up ? at_upper : at_lower;
        return dibp;
    }

    /// Slope and curvature of the segment after variable b, whose component of d was dibp, has met its bound at the
    /// end of one of length dt. @return info
    int turn(std::size_t b, double dibp, double dt) {
        const auto [p, c, wbp, v] = scratch;
        const double zibp = vectors.xcp[b] - vectors.x[b];
        const double dibp2 = dibp * dibp;
        const int col = pairs.col;
        f1 = f1 + dt * f2 + dibp2 - pairs.theta * dibp * zibp;
        f2 -= pairs.theta * dibp2;
        if (col > 0) {
            daxpy(col2(), dt, p, c);
            for (int j = 0; j < col; ++j) {
                wbp[j] = pairs.y(j)[b];
                wbp[col + j] = pairs.theta * pairs.s(j)[b];
            }
            if (const int info = bmv(pairs, wbp, v); info != 0) return info;
            const double wmc = ddot(col2(), c, v);
            const double wmp = ddot(col2(), p, v);
            const double wmw = ddot(col2(), wbp, v);
            daxpy(col2(), -dibp, wbp, p);
            f1 += dibp * wmc;
            f2 = f2 + 2 * dibp * wmp - dibp2 * wmw;
        }
        f2 = std::max(epsmch * f2_org, f2);
        if (nleft == 0 && path.bnded)
            f1 = 0, f2 = 0, dtm = 0;
        else
            dtm = -f1 / f2;
        return 0;
    }
};

/// Walk to the segment that holds the minimum. @return info; `nint` counts the segments, `all_fixed` tells that no
/// variable moves any more
int walk_path(Walk& walk, int iprint, int& nint, bool& all_fixed) {
    const int n = static_cast<int>(walk.n());
    double tj = 0;
    for (int segment = 1; segment == 1 ? walk.path.nbreak > 0 : walk.nleft > 0; ++segment) {
        const double tj0 = tj;
        int ibp;
        std::tie(tj, ibp) = walk.next_breakpoint(segment);
        const double dt = tj - tj0;
        if (dt != 0 && iprint >= 100) {
            screen('\n' + piece_line(nint, walk.f1, walk.f2) + distance_line("next break", dt) +
                   distance_line("stationary", walk.dtm));
        }
        if (walk.dtm < dt) break;
        walk.tsum += dt;
        const auto b = static_cast<std::size_t>(ibp - 1);
        const double dibp = walk.fix(b);
        if (iprint >= 100) screen(list_line({"Variable  ", static_cast<long long>(ibp), "  is fixed."}) + '\n');
        if (walk.nleft == 0 && walk.path.nbreak == n) {
            walk.dtm = dt;
            all_fixed = true;
            break;
        }
        ++nint;
        if (const int info = walk.turn(b, dibp, dt); info != 0) return info;
    }
    return 0;
}

/// Go to the minimum of the last segment.
void finish_path(Walk& walk, int iprint, int nint) {
    const CauchyVectors& vectors = walk.vectors;
    if (iprint >= 99) {
        screen(list_line({}) + '\n' + list_line({"GCP found in this segment"}) + '\n' +
               piece_line(nint, walk.f1, walk.f2) + distance_line("stationary", walk.dtm));
    }
    walk.dtm = walk.dtm > 0 ? walk.dtm : 0;  // also when f1 = f2 = 0
    walk.tsum += walk.dtm;
    daxpy(static_cast<std::ptrdiff_t>(walk.n()), walk.tsum, vectors.d.data(), vectors.xcp.data());
    walk.bounds.stop_at_bounds(vectors.d, vectors.xcp);
}

}  // namespace

int cauchy(const Pairs& pairs, const Bounds& bounds, const CauchyVectors& vectors, CauchyScratch scratch, int& nint,
           int iprint, double sbgnrm, double epsmch) {
    std::copy(vectors.x.begin(), vectors.x.end(), vectors.xcp.begin());
    Walk walk{pairs, bounds, vectors, scratch, epsmch};
    std::fill_n(scratch.c, walk.col2(), 0.0);  // also where the point is x and nothing is walked: `cmprlb` reads it
    nint = 0;
    if (sbgnrm <= 0) {
        if (iprint >= 0) screen(list_line({"Subgnorm = 0.  GCP = X."}) + '\n');
        return 0;
    }
    if (iprint >= 99) screen("\n---------------- CAUCHY entered-------------------\n");
    walk.path = start_path(bounds, vectors);
    if (walk.path.nbreak == 0 && walk.path.nfree == static_cast<int>(walk.n()) + 1) {  // d is zero
        show_point(iprint, vectors.xcp);
        return 0;
    }
    if (const int info = walk.begin(); info != 0) return info;
    nint = 1;
    if (iprint >= 99)
        screen(list_line({"There are ", static_cast<long long>(walk.path.nbreak), "  breakpoints "}) + '\n');
    bool all_fixed = false;
    if (const int info = walk_path(walk, iprint, nint, all_fixed); info != 0) return info;
    if (!all_fixed) finish_path(walk, iprint, nint);
    daxpy(walk.col2(), walk.dtm, scratch.p, scratch.c);
    show_point(iprint, vectors.xcp);
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

bool freev(FreeSet& set, std::span<const int> iwhere, bool updatd, bool cnstnd, int iprint, int iter) {
    auto& [index, indx2, nfree, nenter, ileave] = set;
    const int n = static_cast<int>(index.size());
    const auto report = [&](int k, const char* what) {
        if (iprint >= 100) screen(list_line({"Variable ", static_cast<long long>(k), what}) + '\n');
    };
    nenter = 0;
    ileave = n + 1;
    if (iter > 0 && cnstnd) {
        for (int i = 0; i < n; ++i) {
            const int k = index[at(i)];
            const bool is_active = iwhere[at(k - 1)] > 0;
            if (i < nfree && is_active) {
                --ileave;
                indx2[at(ileave - 1)] = k;
                report(k, " leaves the set of free variables");
            } else if (i >= nfree && !is_active) {
                indx2[at(nenter)] = k;
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
        if (iwhere[at(i - 1)] <= 0) {
            index[at(nfree++)] = i;
        } else {
            index[at(--last)] = i;
        }
    }
    if (iprint >= 99) {
        screen(list_line(
                   {static_cast<long long>(nfree), " variables are free at GCP ", static_cast<long long>(iter + 1)}) +
               '\n');
    }
    return wrk;
}

}  // namespace morvane::solver
