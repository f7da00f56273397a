#include "src/areal/wemva/passes/fit.h"

#include <cmath>

namespace morvane {

int zero_sample(const Parms& par) {
    const Axis& axis = par.timeshift ? par.img.th : par.img.sh;
    for (int i = 0; i < axis.n; ++i)
        if (std::abs(static_cast<float>(i) * axis.d + axis.o) <= 1e-3f * std::abs(axis.d)) return i;
    return -1;
}

double fit_of(View<const double, 2> sums) {
    double agreement = 0.0, power = 0.0;
    for (std::ptrdiff_t iw = 0; iw < sums.n[1]; ++iw) {
        const double both = sums(0, iw), predicted = sums(1, iw), recorded = sums(2, iw);
        if (predicted > 0.0) agreement += std::sqrt(recorded / predicted) * both;
        power += recorded;
    }
    return power > 0.0 ? agreement / power : 0.0;
}

}  // namespace morvane
