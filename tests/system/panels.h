#pragma once
/// Measures of panels read back from a program's outputs.
#include <algorithm>
#include <cmath>
#include <vector>

inline double sum_of_squares(const std::vector<float>& samples) {
    double sum = 0.0;
    for (const float s : samples) sum += static_cast<double>(s) * s;
    return sum;
}

/// Largest difference over the largest value.
inline double mismatch(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return INFINITY;
    double difference = 0.0, size = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference = std::max(difference, std::abs(static_cast<double>(a[i]) - b[i]));
        size = std::max(size, std::abs(static_cast<double>(a[i])));
    }
    return difference / size;
}
