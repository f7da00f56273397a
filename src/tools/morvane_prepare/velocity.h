#pragma once
/// Velocity models of any form, as slowness at any place of the line.
#include <functional>
#include <string>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/line.h"

namespace morvane::prepare {

/// A unit of velocity or slowness by its name: "m/s", "km/s", "ft/s", "s/m", "s/km", "s/ft".
struct VelocityUnit {
    double metres = 1;  ///< metres in its unit of length
    bool slowness = false;
};
/// Refuses (qas::Fatal) other names, with the key.
VelocityUnit velocity_unit(const std::string& name);
/// Metres in a unit of length: "m", "km", "ft". Refuses (qas::Fatal) others, with the key.
double length_in_metres(const std::string& key, const std::string& name);

struct VelocityOptions {
    std::string file;  ///< SEG-Y (.sgy, .segy), .npy, a dataset, or a table of x z v; empty: v0 + gradient z
    double v0 = 0, gradient = 0;
    std::string unit;                       ///< empty: length unit / s
    double dx = 0, dz = 0, x0 = 0, z0 = 0;  ///< grid of .npy; dz also of SEG-Y
    double shift = 0;                       ///< added to its x
    double length = 1;                      ///< metres in the unit of length of the run
    double segy_length = 1;                 ///< metres in that of SEG-Y coordinates
};

/// In the run's units. Beyond its edges a model keeps its edge values.
struct Velocity {
    std::function<double(double x, double z)> slowness;
    std::string what;            ///< where it comes from, in words
    double least = 0, most = 0;  ///< velocities
    double bottom = 0;           ///< depth of its last sample; 0: no end
    double left = 0, right = 0;  ///< extent; equal: no end
};

/// Reads the model. Refuses (qas::Fatal): files that cannot be read, samples that are not positive and finite, with
/// their place; a median velocity outside 300 to 8000 m/s in the unit that was named or taken, with the unit that would
/// fit.
Velocity read_velocity(qas::Session& session, const VelocityOptions& options, const Line& line);

}  // namespace morvane::prepare
