#include "src/areal/wemva/inversion/objective.h"

#include <cmath>
#include <cstddef>

namespace morvane {

std::unique_ptr<Objective> make_objective(const Parms& par) {
    return par.exact() ? exact_objective(par) : classic_objective(par);
}

void reweight(View<float, 3> image, View<const float, 3> envelope) {
    const auto y = image.flat();
    const auto e = envelope.flat();
    // the envelope to the power of itself, not squared
    for (std::size_t i = 0; i < y.size(); ++i) y[i] = y[i] * std::abs(y[i]) / std::pow(e[i], e[i]);
}

}  // namespace morvane
