#pragma once
/// Reference velocities of a level, and how their fields combine: the phase-shift form's view of the model.
#include <span>
#include <vector>

#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/medium_level.h"

namespace morvane {

/// Choose the reference velocities of a level and how their fields combine, sample by sample: with a region table the
/// field of the sample's slowness region; else the two references next to the local velocity v, blended by f = |v - c|
/// / v of the lower one c, less its whole part (all comparisons are of integer parts); one reference where the level's
/// range lies in one unit.
/// @param vel   (nx) slowness of the level
/// @param vref1 (nref, 2) region table: centre and upper bound, -1 for no region; empty: references from owvref
void pspi_level(const Parms& par, std::span<const float> vel, View<const float, 2> vref1, MediumLevel& level);

/// As pspi_level for given reference velocities (as pspi_level left them) instead of the level's own, each sample with
/// the region, or the two references, that it has in the level `start` (nx) of another model. Below the lower of the
/// two that one's field serves alone, so that the result is continuous in slowness.
void pspi_level_given(std::span<const float> vel, View<const float, 2> vref1, const std::vector<float>& vref,
                      std::span<const float> start, MediumLevel& level);

}  // namespace morvane
