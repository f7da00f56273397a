#include "src/tools/morvane_synth/earth_model.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

double slope_of(float degrees) {
    return std::tan(degrees * std::numbers::pi / 180.0);
}

/// Depth of a layer at the distance rx from the middle, and its slope there.
struct LayerLine {
    double depth, slope;
    LayerLine(const ModelSpec& spec, const Reflector& r, double rx) {
        const double k = 2.0 * std::numbers::pi / spec.fold_length, phase = k * rx + spec.fold_phase;
        depth = r.z + rx * slope_of(r.dip) + r.fold * (std::cos(phase) - std::cos(spec.fold_phase));
        slope = slope_of(r.dip) - r.fold * k * std::sin(phase);
    }
};

/// One direction of the Gaussian: out(i) = sum_j g(j - i) in(j) along the axis of `n` samples with stride `stride`.
void smooth_line(const float* in, float* out, std::ptrdiff_t n, std::ptrdiff_t stride,
                 const std::vector<double>& half) {
    const auto reach = static_cast<std::ptrdiff_t>(half.size()) - 1;
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        double sum = 0.0, weight = 0.0;
        for (std::ptrdiff_t k = -reach; k <= reach; ++k) {
            const double g = half[static_cast<std::size_t>(std::abs(k))];
            sum += g * in[std::clamp<std::ptrdiff_t>(i + k, 0, n - 1) * stride];
            weight += g;
        }
        out[i * stride] = static_cast<float>(sum / weight);
    }
}

std::vector<double> half_gaussian(float step, float length) {
    std::vector<double> half;
    for (int k = 0; k * step <= 3.0f * length; ++k) half.push_back(std::exp(-0.5 * std::pow(k * step / length, 2)));
    return half;
}

}  // namespace

EarthModel build_model(const ModelSpec& spec, const Axis& x, const Axis& z) {
    const Extents<2> shape{x.n, z.n};
    EarthModel model{x, z, Array<float, 2>(shape), Array<float, 2>(shape), Array<float, 2>(shape)};
    for (int iz = 0; iz < z.n; ++iz)
        for (int ix = 0; ix < x.n; ++ix) {
            const double px = x.o + ix * static_cast<double>(x.d), pz = z.o + iz * static_cast<double>(z.d);
            const double rx = px - spec.middle;
            const double background = spec.v0 + spec.gradient * (pz - rx * slope_of(spec.tilt));
            const double ux = (px - spec.xc) / spec.wx, uz = (pz - spec.zc) / spec.wz;
            const double with_body =
                (background + spec.dv * std::exp2(-ux * ux - uz * uz)) / (1.0 + spec.anomaly(rx, pz));
            double layers = 0.0;
            for (const Reflector& r : spec.reflectors)
                layers += r.strength * std::max(0.0, 1.0 - std::abs(pz - LayerLine(spec, r, rx).depth) / z.d);
            const double with_layers = with_body * (1.0 + layers);
            const double start = background * spec.start_scale;
            for (double v : {with_body, with_layers, start})
                if (!(v > 0) || !std::isfinite(v))
                    qas::qaserr("the model has the velocity %g at x=%g, z=%g; it must be positive everywhere\n", v, px,
                                pz);
            model.full(ix, iz) = static_cast<float>(1.0 / with_layers);
            model.smooth(ix, iz) = static_cast<float>(1.0 / with_body);
            model.start(ix, iz) = static_cast<float>(1.0 / start);
        }
    return model;
}

Array<float, 2> layer_dips(const ModelSpec& spec, const Axis& x, const Axis& z) {
    Array<float, 2> dips({z.n, x.n});
    std::vector<std::pair<double, double>> layers;  // depth in the column, slope
    for (int ix = 0; ix < x.n; ++ix) {
        const double rx = x.o + ix * static_cast<double>(x.d) - spec.middle;
        layers.clear();
        for (const Reflector& r : spec.reflectors) {
            const LayerLine line(spec, r, rx);
            layers.emplace_back(line.depth, line.slope);
        }
        if (layers.empty()) layers.emplace_back(0.0, slope_of(spec.tilt));
        std::ranges::sort(layers);
        for (int iz = 0; iz < z.n; ++iz) {
            const double depth = z.o + iz * static_cast<double>(z.d);
            const auto below = std::ranges::find_if(layers, [&](const auto& layer) { return layer.first >= depth; });
            double p = below == layers.end() ? layers.back().second : below->second;
            if (below != layers.begin() && below != layers.end()) {
                const auto above = below - 1;
                const double share = (depth - above->first) / (below->first - above->first);
                p = above->second + share * (below->second - above->second);
            }
            dips(iz, ix) = static_cast<float>(std::atan(p * x.d / z.d) * 180.0 / std::numbers::pi);
        }
    }
    return dips;
}

Array<float, 2> smoothed(View<const float, 2> slowness, float dx, float dz, float length) {
    Array<float, 2> across(slowness.n), both(slowness.n);
    std::ranges::copy(slowness.flat(), both.flat().begin());
    if (length <= 0) return both;
    const auto [nx, nz] = slowness.n;
    const std::vector<double> gx = half_gaussian(dx, length), gz = half_gaussian(dz, length);
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz) smooth_line(slowness.slice(iz).p, across.view().slice(iz).p, nx, 1, gx);
    for (std::ptrdiff_t ix = 0; ix < nx; ++ix) smooth_line(across.view().p + ix, both.view().p + ix, nz, nx, gz);
    return both;
}

std::pair<float, float> value_range(View<const float, 2> values) {
    const auto [low, high] = std::ranges::minmax(values.flat());
    return {low, high};
}

}  // namespace morvane
