#pragma once
/// Whole part of a real, toward zero. Values beyond +-2^30 give that end, so that sums of two results cannot overflow;
/// not-a-number gives 0.

namespace morvane {

inline int truncate(float value) {
    constexpr int end = 1 << 30;
    if (value != value) return 0;
    if (value <= -static_cast<float>(end)) return -end;
    return value < static_cast<float>(end) ? static_cast<int>(value) : end;
}

}  // namespace morvane
