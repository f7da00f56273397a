#pragma once
/// Phase and envelope filters along depth; no run calls them. Gathers have the shape (img.xm.n, nsecdim, img.z.n).
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Filter each depth trace by minus exp(sqrt(i |kz|)) in its spectrum: a phase of sqrt(|kz| / 2), and a gain that grows
/// by the exponential of the same. Writes the spectral factors to standard error. Reads img.z.n and kz.all.
void owzphase(const Parms& par, View<float, 3> wgcig);

/// Replace the gathers by (a + e)^2: e the envelope of each depth trace at half amplitude, smoothed by triangle3 of tc2
/// and tc1, 1 where it is zero, and a its maximum. The smoothing takes each midpoint's panel, which is stored depth
/// fastest, for one of nsecdim by img.z.n: its first axis, smoothed by tc1, is a stretch of nsecdim depths, its second,
/// by tc2, goes on from stretch to stretch and trace to trace.
void owenvelope(const Parms& par, View<float, 3> b_image);

}  // namespace morvane
