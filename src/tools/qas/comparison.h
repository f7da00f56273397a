#pragma once
/// Two runs of samples compared.
#include <cstdint>
#include <span>

#include "src/tools/qas/dataset.h"

namespace qastool {

/// Differences of samples b from samples a. Where neither is finite and both are the same (NaN and NaN, infinities of
/// one sign, in both parts) they agree; where they are not the same, and one is not finite, they clash and enter no
/// sum.
struct Comparison {
    std::int64_t samples = 0;
    std::int64_t clashes = 0, first_clash = -1;
    double difference2 = 0.0, reference2 = 0.0;  ///< sums of |a-b|^2 and |a|^2
    double largest = 0.0, a = 0.0, b = 0.0;      ///< largest |a-b|, and the moduli (real: values) there
    std::int64_t largest_at = -1;                ///< its sample number from 0; -1 while there is no difference

    /// Adds blocks of equally many samples.
    void add(Kind kind_a, std::span<const char> block_a, Kind kind_b, std::span<const char> block_b);
    /// |a-b|/|a|: 0 if there is no difference, infinite if all of a is zero and b is not.
    double relative() const;
};

}  // namespace qastool
