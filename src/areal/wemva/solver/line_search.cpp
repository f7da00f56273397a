#include "src/areal/wemva/solver/line_search.h"

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/solver/dense.h"

namespace morvane::solver {

namespace {

/// Longest step along d that stays in the box.
double longest_step(const Bounds& bounds, std::span<const double> x, std::span<const double> d, double big) {
    double stpmx = big;
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double a1 = d[i];
        if (a1 < 0 && bounds.has_lower(i)) {
            const double a2 = bounds.l[i] - x[i];
            if (a2 >= 0)
                stpmx = 0;
            else if (a1 * stpmx < a2)
                stpmx = a2 / a1;
        } else if (a1 > 0 && bounds.has_upper(i)) {
            const double a2 = bounds.u[i] - x[i];
            if (a2 <= 0)
                stpmx = 0;
            else if (a1 * stpmx > a2)
                stpmx = a2 / a1;
        }
    }
    return stpmx;
}

/// Root term of the cubic, s sqrt((theta/s)^2 - (a/s)(b/s)); zero where rounding or odd values leave nothing to root.
double cubic_gamma(double theta, double a, double b) {
    const double s = std::max({std::abs(theta), std::abs(a), std::abs(b)});
    if (!(s > 0)) return 0;
    const double square = theta / s * (theta / s) - a / s * (b / s);
    return square > 0 ? s * std::sqrt(square) : 0;
}

/// The last of the faults that the arguments of a new search have; null: none.
const char* fault_at_start(double g, double stp, double ftol, double gtol, double xtol, double stpmin, double stpmax) {
    if (stpmax < stpmin) return "ERROR: STPMAX .LT. STPMIN";
    if (stpmin < 0) return "ERROR: STPMIN .LT. ZERO";
    if (xtol < 0) return "ERROR: XTOL .LT. ZERO";
    if (gtol < 0) return "ERROR: GTOL .LT. ZERO";
    if (ftol < 0) return "ERROR: FTOL .LT. ZERO";
    if (g >= 0) return "ERROR: INITIAL G .GE. ZERO";
    if (stp > stpmax) return "ERROR: STP .GT. STPMAX";
    if (stp < stpmin) return "ERROR: STP .LT. STPMIN";
    return nullptr;
}

}  // namespace

int lnsrlb(const Bounds& bounds, const Kind& kind, const LineVectors& vectors, double f, Search& search,
           Progress& progress, Text60& task, SearchState state) {
    const auto& [x, g, d, z, r, t] = vectors;
    constexpr double big = 1e10;
    constexpr double ftol = 1e-3;
    constexpr double gtol = 0.9;
    constexpr double xtol = 0.1;
    const auto n = static_cast<std::ptrdiff_t>(x.size());
    if (!task.starts_with("FG_LN")) {
        search.dtd = ddot(n, d.data(), d.data());
        search.dnorm = std::sqrt(search.dtd);
        search.stpmx = big;
        if (kind.cnstnd) search.stpmx = progress.iter == 0 ? 1 : longest_step(bounds, x, d, big);
        search.stp = progress.iter == 0 && !kind.boxed ? std::min(1 / search.dnorm, search.stpmx) : 1;
        search.xstep = 0;
        std::copy(x.begin(), x.end(), t.begin());
        std::copy(g.begin(), g.end(), r.begin());
        search.fold = f;
        search.ifun = 0;
        search.iback = 0;
        state.csave = "START";
    }
    search.gd = ddot(n, g.data(), d.data());
    if (search.ifun == 0) {
        search.gdold = search.gd;
        if (!(search.gd < 0)) return -4;  // not-a-number is no descent either
    }
    dcsrch(f, search.gd, search.stp, ftol, gtol, xtol, 0, search.stpmx, state.csave, state.isave, state.dsave);
    search.xstep = search.stp * search.dnorm;
    if (state.csave.starts_with("CONV") || state.csave.starts_with("WARN")) {
        task = "NEW_X";
        return 0;
    }
    task = "FG_LNSRCH";
    ++search.ifun;
    ++progress.nfgv;
    search.iback = search.ifun - 1;
    if (search.stp == 1) {  // lands on z without rounding
        std::copy(z.begin(), z.end(), x.begin());
    } else {
        for (std::size_t i = 0; i < x.size(); ++i) x[i] = search.stp * d[i] + t[i];
        if (kind.cnstnd) bounds.stop_at_bounds(d, x);
    }
    return 0;
}

void dcsrch(double f, double g, double& stp, double ftol, double gtol, double xtol, double stpmin, double stpmax,
            Text60& task, std::span<int, 2> isave, std::span<double, 13> dsave) {
    if (task.starts_with("ERROR")) return;
    int &brackt_saved = isave[0], &stage = isave[1];
    double &ginit = dsave[0], &gtest = dsave[1], &gx = dsave[2], &gy = dsave[3], &finit = dsave[4], &fx = dsave[5],
           &fy = dsave[6], &stx = dsave[7], &sty = dsave[8], &stmin = dsave[9], &stmax = dsave[10], &width = dsave[11],
           &width1 = dsave[12];
    if (task == "START") {
        const char* const fault = fault_at_start(g, stp, ftol, gtol, xtol, stpmin, stpmax);
        task = fault ? fault : "FG";
        if (fault) return;
        brackt_saved = 0;
        stage = 1;
        const double whole = stpmax - stpmin;
        //                     ginit gtest  gx gy finit fx fy stx sty stmin stmax  width  width1
        const double begin[] = {g, ftol * g, g, g, f, f, f, 0, 0, 0, stp + 4 * stp, whole, 2 * whole};
        std::copy_n(begin, dsave.size(), dsave.begin());
        return;
    }
    bool brackt = brackt_saved != 0;

    const double ftest = finit + stp * gtest;
    if (stage == 1 && f <= ftest && g >= 0) stage = 2;
    const auto at_the_end = [&] { return stp <= stmin || stp >= stmax; };
    const auto narrow = [&] { return stmax - stmin <= xtol * stmax; };
    if (brackt && at_the_end()) task = "WARNING: ROUNDING ERRORS PREVENT PROGRESS";
    if (brackt && narrow()) task = "WARNING: XTOL TEST SATISFIED";
    if (stp == stpmax && f <= ftest && g <= gtest) task = "WARNING: STP = STPMAX";
    if (stp == stpmin && (f > ftest || g >= gtest)) task = "WARNING: STP = STPMIN";
    if (f <= ftest && std::abs(g) <= gtol * -ginit) task = "CONVERGENCE";
    if (task.starts_with("WARN") || task.starts_with("CONV")) return;

    if (stage == 1 && f <= fx && f > ftest) {
        // The function less its sufficient decrease has a minimum where both conditions hold.
        End best{stx, fx - stx * gtest, gx - gtest}, other{sty, fy - sty * gtest, gy - gtest};
        dcstep(best, other, stp, f - stp * gtest, g - gtest, brackt, stmin, stmax);
        stx = best.st, fx = best.f + stx * gtest, gx = best.d + gtest;
        sty = other.st, fy = other.f + sty * gtest, gy = other.d + gtest;
    } else {
        End best{stx, fx, gx}, other{sty, fy, gy};
        dcstep(best, other, stp, f, g, brackt, stmin, stmax);
        stx = best.st, fx = best.f, gx = best.d;
        sty = other.st, fy = other.f, gy = other.d;
    }
    if (brackt) {
        if (std::abs(sty - stx) >= 0.66 * width1) stp = stx + 0.5 * (sty - stx);
        width1 = width;
        width = std::abs(sty - stx);
        stmin = std::min(stx, sty);
        stmax = std::max(stx, sty);
    } else {
        stmin = stp + 1.1 * (stp - stx);
        stmax = stp + 4 * (stp - stx);
    }
    stp = std::min(std::max(stp, stpmin), stpmax);
    if (brackt && (at_the_end() || narrow())) stp = stx;
    brackt_saved = brackt ? 1 : 0;
    task = "FG";
}

namespace {

/// Where the trial step stands: its length, value and derivative.
struct Trial {
    double stp, fp, dp;
};

/// The trial is higher: the minimum is bracketed. The cubic step if it is nearer to the best, else the mean of cubic
/// and quadratic step.
double step_back(const End& best, const Trial& trial) {
    const auto& [stx, fx, dx] = best;
    const auto& [stp, fp, dp] = trial;
    const double theta = 3 * (fx - fp) / (stp - stx) + dx + dp;
    double gamma = cubic_gamma(theta, dx, dp);
    if (stp < stx) gamma = -gamma;
    const double r = (gamma - dx + theta) / (gamma - dx + gamma + dp);
    const double stpc = stx + r * (stp - stx);
    const double stpq = stx + dx / ((fx - fp) / (stp - stx) + dx) / 2 * (stp - stx);
    return std::abs(stpc - stx) < std::abs(stpq - stx) ? stpc : stpc + (stpq - stpc) / 2;
}

/// Derivatives of opposite sign bracket it too: the step that is farther from the trial.
double step_between(const End& best, const Trial& trial) {
    const auto& [stx, fx, dx] = best;
    const auto& [stp, fp, dp] = trial;
    const double theta = 3 * (fx - fp) / (stp - stx) + dx + dp;
    double gamma = cubic_gamma(theta, dx, dp);
    if (stp > stx) gamma = -gamma;
    const double r = (gamma - dp + theta) / (gamma - dp + gamma + dx);
    const double stpc = stp + r * (stx - stp);
    const double stpq = stp + dp / (dp - dx) * (stx - stp);
    return std::abs(stpc - stp) > std::abs(stpq - stp) ? stpc : stpq;
}

/// The derivative falls in size: the cubic counts only if its minimum lies beyond the trial.
double step_on(const End& best, const End& other, const Trial& trial, bool brackt, double stpmin, double stpmax) {
    const auto& [stx, fx, dx] = best;
    const auto& [stp, fp, dp] = trial;
    const double theta = 3 * (fx - fp) / (stp - stx) + dx + dp;
    double gamma = cubic_gamma(theta, dx, dp);
    if (stp > stx) gamma = -gamma;
    const double r = (gamma - dp + theta) / (gamma + (dx - dp) + gamma);
    double stpc = stp > stx ? stpmax : stpmin;
    if (r < 0 && gamma != 0) stpc = stp + r * (stx - stp);
    const double stpq = stp + dp / (dp - dx) * (stx - stp);
    if (!brackt) {
        const bool cubic_farther = std::abs(stpc - stp) > std::abs(stpq - stp);
        return std::max(stpmin, std::min(stpmax, cubic_farther ? stpc : stpq));
    }
    const bool cubic_nearer = std::abs(stpc - stp) < std::abs(stpq - stp);
    const double stpf = cubic_nearer ? stpc : stpq;
    const double limit = stp + 0.66 * (other.st - stp);
    return stp > stx ? std::min(limit, stpf) : std::max(limit, stpf);
}

/// The derivative does not fall: the cubic between the trial and the other end.
double step_across(const End& other, const Trial& trial) {
    const auto& [sty, fy, dy] = other;
    const auto& [stp, fp, dp] = trial;
    const double theta = 3 * (fp - fy) / (sty - stp) + dy + dp;
    double gamma = cubic_gamma(theta, dy, dp);
    if (stp > sty) gamma = -gamma;
    const double r = (gamma - dp + theta) / (gamma - dp + gamma + dy);
    return stp + r * (sty - stp);
}

}  // namespace

void dcstep(End& best, End& other, double& stp, double fp, double dp, bool& brackt, double stpmin, double stpmax) {
    const Trial trial{stp, fp, dp};
    const double sgnd = best.d == 0 ? 0 : dp * (best.d / std::abs(best.d));
    const bool higher = !(fp <= best.f);
    double stpf;
    if (higher) {
        stpf = step_back(best, trial);
        brackt = true;
    } else if (sgnd < 0) {
        stpf = step_between(best, trial);
        brackt = true;
    } else if (std::abs(dp) < std::abs(best.d)) {
        stpf = step_on(best, other, trial, brackt, stpmin, stpmax);
    } else if (brackt) {
        stpf = step_across(other, trial);
    } else {
        stpf = stp > best.st ? stpmax : stpmin;
    }

    if (higher) {
        other = {stp, fp, dp};
    } else {
        if (sgnd < 0) other = best;
        best = {stp, fp, dp};
    }
    // A division by zero or values that are not finite: halve the interval.
    stp = std::isfinite(stpf) ? stpf : best.st + 0.5 * (other.st - best.st);
}

}  // namespace morvane::solver
