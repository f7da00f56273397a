#pragma once
/// Minimum, maximum, mean and rms of samples.
#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include "src/tools/qas/dataset.h"

namespace qastool {

/// Sums over samples, in double precision. A complex sample counts with its modulus. Samples that are not finite (for
/// complex ones, either part) are counted, and enter nothing else.
struct Statistics {
    std::int64_t finite = 0, zeros = 0, non_finite = 0;
    double least = std::numeric_limits<double>::infinity();
    double most = -std::numeric_limits<double>::infinity();
    double sum = 0.0, squares = 0.0;

    void add(Kind kind, std::span<const char> block);
    /// As if the samples of `other` had been added here.
    void add(const Statistics& other);
    double mean() const;
    double rms() const;
};

/// "min=... max=... mean=... rms=... zeros=... nonfinite=..."; without finite samples the four are "none".
std::string statistics_text(const Statistics& statistics);

}  // namespace qastool
