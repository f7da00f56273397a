#pragma once
/// The model at one depth, as the kernels of a step see it.
#include <vector>

#include "lib/base/array.h"

namespace morvane {

/// The model at one depth as the extrapolators see it.
struct MediumLevel {
    std::vector<float> vref;     ///< reference velocities (length/s), 1 to nref
    Array<float, 2> sdiff;       ///< (nx, nref) slowness less the reference slowness
    Array<float, 2> weight;      ///< (nx, nref) share of each reference's field in a sample; empty with one reference
    Array<float, 2> dweight;     ///< (nx, nref) its derivative with respect to slowness; empty where all are zero
    Array<float, 1> velocity;    ///< (nx) finite-difference form with given references: 1 / slowness
    std::vector<int> untouched;  ///< samples that keep the spectrum coefficient of their index (a tie of region bounds)
};

}  // namespace morvane
