#pragma once
#include <vector>

namespace morvane {

/// A regular axis: n samples at o, o + d, o + 2d, ...; `all` holds the coordinates where they are wanted as a table.
struct Axis {
    int n = 0;
    float d = 0.0f;
    float o = 0.0f;
    std::vector<float> all;
};

}  // namespace morvane
