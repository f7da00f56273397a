#pragma once
#include <pmmintrin.h>
#include <xmmintrin.h>

namespace morvane {

/// Flush denormal results to zero and take denormal operands as zero, for the calling thread and those it starts: call
/// it before the first parallel region.
inline void flush_denormals() {
    constexpr unsigned flush = _MM_FLUSH_ZERO_ON, zero = _MM_DENORMALS_ZERO_ON;
    _mm_setcsr(_mm_getcsr() | flush | zero);
}

}  // namespace morvane
