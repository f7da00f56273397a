#pragma once
#include <span>

namespace morvane {

/// Fill the lateral weight of the wavefields: a raised cosine over `tapertr` samples at each end, from 0 at the end
/// sample, 1 between. Where the ends overlap the later of the assignments (outermost first, left before right) stands.
/// @param tapertr samples in each ramp; <= 0: all ones; indices beyond the line are skipped
/// @param taper   one weight per sample, overwritten
void owtaper(int tapertr, std::span<float> taper);

}  // namespace morvane
