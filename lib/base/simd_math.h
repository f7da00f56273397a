#pragma once
/// Vector trigonometry for the tables of the depth loop.
#include <cstddef>

#include "lib/base/array.h"

namespace morvane {

/// table(i) = scale(i) * exp(i phase(i)) for i = 0..n-1, within 2 units in the last place of `scale`.
/// Cosine and sine come from one argument reduction (three-part pi/2, exact for |phase| < 6e3; beyond, the library's
/// scalar functions) and two short polynomials, about four times the speed of the library's two vector calls.
/// @param phase (n) radians
/// @param scale (n) real factor of each sample
void cis_table(const float* phase, const float* scale, cf* table, std::ptrdiff_t n);

}  // namespace morvane
