#pragma once
/// The central difference of image gathers in depth, which takes out what varies slowly with depth.
#include "lib/base/array.h"

namespace morvane {

/// J(z) = (I(z+1) - I(z-1)) / 2, zero on the first and the last level, `times` times in place.
/// @param gathers (midpoint, offset, depth)
void depth_difference(int times, View<float, 3> gathers);

/// Its transpose, in place.
void depth_difference_transpose(int times, View<float, 3> gathers);

}  // namespace morvane
