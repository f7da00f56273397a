#include "src/tools/morvane_check/time_zero.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace morvane {
namespace {

/// Running sums over 2 half + 1 depths.
std::vector<double> running(const std::vector<double>& values, std::size_t half) {
    std::vector<double> sums(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::size_t end = std::min(values.size(), i + half + 1);
        for (std::size_t j = i > half ? i - half : 0; j < end; ++j) sums[i] += values[j];
    }
    return sums;
}

/// Shares at zero offset by time shift and depth.
class TimeShares {
    const std::vector<double>& shifts_;
    std::vector<std::vector<double>> share_;
    std::vector<double> weight_;  // 0 where there is too little energy, or where the slopes leave the shifts

public:
    TimeShares(const std::vector<double>& shifts, const std::vector<Focus>& images, double steepest) : shifts_(shifts) {
        const std::size_t nz = images[0].all.size(), half = std::max<std::size_t>(2, nz / 32);
        std::vector<double> energy(nz);
        for (const Focus& image : images) {
            share_.push_back(running(image.zero, half));
            const std::vector<double> all = running(image.all, half);
            for (std::size_t i = 0; i < nz; ++i) {
                share_.back()[i] = all[i] > 0.0 ? share_.back()[i] / all[i] : 0.0;
                energy[i] += image.all[i];
            }
        }
        const double least = 0.1 * std::ranges::max(energy);
        for (std::size_t i = 0; i < nz; ++i) {
            const bool inside = steepest * static_cast<double>(i) / static_cast<double>(nz) <= shifts.back() + 0.5;
            weight_.push_back(energy[i] >= least && inside ? 1.0 / (static_cast<double>(i) + 10.0) : 0.0);
        }
    }
    /// The weighted mean of the shares at shift t0 + slope z / depth.
    double along(double t0, double slope) const {
        const double step = shifts_[1] - shifts_[0];
        double sum = 0.0, weights = 0.0;
        for (std::size_t i = 0; i < weight_.size(); ++i) {
            const double at =
                (t0 + slope * static_cast<double>(i) / static_cast<double>(weight_.size()) - shifts_[0]) / step;
            weights += weight_[i];
            if (at < 0.0 || at > static_cast<double>(shifts_.size() - 1)) continue;
            const std::size_t k = std::min(static_cast<std::size_t>(at), shifts_.size() - 2);
            const double part = at - static_cast<double>(k);
            sum += weight_[i] * ((1.0 - part) * share_[k][i] + part * share_[k + 1][i]);
        }
        return weights > 0.0 ? sum / weights : 0.0;
    }
};

/// The greatest fit of records that begin `shift` later, over velocities in steps from their own.
class FitOfVelocity {
    FewShots& few_;
    double shift_, step_;
    std::map<int, double> fits_;

public:
    FitOfVelocity(FewShots& few, double shift, double step) : few_(few), shift_(shift), step_(step) {}
    double at(int steps) {
        const auto known = fits_.find(steps);
        if (known != fits_.end()) return known->second;
        few_.scale_velocity(1.0 + step_ * steps);
        return fits_[steps] = few_.fit({false, false, shift_});
    }
    /// Uphill from `steps`, which is left at the top. Returns the height of the parabola there.
    double greatest(int& steps) {
        const int most = static_cast<int>(0.25 / step_);  // no start model is worse
        while (std::abs(steps) < most) {
            const double before = at(steps - 1), here = at(steps), after = at(steps + 1);
            if (here >= before && here >= after) {
                const double bend = before - 2.0 * here + after, slope = 0.5 * (after - before);
                return bend < 0.0 ? here - 0.5 * slope * slope / bend : here;
            }
            steps += after > before ? 1 : -1;
        }
        return at(steps);
    }
};

}  // namespace

double time_zero_by_focus(const std::vector<double>& shifts, const std::vector<Focus>& images, double steepest) {
    const TimeShares shares(shifts, images, steepest);
    constexpr int slopes = 12;
    std::vector<std::pair<double, double>> best;  // score, t0
    for (int i = -12; i <= 12; ++i) {
        double most = 0.0;
        for (int j = -slopes; j <= slopes; ++j)  // among equals the smaller error of velocity
            most = std::max(most, shares.along(0.125 * i, steepest * j / slopes));
        best.emplace_back(most, 0.125 * i);
    }
    const double enough = 0.97 * std::ranges::max(best).first;  // the middle of what is nearly as good
    const auto good = [&](const std::pair<double, double>& p) { return p.first >= enough; };
    return 0.5 * (std::ranges::find_if(best, good)->second + std::find_if(best.rbegin(), best.rend(), good)->second);
}

double top_of_parabola(const std::vector<double>& x, const std::vector<double>& y) {
    // with the mean of x at 0 and p2 = x^2 - m2 - x m3 / m2 orthogonal to 1 and x
    const double n = static_cast<double>(x.size());
    double mean = 0.0, m2 = 0.0, m3 = 0.0, bend = 0.0, of_bend = 0.0, slope = 0.0;
    for (const double v : x) mean += v / n;
    for (const double v : x) {
        m2 += (v - mean) * (v - mean) / n;
        m3 += (v - mean) * (v - mean) * (v - mean) / n;
    }
    for (std::size_t i = 0; i < x.size(); ++i) {
        const double v = x[i] - mean, p2 = v * v - m2 - v * m3 / m2;
        bend += y[i] * p2;
        of_bend += p2 * p2;
        slope += y[i] * v / (n * m2);
    }
    bend /= of_bend;
    slope -= bend * m3 / m2;
    const auto [least, most] = std::ranges::minmax(x);
    const double top = mean - 0.5 * slope / bend;
    return bend < 0.0 && top > least && top < most ? top : std::nan("");
}

double time_zero_by_fit(FewShots& few, double period, double step) {
    const std::vector<double> shifts{-1.0, -0.5, 0.0, 0.5, 1.0};
    std::vector<double> fits(shifts.size());
    const auto look = [&](std::size_t i, int steps) {
        fits[i] = FitOfVelocity(few, shifts[i] * period, step).greatest(steps);
        return steps;
    };
    const int middle = look(2, 0);
    look(0, look(1, middle + 1) + 1);  // a velocity that is too high makes up for records that begin too early
    look(4, look(3, middle - 1) - 1);
    few.scale_velocity(1.0);
    return top_of_parabola(shifts, fits);
}

}  // namespace morvane
