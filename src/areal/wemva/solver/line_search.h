#pragma once
/// The line search along d = z - x for a step that satisfies the strong Wolfe conditions, by reverse communication.
#include <span>

#include "src/areal/wemva/solver/bounds.h"
#include "src/areal/wemva/solver/progress.h"
#include "src/areal/wemva/solver/text60.h"

namespace morvane::solver {

/// The vectors of a line search, n each.
struct LineVectors {
    std::span<double> x;           ///< out: the trial point
    std::span<const double> g;     ///< gradient there
    std::span<const double> d, z;  ///< direction, and the end of the full step
    std::span<double> r, t;        ///< out at the start: copies of g and x, from which the caller restores them
};

/// What `dcsrch` keeps between calls.
struct SearchState {
    Text60& csave;
    std::span<int, 2> isave;
    std::span<double, 13> dsave;
};

/// One step of the line search.
/// @param progress  iter in: iterations done, the first one takes a short first step; nfgv counts the evaluations
/// @param task      in: "FG_LN..." continues, all else starts; out: "FG_LNSRCH" evaluate at x, "NEW_X" the search is
///                  over
/// @return info: 0, or -4 when d is no descent direction.
int lnsrlb(const Bounds& bounds, const Kind& kind, const LineVectors& vectors, double f, Search& search,
           Progress& progress, Text60& task, SearchState state);

/// One step of the search for stp with f(stp) <= f(0) + ftol stp f'(0) and |f'(stp)| <= gtol |f'(0)|.
/// @param f, g    function and derivative at stp
/// @param stp     in/out: step
/// @param xtol    relative width of the interval at which the search gives up with a "WARNING" text
/// @param task    in: "START" or the last text; out: "FG" evaluate at stp, or "CONVERGENCE", "WARNING: ..." (stp is the
///                result), "ERROR: ..." (an argument is wrong; later calls leave it so)
/// @param isave   brackt, stage
/// @param dsave   ginit, gtest, gx, gy, finit, fx, fy, stx, sty, stmin, stmax, width, width1
void dcsrch(double f, double g, double& stp, double ftol, double gtol, double xtol, double stpmin, double stpmax,
            Text60& task, std::span<int, 2> isave, std::span<double, 13> dsave);

/// One end of the interval: a step, the function and its derivative there.
struct End {
    double st = 0, f = 0, d = 0;
};

/// A safeguarded step from the values at the two ends of an interval and at the trial step, and the next interval.
/// @param best           in/out: the best step so far
/// @param other          in/out: the other end
/// @param stp            in: the trial step, out: the next one
/// @param fp, dp         function and derivative at the trial step; an fp that is not a number counts as too high
/// @param brackt         in/out: a minimum is bracketed
/// @param stpmin, stpmax limits of the next step while none is
void dcstep(End& best, End& other, double& stp, double fp, double dp, bool& brackt, double stpmin, double stpmax);

}  // namespace morvane::solver
