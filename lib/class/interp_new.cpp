#include "lib/class/interp_new.h"

#include <cstddef>

namespace morvane {

void lg_int(float x, std::span<float> w) {
    for (std::size_t i = 0; i < w.size(); ++i) {
        w[i] = 1.0f;
        for (std::size_t j = 0; j < w.size(); ++j) {
            if (j == i) continue;
            const auto apart = static_cast<float>(static_cast<std::ptrdiff_t>(i) - static_cast<std::ptrdiff_t>(j));
            w[i] *= (x - static_cast<float>(j + 1)) / apart;
        }
    }
}

}  // namespace morvane
