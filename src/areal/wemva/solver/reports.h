#pragma once
/// What the optimiser prints: on standard output, and in the file "iterate.dat".
#include <span>
#include <string_view>

#include "src/areal/wemva/solver/bounds.h"
#include "src/areal/wemva/solver/progress.h"
#include "src/areal/wemva/solver/text60.h"

namespace morvane::solver {

/// User processor time of the process so far in seconds, in single precision.
double timer();

/// Create or empty the report file. @return itfile: its unit number 8, or 0 with a warning when it cannot be made.
int create_itfile();
/// Append to the report file if there is one; a failure sets itfile to 0 with a warning.
void write_itfile(int& itfile, std::string_view text);

/// Report of the start: names, precision, sizes, start point and bounds.
void prn1lb(const Bounds& bounds, int n, int m, std::span<const double> x, int iprint, int& itfile, double epsmch);

/// "At iterate" line.
void print_iterate(int iter, double f, double sbgnrm);

/// Report of the first evaluation.
void print_first(const Progress& progress, double f, int iprint, int& itfile);

/// Report of an iteration.
void prn2lb(std::span<const double> x, double f, std::span<const double> g, int iprint, int& itfile,
            const Progress& progress, const Search& search);

/// How a run ended.
struct Ending {
    const Text60& task;
    int info = 0;  ///< error code
    int k = 0;     ///< the variable (from 1) it speaks of
};

/// Report of the end.
void prn3lb(std::span<const double> x, double f, const Ending& ending, int iprint, int& itfile,
            const Progress& progress, const Search& search, const Times& times);

}  // namespace morvane::solver
