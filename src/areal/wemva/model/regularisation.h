#pragma once
/// What a rough change of the start model costs.
#include <span>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// weight mean[(reg_x du/dx)^2 + (reg_z du/dz)^2] / 0.1^2 of the relative change u = (s - s0) / s0, differences between
/// neighbouring samples, the mean over all samples.
/// @param start (img.xm.n, img.z.n) s0, slowness
/// @param x     same size, s
/// @param g     same size: the derivative with respect to x is added; empty: it is not wanted
/// @return the value
double roughness(const Parms& par, double weight, View<const float, 2> start, std::span<const double> x,
                 std::span<double> g);

}  // namespace morvane
