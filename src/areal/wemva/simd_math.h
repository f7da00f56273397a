#pragma once
/// Vector trigonometry for the tables of the depth loop.
#include <cstddef>

#include "lib/base/array.h"

/// table(i) = scale(i) * exp(i phase(i)) for i = 0..n-1; single precision, correct to a few units in the last place.
/// @param phase (n) radians
/// @param scale (n) real factor of each sample
void cis_table(const float* phase, const float* scale, cf* table, std::ptrdiff_t n);
