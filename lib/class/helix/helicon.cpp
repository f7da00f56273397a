#include "lib/class/helix/helicon.h"

#include <cassert>
#include <cstddef>

#include "lib/base/lin_op.h"

namespace morvane {

int helicon_lop(const Filter& aa, bool adj, bool add, std::span<float> xx, std::span<float> yy) {
    adjnull(adj, add, xx, yy);
    return helicon_lop2(aa, adj, add, xx, yy);
}

int helicon_lop2(const Filter& aa, bool adj, bool /*add*/, std::span<float> xx, std::span<float> yy) {
    assert(xx.size() == yy.size() && (aa.edges.empty() || aa.edges.size() == yy.size()));
    for (std::size_t i = 0; i < xx.size(); ++i) (adj ? xx[i] : yy[i]) += adj ? yy[i] : xx[i];
    for (std::ptrdiff_t ia = 0; ia < aa.na(); ++ia) {
        const float c = aa.coeffs(ia, 0);
        const auto lag = static_cast<std::size_t>(aa.lags(ia, 0));
        for (std::size_t iy = lag; iy < yy.size(); ++iy) {
            if (!aa.edges.empty() && aa.edges[iy]) continue;
            if (adj) {
                xx[iy - lag] += c * yy[iy];
            } else {
                yy[iy] += c * xx[iy - lag];
            }
        }
    }
    return 0;
}

}  // namespace morvane
