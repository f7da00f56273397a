#include "src/areal/wemva/model/variables.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lib/base/warning.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

constexpr bool adjoint = true, forward = false, fresh = false;

/// First and last sample of a fine axis inside the support of a knot.
std::pair<int, int> reach(const Axis& fine, const Axis& knots, int k) {
    const float centre = static_cast<float>(k) * knots.d + knots.o;
    int first = fine.n, last = -1;
    for (int i = 0; i < fine.n; ++i) {
        if (spline(static_cast<float>(i) * fine.d + fine.o - centre, knots.d) <= 0.0f) continue;
        first = std::min(first, i);
        last = i;
    }
    return {first, last};
}

}  // namespace

Variables::Variables(std::span<const double> start, std::optional<base_spln2d> knots)
    : start_(start.begin(), start.end()), knots_(std::move(knots)) {}

std::size_t Variables::count() const {
    if (!knots_) return start_.size();
    return static_cast<std::size_t>(knots_->axk1.n) * static_cast<std::size_t>(knots_->ayk1.n);
}

std::vector<double> Variables::first() const {
    return knots_ ? std::vector<double>(count()) : start_;
}

void Variables::model(std::span<double> v, std::span<double> x) const {
    if (!knots_) {
        std::ranges::copy(v, x.begin());
        return;
    }
    base_spln2d_oper(*knots_, forward, fresh, v, x);
    std::ranges::transform(x, start_, x.begin(), std::plus<>());
}

void Variables::accept_edit(std::span<const double> x, std::span<double> v) const {
    if (!knots_) std::ranges::copy(x, v.begin());
}

void Variables::gradient(std::span<double> g, std::span<double> gv) const {
    if (knots_)
        base_spln2d_oper(*knots_, adjoint, fresh, gv, g);
    else
        std::ranges::copy(g, gv.begin());
}

VariableBounds Variables::bounds(const VariableBounds& samples) const {
    if (!knots_) return samples;
    VariableBounds out(count());
    std::ranges::fill(out.nbd, samples.nbd.front());
    const int nx = knots_->axd1.n, nxk = knots_->axk1.n;
    std::vector<std::pair<int, int>> columns;
    for (int k = 0; k < nxk; ++k) columns.push_back(reach(knots_->axd1, knots_->axk1, k));
    std::size_t impossible = 0;
    for (int kz = 0; kz < knots_->ayk1.n; ++kz) {
        const auto [top, bottom] = reach(knots_->ayd1, knots_->ayk1, kz);
        for (int kx = 0; kx < nxk; ++kx) {
            const auto [left, right] = columns[static_cast<std::size_t>(kx)];
            double down = std::numeric_limits<double>::infinity(), up = down;
            for (int iz = top; iz <= bottom; ++iz) {
                for (int ix = left; ix <= right; ++ix) {
                    const auto i =
                        static_cast<std::size_t>(iz) * static_cast<std::size_t>(nx) + static_cast<std::size_t>(ix);
                    down = std::min(down, start_[i] - samples.l[i]);
                    up = std::min(up, samples.u[i] - start_[i]);
                }
            }
            const auto k = static_cast<std::size_t>(kz) * static_cast<std::size_t>(nxk) + static_cast<std::size_t>(kx);
            const bool reaches = std::isfinite(down);  // a knot beside the model varies nothing and stays at 0
            out.l[k] = reaches ? -down : 0.0;
            out.u[k] = reaches ? up : 0.0;
            impossible += out.l[k] > out.u[k];
        }
    }
    if (impossible > 0)
        warn(
            "bounds: %zu of %zu knots reach samples that no common change brings within their bounds: wider bounds, or "
            "a start model within them, are needed",
            impossible, count());
    return out;
}

std::vector<double> Variables::slowest(const VariableBounds& bounds) const {
    std::vector<double> most = bounds.u, x(start_.size());  // B is not negative
    model(most, x);
    std::ranges::transform(x, start_, x.begin(), [](double a, double b) { return std::max(a, b); });
    return x;
}

double Variables::largest_change(std::span<const double> gv, std::span<const double> x) const {
    std::vector<double> size(gv.size()), change(x.size());
    std::ranges::transform(gv, size.begin(), [](double g) { return std::abs(g); });
    if (knots_)
        base_spln2d_oper(*knots_, forward, fresh, size, change);
    else
        change = size;
    double largest = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) largest = std::max(largest, change[i] / x[i]);
    return largest;
}

}  // namespace morvane
