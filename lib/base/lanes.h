#pragma once
/// Columns of several frequencies side by side in SIMD lanes, and back.
#include <algorithm>
#include <cstring>

#include "lib/base/array.h"
#include "lib/base/simd.h"

namespace morvane {

/// Frequencies that are carried together.
inline constexpr int lane_count = 16;

/// Samples of a block of frequencies, frequency fastest: (lane_count, 2, nx), real and imaginary parts apart.
using LaneField = View<float, 3>;
using ConstLaneField = View<const float, 3>;

/// Lane k of row i goes to lane i of row k.
inline void transpose(Float8 (&row)[8]) {
    Float8 a[8], b[8];
    for (int i = 0; i < 8; i += 2) {
        a[i] = __builtin_shufflevector(row[i], row[i + 1], 0, 8, 1, 9, 4, 12, 5, 13);
        a[i + 1] = __builtin_shufflevector(row[i], row[i + 1], 2, 10, 3, 11, 6, 14, 7, 15);
    }
    for (int i = 0; i < 8; i += 4) {
        for (int j = 0; j < 2; ++j) {
            b[i + 2 * j] = __builtin_shufflevector(a[i + j], a[i + j + 2], 0, 1, 8, 9, 4, 5, 12, 13);
            b[i + 2 * j + 1] = __builtin_shufflevector(a[i + j], a[i + j + 2], 2, 3, 10, 11, 6, 7, 14, 15);
        }
    }
    for (int i = 0; i < 4; ++i) {
        row[i] = __builtin_shufflevector(b[i], b[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        row[i + 4] = __builtin_shufflevector(b[i], b[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

/// lanes(b, part, x) = columns(x, b); lanes without a column are zero.
/// @param columns (nx, at most lane_count)
void to_lanes(View<const cf, 2> columns, LaneField lanes);

/// columns(x, b) = lanes(b, part, x)
void from_lanes(ConstLaneField lanes, View<cf, 2> columns);

/// The same for real numbers: columns(x, b) = lanes(b, x).
void from_lanes(View<const float, 2> lanes, View<float, 2> columns);

}  // namespace morvane
