#pragma once
/// What is done to a trace before its transform: mute, cut of late times, gain, point to line source.
#include <string>
#include <utility>
#include <vector>

#include "lib/base/array.h"

namespace morvane::prepare {

/// Time before which a trace at an offset is zero: `intercept` + offset / `velocity`, or a table of (offset, time)
/// pairs in ascending order of offset, linear between them and constant beyond. No mute if both are empty.
struct Mute {
    double velocity = 0, intercept = 0;
    std::vector<std::pair<double, double>> table;
    double taper = 0;  ///< time over which the samples rise after it

    bool active() const { return velocity > 0 || !table.empty(); }
    double time(double offset) const;
};

/// A mute from a text file: one offset and time per line, blank lines and lines that start with # apart.
/// Refuses (qas::Fatal), with the line: what is no pair of numbers, offsets that do not ascend.
std::vector<std::pair<double, double>> read_mute_table(const std::string& path);

struct Conditioning {
    Mute mute;
    double source_time = 0;     ///< when the source fires on the clock of the records; times below are from then on
    double last = 0;            ///< samples after this time of the record are zero; 0: all are kept
    double end_taper = 0;       ///< time over which they run out
    double gain = 0;            ///< factor t^gain
    bool point_source = false;  ///< factor sqrt(t): half of the step from point to line source

    /// @param samples of a trace that begins at time t0 of the record, changed in place
    void apply(std::span<float> samples, double t0, double dt, double offset) const;
};

/// A trace that was read ahead, to learn from.
struct SampleTrace {
    double offset = 0, t0 = 0;
};

/// Arrival of the direct wave as a straight line, intercept + offset / velocity.
struct DirectWave {
    double velocity = 0, intercept = 0;
    double misfit = 0;    ///< median distance of the picks
    bool fitted = false;  ///< false: the surface velocity and intercept 0
};

/// From first breaks, the first sample above a tenth of the trace's largest, of the nearer half of the traces: the
/// line of least median distance among velocities from half to twice the surface velocity. Where the picks do not line
/// up within `tolerance`, the surface velocity is taken.
DirectWave fit_direct_wave(const std::vector<SampleTrace>& heads, View<const float, 2> samples, double dt,
                           double surface_velocity, double tolerance);

}  // namespace morvane::prepare
