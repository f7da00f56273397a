#pragma once

namespace morvane {

/// Local time of day in seconds, with milliseconds. Starts again at 0 at midnight, so that a difference taken across it
/// is negative.
float owexec_time();

/// Seconds on the clock and seconds of the processors.
struct Spent {
    double seconds = 0.0, processor = 0.0;
};
/// Of this process, all threads of it, since some moment.
Spent spent_so_far();

}  // namespace morvane
