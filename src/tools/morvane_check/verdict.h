#pragma once
/// What is said of a preparation: a line each, with number, limit and cure.
#include <array>
#include <string>
#include <vector>

#include "src/areal/wemva/focus/focus.h"
#include "src/areal/wemva/focus/signs.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
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
Verdict judge_signs(const std::array<Focus, 4>& signs, bool direct_wave);
/// Fit of the data that the image predicts, signs likewise. Another sign fits by mistake if it does not focus: a source
/// turned in time is one that is delayed, which may make up for a wrong velocity.
Verdict judge_fit(const std::array<double, 4>& fit, const SignShares& shares);
/// @param by_fit may be no number
Verdict judge_time_zero(double by_focus, double by_fit, double period);

}  // namespace morvane
