#pragma once

namespace morvane {

/// Local time of day in seconds, with milliseconds. Starts again at 0 at midnight, so that a difference taken across it
/// is negative.
float owexec_time();

}  // namespace morvane
