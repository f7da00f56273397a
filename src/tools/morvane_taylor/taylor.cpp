#include "src/tools/morvane_taylor/taylor.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>

namespace morvane {

namespace {

constexpr double rounding = 5.96e-8;  // of slowness in single precision, relative
constexpr double settled = 0.0025;    // relative change of a central difference from one step to the next

std::vector<double> moved(std::span<const double> x, std::span<const double> d, double h) {
    std::vector<double> out(x.begin(), x.end());
    for (std::size_t i = 0; i < out.size(); ++i) out[i] += h * d[i];
    return out;
}

}  // namespace

std::vector<TaylorRow> taylor_rows(const TaylorLine& line) {
    std::vector<TaylorRow> rows;
    const auto rate = [](double before, double now) { return std::log2(before / now); };
    for (std::size_t i = 0; i < line.h.size(); ++i) {
        const double change = line.fun[i] - line.fun0;
        TaylorRow row{line.h[i], line.fun[i], std::abs(change), std::abs(change - line.h[i] * line.slope), NAN, NAN};
        if (i > 0) {
            row.first_rate = rate(rows.back().first, row.first);
            row.second_rate = rate(rows.back().second, row.second);
        }
        rows.push_back(row);
    }
    return rows;
}

SlopeCheck check_slope(const TaylorLine& line) {
    const double doubt = 3.0 * line.noise / line.central_h + 2.0 * line.bend, size = std::abs(line.central);
    const double difference = std::abs(line.slope - line.central), limit = slope_limit * size;
    const SlopeVerdict verdict = doubt > limit                ? SlopeVerdict::undecided
                                 : difference > limit + doubt ? SlopeVerdict::wrong
                                                              : SlopeVerdict::right;
    return {difference / size, doubt / size, verdict};
}

bool bends_within_steps(const TaylorLine& line) {
    const double noise = 3.0 * line.noise / line.central_h;
    return line.central_h < line.h.back() &&
           std::abs(line.coarse - line.central) > slope_limit * std::abs(line.central) + noise;
}

double choose_central_step(const TaylorLine& line) {
    // Error of a central difference: noise / h + h^2 |fun'''| / 6. Three values at h, h/2 and 0 give the second
    // derivative; its change from one pair of steps to the next gives the third.
    const auto second = [&](std::size_t i) {
        const double h = line.h[i];
        return (line.fun[i] - 2.0 * line.fun[i + 1] + line.fun0) / (0.25 * h * h);
    };
    double best = line.h.front(), least = std::numeric_limits<double>::infinity();
    double third = 0.0;
    if (line.h.size() > 2) third = std::abs(second(0) - second(1)) / (0.375 * line.h[0]);
    for (const double h : line.h) {
        const double error = line.noise / h + h * h * third / 6.0;
        if (error < least) {
            least = error;
            best = h;
        }
    }
    return best;
}

double noise_of(std::span<const double> values) {
    double sum = 0.0;
    int count = 0;
    for (std::size_t i = 0; i + 3 < values.size(); ++i, ++count) {
        const double third = values[i + 3] - 3.0 * values[i + 2] + 3.0 * values[i + 1] - values[i];
        sum += third * third / 20.0;  // 1 + 9 + 9 + 1
    }
    return count > 0 ? std::sqrt(sum / count) : 0.0;
}

TaylorLine taylor_line(const Value& value, std::span<const double> x, std::span<const double> d,
                       std::span<const double> g, double fun0, int steps, double reach) {
    TaylorLine line;
    line.fun0 = fun0;
    for (std::size_t i = 0; i < d.size(); ++i) line.slope += g[i] * d[i];
    double h = 1.0;
    for (int i = 0; i < steps; ++i, h *= 0.5) {
        line.h.push_back(h);
        line.fun.push_back(value(moved(x, d, h)));
    }
    const double tiny = 8.0 * rounding / reach;
    std::vector<double> near{fun0};
    for (int i = 1; i <= 9; ++i) near.push_back(value(moved(x, d, i * tiny)));
    line.noise = noise_of(near);
    const auto central = [&](double step) {
        return (value(moved(x, d, step)) - value(moved(x, d, -step))) / (2.0 * step);
    };
    line.central_h = choose_central_step(line);
    line.central = line.coarse = central(line.central_h);
    // fun may bend on a scale below the steps given: halve until the difference settles or the noise has it
    int agreed = 0;
    for (double step = 0.5 * line.central_h; step > tiny && agreed < 2; step *= 0.5) {
        const double finer = central(step);
        line.bend = std::abs(finer - line.central);
        if (line.noise / step >= settled * std::abs(line.central)) break;
        agreed = line.bend <= settled * std::abs(finer) ? agreed + 1 : 0;
        line.central_h = step;
        line.central = finer;
        if (step >= line.h.back()) line.coarse = finer;
    }
    return line;
}

std::vector<double> smooth_direction(int nx, int nz, bool with_mean, unsigned seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> phase(0.0, 2.0 * std::numbers::pi);
    constexpr int waves = 6;
    double across[waves], down[waves], at[waves], size[waves];
    for (int k = 0; k < waves; ++k) {
        across[k] = 1 + k % 3;  // whole waves: no lateral mean
        down[k] = normal(engine);
        at[k] = phase(engine);
        size[k] = normal(engine);
    }
    const double mean = with_mean ? 1.0 + std::abs(normal(engine)) : 0.0;
    std::vector<double> d(static_cast<std::size_t>(nx) * static_cast<std::size_t>(nz));
    for (std::size_t i = 0; i < d.size(); ++i) {
        const auto ix = static_cast<double>(i % static_cast<std::size_t>(nx)) / nx;
        const auto iz = static_cast<double>(i / static_cast<std::size_t>(nx)) / nz;
        d[i] = mean;
        for (int k = 0; k < waves; ++k)
            d[i] += size[k] * std::cos(2.0 * std::numbers::pi * (across[k] * ix + down[k] * iz) + at[k]);
    }
    return d;
}

}  // namespace morvane
