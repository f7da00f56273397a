#include "src/areal/wemva/model/base_spline_mod.h"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <vector>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

using Index = std::ptrdiff_t;

float coordinate(const Axis& axis, Index i) {
    return static_cast<float>(i) * axis.d + axis.o;
}

/// A knot and its weight in a sample, or a sample and the weight of a knot in it.
struct Tap {
    Index at;
    double weight;
};

/// For each sample of a fine axis the knots whose support holds it, in rising order.
using Taps = std::vector<std::vector<Tap>>;

Taps knots_of_samples(const Axis& fine, const Axis& knots) {
    constexpr double reach = 4;  // two intervals each side, and room for the rounding of positions
    Taps taps(static_cast<std::size_t>(fine.n));
    for (Index i = 0; i < fine.n; ++i) {
        const float x = coordinate(fine, i);
        const double nearest = (static_cast<double>(x) - knots.o) / knots.d;
        const auto end = static_cast<Index>(std::clamp(std::floor(nearest) + reach + 1, 0.0, double(knots.n)));
        for (auto k = static_cast<Index>(std::clamp(std::floor(nearest) - reach, 0.0, double(knots.n))); k < end; ++k) {
            const float weight = spline(x - coordinate(knots, k), knots.d);
            if (weight != 0.0f) taps[static_cast<std::size_t>(i)].push_back({k, static_cast<double>(weight)});
        }
    }
    return taps;
}

/// The same table read the other way: for each knot the samples in its support.
Taps samples_of_knots(const Taps& taps, int nknots) {
    Taps turned(static_cast<std::size_t>(nknots));
    for (std::size_t i = 0; i < taps.size(); ++i)
        for (const Tap& tap : taps[i])
            turned[static_cast<std::size_t>(tap.at)].push_back({static_cast<Index>(i), tap.weight});
    return turned;
}

void check_knots(const Axis& knots) {
    if (!(knots.d > 0.0f) || !std::isfinite(knots.d) || !std::isfinite(knots.o))
        qas::qaserr("spline knots at interval %g from %g: dxk, dyk and dzk must be positive, all of them finite\n",
                    static_cast<double>(knots.d), static_cast<double>(knots.o));
}

void clear_output(bool adj, bool add, std::span<double> modl, std::span<double> data) {
    if (!add) std::ranges::fill(adj ? modl : data, 0.0);
}

int team(int node) {
    return node == node_default ? omp_get_max_threads() : std::max(node, 1);
}

}  // namespace

float spline(float x, float dx) {
    const float dx3 = dx * dx * dx;
    const float two = 2.0f * dx;
    if (x < -two) return 0.0f;
    if (x < -dx) return (x + two) * (x + two) * (x + two) / 6.0f / dx3;
    if (x < 0.0f) return 0.5f * (-x * -x * -x) / dx3 + 0.6666667f - x * x / (dx * dx);
    if (x < dx) return 0.5f * (x * x * x) / dx3 + 0.6666667f - x * x / (dx * dx);
    if (x <= two) return (two - x) * (two - x) * (two - x) / 6.0f / dx3;
    return 0.0f;
}

base_spln1d base_spln1d_init(const Axis& axd1, const Axis& axk1) {
    check_knots(axk1);
    return {axd1, axk1};
}

base_spln2d base_spln2d_init(const Axis& axd1, const Axis& ayd1, const Axis& axk1, const Axis& ayk1, int node) {
    for (const Axis& knots : {axk1, ayk1}) check_knots(knots);
    return {axd1, ayd1, axk1, ayk1, node};
}

base_spln3d base_spln3d_init(const Axis& axd1, const Axis& ayd1, const Axis& azd1, const Axis& axk1, const Axis& ayk1,
                             const Axis& azk1) {
    for (const Axis& knots : {axk1, ayk1, azk1}) check_knots(knots);
    return {axd1, ayd1, azd1, axk1, ayk1, azk1};
}

int base_spln1d_oper(const base_spln1d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data) {
    clear_output(adj, add, modl, data);
    const Taps xtaps = knots_of_samples(spln.axd1, spln.axk1);
    for (std::size_t ixd = 0; ixd < xtaps.size(); ++ixd) {
        for (const Tap& x : xtaps[ixd]) {
            double& coefficient = modl[static_cast<std::size_t>(x.at)];
            if (adj) {
                coefficient += x.weight * data[ixd];
            } else {
                data[ixd] += x.weight * coefficient;
            }
        }
    }
    return 0;
}

int base_spln2d_oper(const base_spln2d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data) {
    clear_output(adj, add, modl, data);
    const Index nxd = spln.axd1.n, nyd = spln.ayd1.n, nxk = spln.axk1.n, nyk = spln.ayk1.n;
    assert(std::ssize(modl) >= nxk * nyk && std::ssize(data) >= nxd * nyd);
    const Taps xtaps = knots_of_samples(spln.axd1, spln.axk1);
    const Taps ytaps = knots_of_samples(spln.ayd1, spln.ayk1);
    const int nodes = team(spln.node);
    // Sums are formed apart and added at the end, in the order of one thread that visits all samples in turn.
    if (adj) {
        const Taps column = samples_of_knots(ytaps, spln.ayk1.n);
        std::vector<double> sums(static_cast<std::size_t>(nxk) * static_cast<std::size_t>(nodes));
#pragma omp parallel for schedule(dynamic, 1) num_threads(nodes)
        for (Index iyk = 0; iyk < nyk; ++iyk) {
            if (column[static_cast<std::size_t>(iyk)].empty()) continue;
            double* const sum = sums.data() + nxk * omp_get_thread_num();
            std::fill_n(sum, nxk, 0.0);
            for (const Tap& y : column[static_cast<std::size_t>(iyk)])
                for (Index ixd = 0; ixd < nxd; ++ixd)
                    for (const Tap& x : xtaps[static_cast<std::size_t>(ixd)])
                        sum[x.at] += x.weight * data[static_cast<std::size_t>(y.at * nxd + ixd)] * y.weight;
            for (Index ixk = 0; ixk < nxk; ++ixk) modl[static_cast<std::size_t>(iyk * nxk + ixk)] += sum[ixk];
        }
    } else {
#pragma omp parallel for schedule(dynamic, 1) num_threads(nodes)
        for (Index iyd = 0; iyd < nyd; ++iyd) {
            for (Index ixd = 0; ixd < nxd; ++ixd) {
                double sum = 0.0;
                for (const Tap& y : ytaps[static_cast<std::size_t>(iyd)])
                    for (const Tap& x : xtaps[static_cast<std::size_t>(ixd)])
                        sum += x.weight * modl[static_cast<std::size_t>(y.at * nxk + x.at)] * y.weight;
                data[static_cast<std::size_t>(iyd * nxd + ixd)] += sum;
            }
        }
    }
    return 0;
}

int base_spln3d_oper(const base_spln3d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data) {
    clear_output(adj, add, modl, data);
    const Index nxk = spln.axk1.n, nyk = spln.ayk1.n;
    assert(std::ssize(modl) >= nxk * nyk * spln.azk1.n);
    assert(std::ssize(data) >= Index{spln.axd1.n} * spln.ayd1.n * spln.azd1.n);
    const Taps xtaps = knots_of_samples(spln.axd1, spln.axk1);
    const Taps ytaps = knots_of_samples(spln.ayd1, spln.ayk1);
    const Taps ztaps = knots_of_samples(spln.azd1, spln.azk1);
    std::size_t sample = 0;
    for (const std::vector<Tap>& zs : ztaps) {
        for (const std::vector<Tap>& ys : ytaps) {
            for (const std::vector<Tap>& xs : xtaps) {
                for (const Tap& z : zs) {
                    for (const Tap& y : ys) {
                        for (const Tap& x : xs) {
                            double& coefficient = modl[static_cast<std::size_t>((z.at * nyk + y.at) * nxk + x.at)];
                            const double weight = x.weight * y.weight * z.weight;
                            if (adj) {
                                coefficient += weight * data[sample];
                            } else {
                                data[sample] += weight * coefficient;
                            }
                        }
                    }
                }
                ++sample;
            }
        }
    }
    return 0;
}

}  // namespace morvane
