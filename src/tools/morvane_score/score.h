#pragma once
/// How well a run of morvane did: its log, its models against the true one, and the focusing of its gathers.
#include <cmath>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"

namespace morvane {

/// One line of the iteration log.
struct LogLine {
    int iter = 0;
    int titer = 0;
    std::string task;  ///< its first five characters
    double fun = 0.0;  ///< not a number where the log shows asterisks
};

/// The iteration lines of a log; anything else in it is skipped.
std::vector<LogLine> read_log(std::istream& log);

/// An evaluation whose model the solver kept.
struct Accepted {
    int iteration = 0;   ///< 0: the start model
    int evaluation = 1;  ///< counted from 1; the panel of the outputs that belongs to it
    double fun = 0.0;
};

/// The first evaluation, and the one before each line with task NEW_X: when the solver reports a new iterate the log's
/// count stands at the next evaluation.
std::vector<Accepted> accepted_steps(const std::vector<LogLine>& log);

/// Number of evaluations in the log.
int count_evaluations(const std::vector<LogLine>& log);

/// The part of the model that is looked at; both ends belong to it.
struct Region {
    double xmin, xmax, zmin, zmax;
    bool holds(double x, double z) const;
};

/// A model or an image on its axes, (x.n, z.n) or (x.n, h.n, z.n).
struct ModelPanel {
    Axis x, z;
    Array<float, 2> values;
};

/// sqrt(sum (s - t)^2 / sum t^2) over the samples of `truth` (slowness t) in the region that `model` (slowness s, same
/// steps, any origin) has too. Refuses (qas::Fatal) unequal steps and a region without a common sample.
double relative_error(const ModelPanel& truth, const ModelPanel& model, const Region& region);

/// Energy of the offset nearest to zero over that of all offsets, in the region; 0 for an image of zeros.
double zero_offset_share(View<const float, 3> image, const Axis& x, const Axis& h, const Axis& z, const Region& region);

/// What the table shows of one model.
struct ScoreRow {
    int iteration = 0, evaluation = 1;
    double fun = 0.0, error = 0.0, share = 0.0;
    double fit = NAN;  ///< not a number without a course that tells it
};

/// fit by evaluation, of the file that a run wrote with `course`: its columns `evaluation` and `fit`. Lines that are
/// not whole are skipped; a file without these columns gives nothing.
std::map<int, double> read_fits(std::istream& course);

/// Correlation of fit and error over these rows; not a number with fewer than three that have both, or where one is
/// constant.
double correlation_of_fit(const std::vector<ScoreRow>& rows);

/// The closing table: one line an accepted iterate, then start, last and (if `truth` is not null; its error is 0) the
/// true model side by side with the change from first to last. With fit also that, its greatest value and its
/// correlation with the error. Falls of `fun` and error are in percent of the start.
/// @param rows at least one, the start first
std::string score_table(const std::vector<ScoreRow>& rows, int evaluations, const Region& region,
                        const ScoreRow* truth);

}  // namespace morvane
