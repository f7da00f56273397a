#include "src/tools/morvane_synth/random_model.h"

#include <cmath>
#include <numbers>

namespace morvane {

double Draw::uniform(double low, double high) {
    return low + (high - low) * (static_cast<double>(engine_() >> 11) * 0x1p-53);
}

int Draw::whole(int low, int high) {
    return low + static_cast<int>(uniform(0.0, high - low + 1.0));
}

double Draw::normal() {
    const double size = std::sqrt(-2.0 * std::log(1.0 - uniform(0.0, 1.0)));
    return size * std::cos(uniform(0.0, 2.0 * std::numbers::pi));
}

RandomField::RandomField(Draw& draw, double largest, double lx, double lz) : waves_(64), largest_(largest) {
    for (Wave& wave : waves_) {
        wave.kx = draw.normal() * std::numbers::sqrt2 / lx;
        wave.kz = draw.normal() * std::numbers::sqrt2 / lz;
        wave.phase = draw.uniform(0.0, 2.0 * std::numbers::pi);
    }
}

double RandomField::operator()(double x, double z) const {
    if (waves_.empty()) return 0.0;
    double sum = 0.0;
    for (const Wave& wave : waves_) sum += std::cos(wave.kx * x + wave.kz * z + wave.phase);
    sum *= std::sqrt(2.0 / static_cast<double>(waves_.size()));  // variance 1
    const double depth = z / 150.0;
    return largest_ * std::tanh(0.5 * sum) * (1.0 - std::exp(-depth * depth));
}

RandomModel::RandomModel(std::uint64_t seed) {
    Draw draw(seed);
    const int n = draw.whole(5, 8);
    const double top = 225.0, bottom = 1150.0, step = (bottom - top) / (n - 1);
    const double dip = draw.uniform(-5.0, 5.0), fold = draw.uniform(10.0, 50.0);
    fold_length = draw.uniform(2000.0, 4000.0);
    fold_phase = draw.uniform(0.0, 2.0 * std::numbers::pi);
    for (int i = 0; i < n; ++i) {
        const double z = top + i * step, share = z / bottom;  // flatter and weaker towards the surface
        RandomLayer layer;
        layer.z = z + draw.uniform(-0.2, 0.2) * step;
        layer.dip = share * dip + draw.uniform(-1.5, 1.5);
        layer.fold = share * fold * draw.uniform(0.6, 1.0);
        layer.strength = share * draw.uniform(0.035, 0.065);
        if (draw.whole(0, 3) == 0) layer.strength = -layer.strength;
        layers.push_back(layer);
    }
    const double largest = draw.uniform(0.06, 0.12);
    const double lx = draw.uniform(300.0, 900.0);
    const double lz = draw.uniform(300.0, 900.0);
    anomaly = RandomField(draw, largest, lx, lz);
}

}  // namespace morvane
