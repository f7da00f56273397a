#pragma once
/// The adjoint of owwemva for an image residual that is not known before the loop over frequencies.
#include <functional>

#include "src/areal/wemva/passes/ow_wei_areal.h"

namespace morvane {

/// The residual (nx, nsecdim, nz) to carry back at one frequency, from the background fields (nx, nz) of that
/// frequency. Called in the parallel loop by thread slot `inode`; what it returns must stand until the slot's next
/// call.
using ResidualOf = std::function<View<const float, 3>(int iw, int inode, View<const cf, 2> bws, View<const cf, 2> bwr)>;

/// deltas += A' residual, frequency by frequency. Shapes as owwemva.
void back_project(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                  View<const float, 2> vel, View<float, 2> deltas, const ResidualOf& residual_of);

}  // namespace morvane
