#pragma once
/// Local averages of image gathers.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Local average of |wgcig| in boxes of 2 windz - 1, 2 windx - 1, 2 windh - 1 samples, clipped at the ends.
/// @param wgcig (img.xm.n, nsecdim, img.z.n) in
/// @param odcig same shape, overwritten
void owsmooth(const Parms& par, View<const float, 3> wgcig, View<float, 3> odcig);

/// The transpose of owsmooth's average, which is linear in |wgcig|, in place.
void owsmooth_transpose(const Parms& par, View<float, 3> odcig);

}  // namespace morvane
