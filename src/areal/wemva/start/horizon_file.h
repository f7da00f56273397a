#pragma once
#include <string>
#include <vector>

namespace morvane {

/// Reads the depths of a horizon from a text file: one value per line, the first number of the line; what follows it on
/// the line is ignored, empty lines are skipped, lines beyond the last value needed are not read.
/// @param n number of values needed, one for each column of the image
/// Ends the run, naming file, line and counts, if the file cannot be read, a line does not begin with a finite number,
/// or there are fewer than n values.
std::vector<float> read_horizon(const std::string& name, int n);

}  // namespace morvane
