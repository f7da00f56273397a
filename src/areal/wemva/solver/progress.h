#pragma once
/// What a run counts and measures on its way.

namespace morvane::solver {

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

/// Counters and measures of the run that the reports show.
struct Progress {
    int iter = 0;       ///< iterations done
    int nfgv = 0;       ///< evaluations
    int nintol = 0;     ///< segments searched in all
    int nint = 0;       ///< segments searched in this iteration
    int nskip = 0;      ///< updates skipped
    int nact = 0;       ///< active variables at the Cauchy point
    int iword = -1;     ///< end of the subspace step
    double sbgnrm = 0;  ///< norm of the projected gradient
};

/// User seconds spent.
struct Times {
    double cachyt = 0, sbtime = 0, lnscht = 0;  ///< Cauchy points, subspace steps, line searches
    double time = 0;                            ///< whole run
};

}  // namespace morvane::solver
