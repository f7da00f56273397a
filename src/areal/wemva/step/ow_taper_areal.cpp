#include "src/areal/wemva/step/ow_taper_areal.h"

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

void owtaper(int tapertr, std::span<float> taper) {
    std::fill(taper.begin(), taper.end(), 1.0f);
    const int n = static_cast<int>(taper.size());
    for (int i = 1; i <= std::min(tapertr, n); ++i) {
        const float angle = static_cast<float>(tapertr - i + 1) * pi_f / static_cast<float>(tapertr);
        const float weight = (std::cos(angle) + 1.0f) * 0.5f;
        taper[static_cast<std::size_t>(i - 1)] = weight;
        taper[static_cast<std::size_t>(n - i)] = weight;
    }
}

}  // namespace morvane
