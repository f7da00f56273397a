#pragma once
/// Velocity models of a survey: what is modelled, what an inversion should find, and what it starts from.
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"
#include "src/tools/morvane_synth/random_model.h"

namespace morvane {

/// A thin layer whose velocity is changed by the part `strength` on its centre line, falling to nothing one depth step
/// away from it.
struct Reflector {
    float z = 0.0f;    ///< depth below the middle of the line
    float dip = 0.0f;  ///< degrees, positive if it deepens with x
    float strength = 0.05f;
    float fold = 0.0f;  ///< depth added: fold (cos(a + b) - cos(b)), a = 2 pi x / fold_length, b = fold_phase
};

/// Background v0 + gradient * depth, tilted; a Gaussian body dv 2^(-((x - xc) / wx)^2 - ((z - zc) / wz)^2), which
/// has fallen to half at the half-widths wx and wz; its slowness times one plus the anomaly; thin layers.
struct ModelSpec {
    float v0 = 1800.0f;
    float gradient = 0.5f;  ///< velocity by depth
    float tilt = 0.0f;      ///< degrees; depth in the background is measured from a plane of this dip
    float dv = 0.0f;
    float xc = 0.0f, zc = 480.0f;
    float wx = 220.0f, wz = 110.0f;
    std::vector<Reflector> reflectors;
    double fold_length = 1.0, fold_phase = 0.0;
    RandomField anomaly;       ///< of the distance from the middle and of depth
    float start_scale = 1.0f;  ///< factor on the velocity of the start model
    float middle = 0.0f;       ///< x about which tilt and dips turn, and from which the folds are counted
};

/// Slowness on one grid, (x.n, z.n) each.
struct EarthModel {
    Axis x, z;
    Array<float, 2> full;    ///< what the waves see
    Array<float, 2> smooth;  ///< without the reflectors: the model that an inversion should find
    Array<float, 2> start;   ///< without body and anomaly, velocities scaled by start_scale
};

/// Evaluates the formulas above. Refuses (qas::Fatal) a velocity that is not positive, with its place.
EarthModel build_model(const ModelSpec& spec, const Axis& x, const Axis& z);

/// Dips of the layers as morvane's dip filter takes them, (z.n, x.n): the angle, in degrees, whose tangent is
/// depth samples per column. At a reflector its own dip, between two the slope interpolated in depth, above and below
/// all that of the nearest; without reflectors the tilt of the background.
Array<float, 2> layer_dips(const ModelSpec& spec, const Axis& x, const Axis& z);

/// Gaussian average exp(-(r / length)^2 / 2) of slowness, cut at three lengths, with the edge values continued
/// outwards; length 0 copies. Keeps the vertical travel time through a layer thicker than the filter.
Array<float, 2> smoothed(View<const float, 2> slowness, float dx, float dz, float length);

/// Largest and smallest value.
std::pair<float, float> value_range(View<const float, 2> values);

}  // namespace morvane
