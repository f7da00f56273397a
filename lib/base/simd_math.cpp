#include "lib/base/simd_math.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

namespace morvane {

void cis_table(const float* phase, const float* scale, cf* table, std::ptrdiff_t n) {
    constexpr float two_over_pi = 0.636619772f;
    constexpr float to_integer = 12582912.0f;  // 1.5 * 2^23: adding it rounds to the nearest integer
    constexpr float half_pi_1 = 1.5703125f, half_pi_2 = 4.837512969970703125e-4f, half_pi_3 = 7.5497899548918861e-8f;
    constexpr float reach = 6.0e3f;
    float* const out = parts(table);
    std::int32_t largest = 0;  // of the magnitudes' bit patterns, which order as the magnitudes do
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        largest = std::max(largest, std::bit_cast<std::int32_t>(phase[i]) & 0x7fffffff);
    }
    if (largest >= std::bit_cast<std::int32_t>(reach)) {
        for (std::ptrdiff_t i = 0; i < n; ++i) table[i] = scale[i] * cf(std::cos(phase[i]), std::sin(phase[i]));
        return;
    }
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const float x = phase[i];
        const float shifted = x * two_over_pi + to_integer;
        const float turns = shifted - to_integer;
        const auto quadrant = static_cast<std::int32_t>(turns);
        const float r = ((x - turns * half_pi_1) - turns * half_pi_2) - turns * half_pi_3;
        const float r2 = r * r;
        const float sine = r + r * r2 * (-1.6666654611e-1f + r2 * (8.3321608736e-3f - r2 * 1.9515295891e-4f));
        const float cosine =
            (1.0f - 0.5f * r2) + r2 * r2 * (4.166664568e-2f + r2 * (-1.388731625e-3f + r2 * 2.443315712e-5f));
        const bool swapped = quadrant & 1;
        const float c = swapped ? sine : cosine;
        const float s = swapped ? cosine : sine;
        out[2 * i] = scale[i] * ((quadrant + 1) & 2 ? -c : c);
        out[2 * i + 1] = scale[i] * (quadrant & 2 ? -s : s);
    }
}

}  // namespace morvane
