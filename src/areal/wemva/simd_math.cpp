#include "src/areal/wemva/simd_math.h"

#include <algorithm>
#include <cmath>

#if defined(__GNUC__) && !defined(__clang__)
extern "C" {  // glibc has vector forms of both; saying so lets the loops below call them
[[gnu::simd("notinbranch"), gnu::const]] float cosf(float) noexcept;
[[gnu::simd("notinbranch"), gnu::const]] float sinf(float) noexcept;
}
#endif

void cis_table(const float* phase, const float* scale, cf* table, std::ptrdiff_t n) {
    constexpr std::ptrdiff_t strip = 256;
    float c[strip], s[strip];
    auto* out = reinterpret_cast<float*>(table);
    for (std::ptrdiff_t i0 = 0; i0 < n; i0 += strip) {
        const std::ptrdiff_t m = std::min(strip, n - i0);
        const float* const p = phase + i0;
        const float* const a = scale + i0;
        for (std::ptrdiff_t i = 0; i < m; ++i) c[i] = a[i] * cosf(p[i]);  // in one loop the compiler would merge
        for (std::ptrdiff_t i = 0; i < m; ++i) s[i] = a[i] * sinf(p[i]);  // the two into a scalar sincosf
        for (std::ptrdiff_t i = 0; i < m; ++i) {
            out[2 * (i0 + i)] = c[i];
            out[2 * (i0 + i) + 1] = s[i];
        }
    }
}
