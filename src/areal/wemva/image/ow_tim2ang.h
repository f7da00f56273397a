#pragma once
/// Operator between gathers over time shift and gathers over reflection angle. No run calls it.
///
/// A time-shift sample with lag t maps into angle ah by the depth shift t / v / (cos ah cos ax), summed over a second
/// angle ax and over a window of 2 nxw + 1 midpoints; v is the mean velocity down to the output depth at the output
/// midpoint. Shifted samples are interpolated between two depths; those that would need the last depth as the upper of
/// the two, or lie a sample or more above the first, are left out; with one depth that is all of them.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Mean velocity down to each depth, (img.xm.n, img.z.n). Prints both sizes on standard output.
/// @param vel (img.xm.n, img.z.n) velocity, each > 0
Array<float, 2> owslant_init(const Parms& par, View<const float, 2> vel);

/// Clear the output (modl if adj, else data; `add` has no effect), then owslant_exe.
/// @param vv   as owslant_init left it
/// @param modl (img.xm.n, nah, img.z.n) angle gathers
/// @param data (img.xm.n, img.th.n, img.z.n) time-shift gathers
/// Returns 0. Reads img, nxw, nah, dah, oah, nax, dax, oax, node. The result does not depend on the number of threads.
int owslant(const Parms& par, View<const float, 2> vv, bool adj, bool add, View<float, 3> modl, View<float, 3> data);

/// The operator itself, adding to its output. With adj false each row of time shifts of data is first replaced by its
/// first difference.
int owslant_exe(const Parms& par, View<const float, 2> vv, bool adj, bool add, View<float, 3> modl,
                View<float, 3> data);

}  // namespace morvane
