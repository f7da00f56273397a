/// One program a target: FUZZ_TARGET names it.
#include <cstddef>
#include <cstdint>

#include "fuzz/targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
    return 0;
}
