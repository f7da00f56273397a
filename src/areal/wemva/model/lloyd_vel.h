#pragma once
/// Reference slownesses by clustering: for each depth level the few slownesses that represent it best in the
/// least-squares sense, with the bounds between their regions.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Cluster every depth level of a slowness model (one-dimensional Lloyd iteration; in its first half regions with too
/// few samples or too close to a neighbour are removed, and the widest one is split in their place where that is worth
/// it).
/// @param par   reads nref, min_r_pct, min_s_pct (both as fractions), perc_start, slow_own, niter_over
/// @param slow  (img.xm.n, img.z.n) slowness (s/length), each > 0, not checked
/// @param junk  (>= nref, 2, img.z.n) out: centre and upper bound of each region, centres increasing except where a
/// region
///              stayed empty; the bound of the last region is 1e6; rows without a region are -1
/// A level keeps one region at least, however large min_r_pct is. Serial; meant to run once.
void lloyd_vel1(const Parms& par, View<const float, 2> slow, View<float, 3> junk);

}  // namespace morvane
