#include "src/tools/morvane_prepare/conditioning.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/tools/morvane_prepare/text_table.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr double first_break = 0.1;  // of the largest sample

/// 0 at u <= 0, 1 at u >= 1, half a cosine in between.
float rise(double u) {
    if (u <= 0) return 0.0f;
    if (u >= 1) return 1.0f;
    return static_cast<float>(0.5 * (1.0 - std::cos(std::numbers::pi * u)));
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + std::ssize(values) / 2;
    std::ranges::nth_element(values, middle);
    return *middle;
}

}  // namespace

double Mute::time(double offset) const {
    if (table.empty()) return intercept + offset / velocity;
    const auto above = std::ranges::upper_bound(table, offset, {}, &std::pair<double, double>::first);
    if (above == table.begin()) return above->second;
    const auto below = above - 1;
    if (above == table.end()) return below->second;
    return below->second + (above->second - below->second) * (offset - below->first) / (above->first - below->first);
}

std::vector<std::pair<double, double>> read_mute_table(const std::string& path) {
    std::vector<std::pair<double, double>> table;
    const bool readable = for_each_row(path, [&](int number, const std::string& line, std::istringstream& words) {
        std::pair<double, double> pair;
        if (!(words >> pair.first >> pair.second) || !std::isfinite(pair.first) || !std::isfinite(pair.second))
            qaserr("mute=%s, line %d: \"%.60s\" is not an offset and a time\n", path.c_str(), number, line.c_str());
        if (!table.empty() && pair.first <= table.back().first)
            qaserr("mute=%s, line %d: the offset %g does not ascend from %g\n", path.c_str(), number, pair.first,
                   table.back().first);
        table.push_back(pair);
    });
    if (!readable)
        qaserr("mute=%s cannot be read; permitted are auto, linear, none and the name of a table\n", path.c_str());
    if (table.empty()) qaserr("mute=%s holds no line of offset and time\n", path.c_str());
    return table;
}

void Conditioning::apply(std::span<float> samples, double t0, double dt, double offset) const {
    const double start = mute.active() ? mute.time(offset) : 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double clock = t0 + static_cast<double>(i) * dt, t = clock - source_time;
        float weight = 1.0f;
        if (mute.active()) weight = mute.taper > 0 ? rise((t - start) / mute.taper) : static_cast<float>(t >= start);
        if (last > 0) weight *= end_taper > 0 ? rise((last - clock) / end_taper) : static_cast<float>(clock <= last);
        if (gain != 0) weight *= t > 0 ? static_cast<float>(std::pow(t, gain)) : 0.0f;
        if (point_source) weight *= t > 0 ? static_cast<float>(std::sqrt(t)) : 0.0f;
        samples[i] *= weight;
    }
}

DirectWave fit_direct_wave(const std::vector<SampleTrace>& heads, View<const float, 2> samples, double dt,
                           double surface_velocity, double tolerance) {
    std::vector<double> offsets;
    for (const SampleTrace& head : heads) offsets.push_back(head.offset);
    const double reach = offsets.empty() ? 0 : median(offsets);
    std::vector<std::pair<double, double>> picks;
    for (std::size_t i = 0; i < heads.size(); ++i) {
        if (heads[i].offset > reach) continue;
        const std::span<const float> u = samples.slice(static_cast<std::ptrdiff_t>(i)).flat();
        float top = 0;
        for (const float v : u) top = std::max(top, std::abs(v));
        if (top == 0) continue;
        const auto at = std::ranges::find_if(u, [&](float v) { return std::abs(v) >= first_break * top; });
        picks.emplace_back(heads[i].offset, heads[i].t0 + static_cast<double>(at - u.begin()) * dt);
    }
    DirectWave best{surface_velocity, 0, 0, false};
    if (picks.size() < 10) return best;
    for (int i = 0; i <= 200; ++i) {
        const double v = surface_velocity * std::pow(2.0, (i - 100) / 100.0);
        std::vector<double> rest, away;
        for (const auto& [x, t] : picks) rest.push_back(t - x / v);
        const double intercept = median(rest);
        for (const double r : rest) away.push_back(std::abs(r - intercept));
        if (const double misfit = median(away); !best.fitted || misfit < best.misfit)
            best = {v, intercept, misfit, true};
    }
    if (best.misfit > tolerance) return {surface_velocity, 0, best.misfit, false};
    return best;
}

}  // namespace morvane::prepare
