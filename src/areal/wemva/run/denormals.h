#pragma once
#include <pmmintrin.h>
#include <xmmintrin.h>

namespace morvane {

/// Flush denormal results to zero and take denormal operands as zero, for the calling thread and those it starts: call
/// it before the first parallel region.
inline void flush_denormals() {
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
}

}  // namespace morvane
