#pragma once
/// The files of a prepared survey.
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/plan.h"

namespace morvane::prepare {

/// What the pass through all traces found.
struct Counts {
    std::int64_t used = 0, silent = 0, stacked = 0;  ///< traces taken; zero throughout; beyond the first of a node
    std::int64_t live = 0;                           ///< traces of rec that hold data
    double rms = 0;                                  ///< of their samples
};

/// Names of the outputs. They are checked before anything is read, so that a long run does not end at them.
class Outputs {
public:
    /// Refuses (qas::Fatal) outputs that exist (unless overwrite), and such that are an input whatever else is asked.
    /// Without a data path of the user's the data go into the folder of the prefix.
    Outputs(qas::Session& session, const PrepareOptions& options);
    /// Removes what was begun unless finish() was called.
    ~Outputs();
    Outputs(const Outputs&) = delete;
    Outputs& operator=(const Outputs&) = delete;

    const std::string& prefix() const { return prefix_; }
    const std::string& datapath() const { return datapath_; }  ///< that goes into the parameter file; may be empty
    std::string name(const std::string& tail) const { return prefix_ + tail; }
    /// Makes the folder; from here on the outputs are this program's.
    void begin();
    /// Writes text to a file, which is there whole or not at all.
    void write(const std::string& tail, const std::string& text);
    void finish() { begun_ = false; }

private:
    qas::Session& session_;
    std::string prefix_, datapath_;
    bool begun_ = false;
};

/// Start model, smoothed if asked for: slowness, n1 columns, n3 levels.
void write_velocity(qas::Session& session, const PrepareOptions& options, const Plan& plan, const Velocity& velocity);
/// One source function (per-shot layout), or the downgoing field of each shot along the line.
void write_source(qas::Session& session, const PrepareOptions& options, const Plan& plan, const Velocity& velocity);
/// All traces, shot by shot: memory for one shot's transforms and a few hundred traces.
Counts write_data(qas::Session& session, const PrepareOptions& options, const Plan& plan, Survey& survey,
                  const Scan& scan);

std::string parameter_file(const Outputs& outputs, const PrepareOptions& options, const Plan& plan);
std::string report(const PrepareOptions& options, const Plan& plan, const Survey& survey, const Scan& scan,
                   const Velocity& velocity, const Counts& counts);

}  // namespace morvane::prepare
