#pragma once
/// Minimise a smooth function of n double-precision variables, each free or bounded on one or both sides, with a
/// limited-memory quasi-Newton method (L-BFGS-B) by reverse communication: `setulb` never calls the objective, it
/// returns with a text in `task` that says what it wants, and is called again.
///
///     solver::Text60 task = "START", csave;
///     std::vector<double> wa(solver::wa_size(n, m));
///     std::vector<int> iwa(solver::iwa_size(n));
///     std::array<int, 4> lsave{};  std::array<int, 44> isave{};  std::array<double, 29> dsave{};
///     for (;;) {
///         solver::setulb(n, m, x, l, u, nbd, f, g, factr, pgtol, wa, iwa, task, iprint, csave, lsave, isave, dsave);
///         if (task.starts_with("FG")) { f = value at x; g = gradient at x; }
///         else if (!task.starts_with("NEW_X")) break;
///     }
///
/// All state is in the arrays of the caller, so a copy of all of them taken between two calls continues later, also in
/// another process, with the same iterates to the last bit.
#include <array>
#include <cstddef>
#include <span>

#include "src/areal/wemva/solver/text60.h"

namespace morvane::solver {

/// Length of the work array `wa`: the sum of the blocks listed below.
constexpr std::size_t wa_size(std::size_t n, std::size_t m) {
    return (2 * m + 4) * n + 12 * m * m + 12 * m;
}
/// Length of the work array `iwa`: index, iwhere and indx2, n each.
constexpr std::size_t iwa_size(std::size_t n) {
    return 3 * n;
}

/// One step of the protocol.
///
/// @param n, m     number of variables and of stored correction pairs
/// @param x        (n) in at "START": the start point; later the point that `task` speaks of
/// @param l, u     (n) lower and upper bounds; read where nbd asks for them
/// @param nbd      (n) 0 unbounded, 1 lower bound only, 2 both, 3 upper bound only
/// @param f, g     objective and gradient (n) at x, set by the caller when asked; g is restored together with x
/// @param factr    stop when an iteration lowers f by no more than factr * dpmeps() * max(|f old|, |f|, 1); read at
///                 "START" only
/// @param pgtol    stop when the largest component of the projected gradient is no greater
/// @param wa       (wa_size(n, m)) work
/// @param iwa      (iwa_size(n)) work: index, iwhere, indx2; variables are numbered from 1 there
/// @param task     in: "START", or the last text returned, or one that begins "STOP"; out: what comes next
/// @param iprint   report level: < 0 nothing, 0 start and end, > 0 also each iprint-th iteration and the file
///                 "iterate.dat", 99 each step of an iteration, 100 each segment of the search along the projected
///                 gradient, 101 the vectors as well
/// @param csave, lsave, isave, dsave  state, not to be changed between calls
///
/// | task out                    | caller                                                                             |
/// |-----------------------------|------------------------------------------------------------------------------------|
/// | "FG_START", "FG_LNSRCH"     | set f and g for x, call again                                                      |
/// | "NEW_X"                     | an iteration is complete: x, f, g are the accepted iterate; call again             |
/// | "CONVERGENCE: ..."          | end; the text names the test that held                                             |
/// | "ABNORMAL_TERMINATION_..."  | end; x, f, g are the last accepted iterate                                         |
/// | "ERROR: ..."                | end; an argument is wrong, nothing was computed                                    |
///
/// To stop, write a text that begins "STOP" and call once more: the final report is written. With "CPU" in characters 7
/// to 9 ("STOP: CPU") x, f, g go back to where the current or last line search started, if there was one. Any other
/// text asks for an evaluation at x again ("FG_START").
///
/// x, f and g are taken as the caller left them: a caller may edit x before the evaluation, even beyond the bounds, and
/// the edited point counts as the trial point. Otherwise every point handed out lies within the bounds exactly.
/// f and g must be finite; a point where they are not is never accepted: line searches step back from it, and one that
/// finds nothing else ends the run, after a bounded number of calls, with the "ABNORMAL" text.
///
/// State, numbered from 1. lsave: prjctd (start point was projected), cnstnd (some variable is bounded), boxed (all
/// have both bounds), updatd (the last pair was stored), as 0 or 1.
///
/// | isave | holds                                            | isave | holds                                        |
/// |-------|--------------------------------------------------|-------|----------------------------------------------|
/// | 1..3  | m n, m^2, 4 m^2                                  | 31    | iupdat, updates since the last reset         |
/// | 4..20 | index in wa, from 1, of ws, wy (n m each), sy,   | 33    | nint, segments searched in this iteration    |
/// |       | ss, yy, wt (m^2 each), wn, snd (4 m^2 each), z,  | 34    | nfgv, evaluations in all                     |
/// |       | r, d, t (n each), wa (8 m), sg, sgo, yg, ygo (m) | 35    | info, error code of the last step            |
/// | 22    | nintol, segments searched in all                 | 36    | ifun, evaluations in this line search        |
/// | 24    | itfile: 8 while "iterate.dat" is written, else 0 | 37    | iword, end of the subspace step: -1, 0, 1    |
/// | 25    | iback, backtracks in this line search            | 38    | nfree, free variables at the Cauchy point    |
/// | 26    | nskip, updates skipped                           | 39    | nact, active ones                            |
/// | 27    | head, column of the oldest pair                  | 40    | ileave, first of those that left (in indx2)  |
/// | 28    | col, number of stored pairs                      | 41    | nenter, number of those that entered         |
/// | 29    | itail, column of the newest pair                 | 43,44 | bracketed, stage of the line search          |
/// | 30    | iter, iterations done                            |       |                                              |
///
/// dsave: theta, fold, tol, dnorm, epsmch, cpu1, cachyt, sbtime, lnscht, time1, gd, stpmx, sbgnrm, stp, gdold, dtd, and
/// from 17 on the 13 reals of the line search.
///
/// "iterate.dat" stands for unit 8. It is created in the current directory at "START" with iprint >= 1, an existing one
/// overwritten; each later write opens it at its end and closes it again, so that nothing is held between calls and a
/// killed run leaves a readable file. The current directory must therefore not change during a run. A file that cannot
/// be created or written is reported once on standard error, and the run goes on without it (isave 24 becomes 0).
/// Everything else is printed on standard output.
///
/// Errors: through `task` alone; arrays that are too short are a programming error (asserted).
/// Threads: runs may go on side by side with their own arrays, but only one of them may write "iterate.dat".
void setulb(int n, int m, std::span<double> x, std::span<const double> l, std::span<const double> u,
            std::span<const int> nbd, double& f, std::span<double> g, double factr, double pgtol, std::span<double> wa,
            std::span<int> iwa, Text60& task, int iprint, Text60& csave, std::array<int, 4>& lsave,
            std::array<int, 44>& isave, std::array<double, 29>& dsave);

}  // namespace morvane::solver
