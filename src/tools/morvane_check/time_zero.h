#pragma once
/// Does the time of the records begin where the source's does? Two estimates, whose errors have little to do with each
/// other. Both part a wrong time zero from a wrong velocity: what is left of a velocity error grows with depth. They
/// return the shift of the records, in periods, that suits them best; positive: later.
#include <vector>

#include "src/areal/wemva/focus/focus.h"

namespace morvane {

/// By focus: where the line t0 + b z through the zero-offset shares of all depths is best.
/// @param shifts   of the images, periods, rising in equal steps around 0
/// @param steepest the largest |b z| at the bottom, periods
double time_zero_by_focus(const std::vector<double>& shifts, const std::vector<Focus>& images, double steepest);

/// By fit: for each of some shifts the velocity is scaled until the image predicts the data best; the greatest fit of
/// these lies at t0, by the parabola through them. Not a number where it shows no top: with a start model whose error
/// changes much with depth.
/// @param few    left at its own velocity
/// @param period time of a period
/// @param step   of velocity, in parts of it, to begin with
double time_zero_by_fit(FewShots& few, double period, double step);

/// The place of the top of the parabola through (x, y) by least squares; not a number if there is none within the x.
double top_of_parabola(const std::vector<double>& x, const std::vector<double>& y);

}  // namespace morvane
