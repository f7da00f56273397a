#pragma once
/// The line search along d = z - x for a step that satisfies the strong Wolfe conditions, by reverse communication.
#include <span>

#include "src/areal/wemva/solver/solver_lbfgsb_mod/bounds.h"

namespace solver {

/// What a line search keeps between calls.
struct Search {
    double fold = 0;   ///< f where it started
    double gd = 0;     ///< derivative along d at the trial point
    double gdold = 0;  ///< and where it started
    double stp = 0;    ///< step, in units of d
    double stpmx = 0;  ///< longest step allowed
    double dnorm = 0;  ///< length of d
    double dtd = 0;    ///< its square
    double xstep = 0;  ///< stp dnorm; not kept between calls of the solver
    int ifun = 0;      ///< evaluations asked for
    int iback = 0;     ///< backtracks: ifun - 1
};

/// One step of the line search.
/// @param x      (n) out: the trial point
/// @param d, z   (n) direction, and the end of the full step
/// @param r, t   (n) out at the start: copies of g and x, from which the caller restores them
/// @param iter   iterations done; the first one takes a short first step
/// @param nfgv   in/out: evaluations in all
/// @param task   in: "FG_LN..." continues, all else starts; out: "FG_LNSRCH" evaluate at x, "NEW_X" the search is over
/// @param csave, isave, dsave  the state of `dcsrch`
/// @return info: 0, or -4 when d is no descent direction.
int lnsrlb(const Bounds& bounds, std::span<double> x, double f, std::span<const double> g, std::span<const double> d,
           std::span<double> r, std::span<double> t, std::span<const double> z, Search& search, int iter, int& nfgv,
           Text60& task, bool boxed, bool cnstnd, Text60& csave, std::span<int, 2> isave, std::span<double, 13> dsave);

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

/// A safeguarded step from the values at the two ends of an interval and at the trial step, and the next interval.
/// @param stx, fx, dx  best step so far, its function and derivative
/// @param sty, fy, dy  the other end
/// @param stp          in: the trial step, out: the next one
/// @param fp, dp       function and derivative at the trial step; an fp that is not a number counts as too high
/// @param brackt       in/out: a minimum is bracketed
/// @param stpmin, stpmax  limits of the next step while none is
void dcstep(double& stx, double& fx, double& dx, double& sty, double& fy, double& dy, double& stp, double fp, double dp,
            bool& brackt, double stpmin, double stpmax);

}  // namespace solver
