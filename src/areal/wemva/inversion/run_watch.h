#pragma once
/// Looks after a run between its shots: signals, checkpoints, the line that tells how far it is.
#include <optional>
#include <string>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/progress_line.h"
#include "src/areal/wemva/inversion/run_state.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/restart/checkpoint_file.h"

namespace morvane {

/// Thrown where a signal ends the run.
struct Interrupted {
    int signal;
    bool can_go_on;  ///< there is a checkpoint
};

/// What is looked after must outlive it.
class RunWatch : public Watch {
public:
    /// Claims the files of the checkpoint, if one is asked for; from now on signals are only noted.
    /// Errors: resume=y without a checkpoint; those of CheckpointFile.
    RunWatch(InversionSetup& setup, RunState& state, EvaluationArrays& arrays, Team& team);
    ~RunWatch() override;
    /// Whether the run goes on from a checkpoint.
    bool resumes() const { return resumes_; }
    /// Reads the checkpoint; outputs stay as they are.
    /// Errors: it is unusable, or of a run with another version, other parameters or other inputs.
    void read();
    /// The outputs go on from there, and the history says so. @param report the solver's, "iterate.dat"
    void resume_outputs(qas::PlainOutput& report);
    /// To be called before the outputs begin, so that what is refused leaves them as they were.
    /// Errors: an output whose data are not in an ordinary file, or in several.
    void check_outputs();
    /// To be called when outputs have begun: the checkpoint holds how far the report is, too.
    void begin(qas::PlainOutput& report);
    /// Checkpoint when it is due; ends the run after a signal.
    void before_shot(const Position& position) override;
    /// The last checkpoint, from which more iterations can be asked for.
    void finish();

private:
    void keep(Archive& archive);
    void keep_stage(Archive& archive);
    void write();

    InversionSetup& setup_;
    RunState& state_;
    EvaluationArrays& arrays_;
    Team& team_;
    std::optional<CheckpointFile> file_;
    qas::PlainOutput* report_ = nullptr;
    std::int64_t report_bytes_ = 0;
    std::string parameters_, inputs_;
    bool resumes_ = false;
    double written_at_;  // seconds
    ProgressLine progress_;
};

/// The line that goes on with this run: its words, as a shell takes them.
std::string line_to_go_on(const qas::Session& session);

}  // namespace morvane
