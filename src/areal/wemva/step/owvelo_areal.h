#pragma once
#include <span>
#include <vector>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Reference velocities of one depth level and the range they were made from.
struct References {
    std::vector<float> vref;  ///< (nref) ascending but for a fast body's own, last
    float minv = 0.0f;        ///< smallest velocity; the mean when nref is 1
    float maxv =
        0.0f;  ///< largest velocity below vsal (the largest of all if none reaches vsal); the mean when nref is 1
};

/// Divide the velocity range of a level evenly into par.nref references. Velocities of vsal and above count as a fast
/// body, stay out of the division and get the last reference, their maximum. With nref = 2 and a fast body the one
/// regular reference is the smallest velocity.
/// @param vel  (kxm.n) velocity of the level (length/s)
References owvref(const Parms& par, std::span<const float> vel);

/// As owvref with `nref` given and no reference of its own for the fast body.
References owvref1(int nref, float vsal, std::span<const float> vel);

}  // namespace morvane
