#pragma once
/// The course of a run: a row for each evaluation, the accepted model of the greatest fit, and whether fit still rises.
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/measures.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/exec_time.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/run/text_log.h"

namespace morvane {

/// What is known of an evaluation when it is done.
struct CourseRow {
    int evaluation = 1, iteration = 1, stage = 1;
    bool start = false;  ///< it evaluates the model that the stage starts from, which counts as accepted
    double fun = 0.0;
    double gradient = 0.0;  ///< norm of the projected gradient, by the solver's variables
    double step = 0.0;      ///< largest relative change of slowness since the model accepted before
    Measures measures;
    Spent spent;
};

/// An accepted model and its fit.
struct FittingModel {
    int panel = 0;  ///< 0: none yet
    double fit = 0.0;
};

/// Follows a run. Whether a model was accepted is known at the solver's next answer, so a row waits for that.
class Course {
public:
    /// Opens the file that `course` names, if any; what it holds stays until begin().
    Course(qas::Session& session, const Parms& par);
    void begin();
    /// In place of begin(), after archive() has read: goes on from there.
    void resume();
    /// The next stage begins, from the model accepted last.
    void begin_stage();
    const std::vector<double>& accepted_model() const { return accepted_; }
    /// An evaluation of model x (slowness) is done. Fills in the step.
    void evaluated(CourseRow row, std::span<const double> x);
    /// The solver's next answer. Writes the row, and with `best` the model if it is accepted and fits better than all
    /// before.
    void answered(bool accepted);
    /// Whether fit has risen by less than stop_rise over the last stop_patience accepted models of the stage.
    bool fit_has_settled() const;
    double last_rise() const;
    const FittingModel& first() const { return first_; }
    const FittingModel& best() const { return best_; }
    /// What it needs to go on; the file's length is among it.
    void archive(Archive& archive);
    /// Puts the file on the disk and closes it.
    void finish();

private:
    void write_best();
    void put_best();

    qas::Session& session_;
    const Parms& par_;
    bool keeps_best_;
    std::optional<TextLog> file_;
    std::optional<CourseRow> waiting_;
    std::vector<double> accepted_, trial_;
    std::vector<double> fits_;  // of the stage's accepted models
    FittingModel first_, best_;
    std::vector<float> best_model_;
    bool best_written_ = false;
    std::int64_t length_ = 0;  // of the file, as archive() read it
};

/// A row as the file has it: evaluation, iteration, stage, accepted (1 or 0), fun, data, regularisation, gradient,
/// step, share, fit, seconds, processor_seconds; empty where there is no such measure.
std::string course_line(const Parms& par, const CourseRow& row, bool accepted);

}  // namespace morvane
