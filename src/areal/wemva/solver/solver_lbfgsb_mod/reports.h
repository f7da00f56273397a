#pragma once
/// What the optimiser prints: on standard output, and in the file "iterate.dat".
#include <span>
#include <string>
#include <string_view>

#include "src/areal/wemva/solver/solver_lbfgsb_mod/bounds.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod/line_search.h"

namespace solver {

/// User processor time of the process so far in seconds, in single precision.
double timer();

/// Print on standard output.
void screen(std::string_view text);

/// Create or empty the report file. @return itfile: its unit number 8, or 0 with a warning when it cannot be made.
int create_itfile();
/// Append to the report file if there is one; a failure sets itfile to 0 with a warning.
void write_itfile(int& itfile, std::string_view text);

/// Values six a line behind four blanks.
std::string six_a_line(std::span<const double> x);
/// A blank line, then the values six a line, the first line with a label in the first four columns. Exactly six values
/// are followed by an empty line.
std::string labelled_vector(std::string_view label, std::span<const double> x);

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

/// Report of the start: names, precision, sizes, start point and bounds.
void prn1lb(const Bounds& bounds, int n, int m, std::span<const double> x, int iprint, int& itfile, double epsmch);

/// "At iterate" line.
void print_iterate(int iter, double f, double sbgnrm);

/// Report of the first evaluation.
void print_first(const Progress& progress, double f, int iprint, int& itfile);

/// Report of an iteration.
void prn2lb(std::span<const double> x, double f, std::span<const double> g, int iprint, int& itfile,
            const Progress& progress, const Search& search);

/// Report of the end.
/// @param info, k  error code, and the variable (from 1) it speaks of
void prn3lb(int n, std::span<const double> x, double f, const Text60& task, int iprint, int info, int& itfile,
            const Progress& progress, const Search& search, int k, const Times& times);

}  // namespace solver
