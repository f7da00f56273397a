#include "src/areal/wemva/model/regularisation.h"

#include <cstddef>

namespace morvane {

double roughness(const Parms& par, double weight, View<const float, 2> start, std::span<const double> x,
                 std::span<double> g) {
    constexpr double unit = 0.1;  // of u, over the lengths reg_x and reg_z
    const auto [nx, nz] = start.n;
    const double scale = weight / (unit * unit) / static_cast<double>(nx * nz);
    const double across = static_cast<double>(par.reg_x) / par.img.xm.d,
                 down = static_cast<double>(par.reg_z) / par.img.z.d;
    const auto s0 = start.flat();
    double sum = 0.0;
    const auto pair = [&](std::ptrdiff_t first, std::ptrdiff_t second, double length) {
        const auto a = static_cast<std::size_t>(first), b = static_cast<std::size_t>(second);
        const double slope = length * (x[b] / s0[b] - x[a] / s0[a]);
        sum += slope * slope;
        if (g.empty()) return;
        g[b] += 2.0 * scale * length * slope / s0[b];
        g[a] -= 2.0 * scale * length * slope / s0[a];
    };
    for (std::ptrdiff_t i = 0; i < nx * nz; ++i) {
        if (i % nx + 1 < nx) pair(i, i + 1, across);
        if (i + nx < nx * nz) pair(i, i + nx, down);
    }
    return scale * sum;
}

}  // namespace morvane
