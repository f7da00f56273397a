#pragma once
/// What is said of a preparation: a line each, with number, limit and cure.
#include <string>
#include <vector>

#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/tools/morvane_check/focus.h"
#include "src/tools/morvane_check/records.h"

namespace morvane {

enum class Level { ok, look, wrong };

struct Verdict {
    Level level;
    std::string what, text;
};

/// "ok", "look", "wrong".
const char* level_name(Level level);

/// Of a number that should lie above (or below) `good`, and must above (below) `bad`.
Level judge(double number, double good, double bad);

/// Lengths that waves and model make: velocities from slowest to fastest, medians.
struct ModelRange {
    double slowest = 0.0, median = 0.0, fastest = 0.0;
};

/// Units, sampling of model and surface, spacing of shots, offsets, knots, margins: what needs no migration.
std::vector<Verdict> judge_sampling(const Parms& par, const ModelRange& model, const Records& records);
/// Whether the numbers fit one system of units at all; nothing can be migrated otherwise.
Verdict judge_units(const Parms& par, const ModelRange& model, const Records& records);
/// First arrivals, direct wave, folding, gaps of the frequency axis, spectra, dead and loud shots.
std::vector<Verdict> judge_records(const Parms& par, const Records& records);

/// Images with signs as they are and changed: as is, both, rec, sou.
Verdict judge_signs(const std::vector<Focus>& signs, bool direct_wave);
/// Images by time shift in periods of the peak frequency, rising in equal steps around 0. `steepest` as in time_zero.
Verdict judge_time_zero(const std::vector<double>& shifts, const std::vector<Focus>& images, double steepest,
                        double period);

/// The time shift, in periods, at which the image would focus at depth 0: where a line t0 + b z through the shares of
/// all depths is best. A velocity error makes the shift of best focus grow with depth, a wrong time zero does not.
/// @param steepest the largest |b z| at the bottom, periods
double time_zero(const std::vector<double>& shifts, const std::vector<Focus>& images, double steepest);

}  // namespace morvane
