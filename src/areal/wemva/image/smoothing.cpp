#include "src/areal/wemva/image/smoothing.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

namespace morvane {

namespace {

/// The samples averaged into sample i of a line of n.
struct Window {
    std::ptrdiff_t first, last;
    Window(std::ptrdiff_t i, std::ptrdiff_t half, std::ptrdiff_t n)
        : first(std::max<std::ptrdiff_t>(i - half, 0)), last(std::min(i + half, n - 1)) {}
    float count() const { return static_cast<float>(last - first + 1); }
};

/// What a window's sum is divided by: its own count, or, in the transpose, the count of each sample's window.
enum class Direction { forward, transposed };

/// Box average across lines of n samples that start `stride` apart, in place: each becomes the mean of its window.
void average_lines(Direction direction, float* panel, std::ptrdiff_t n, std::ptrdiff_t nlines, std::ptrdiff_t stride,
                   std::ptrdiff_t half, std::vector<float>& work) {
    const auto divide = [&](float* line, std::ptrdiff_t i) {
        const float count = Window(i, half, nlines).count();
        for (std::ptrdiff_t ix = 0; ix < n; ++ix) line[ix] /= count;
    };
    work.assign(static_cast<std::size_t>(n * nlines), 0.0f);
    for (std::ptrdiff_t i = 0; direction == Direction::transposed && i < nlines; ++i) divide(panel + i * stride, i);
    for (std::ptrdiff_t i = 0; i < nlines; ++i) {
        const Window window(i, half, nlines);
        float* const sum = work.data() + i * n;
        for (std::ptrdiff_t k = window.first; k <= window.last; ++k) {
            const float* const line = panel + k * stride;
            for (std::ptrdiff_t ix = 0; ix < n; ++ix) sum[ix] += line[ix];
        }
        if (direction == Direction::forward) divide(sum, i);
    }
    for (std::ptrdiff_t i = 0; i < nlines; ++i) std::copy_n(work.data() + i * n, n, panel + i * stride);
}

/// Box average along one line, in place.
void average_along(Direction direction, float* line, std::ptrdiff_t n, std::ptrdiff_t half, std::vector<float>& work) {
    const auto divide = [&](float* samples) {
        for (std::ptrdiff_t ix = 0; ix < n; ++ix) samples[ix] /= Window(ix, half, n).count();
    };
    work.assign(static_cast<std::size_t>(n), 0.0f);
    if (direction == Direction::transposed) divide(line);
    const std::ptrdiff_t reach = std::min(half, n - 1);
    for (std::ptrdiff_t shift = -reach; shift <= reach; ++shift) {
        const std::ptrdiff_t end = std::min(n, n - shift);
        for (std::ptrdiff_t ix = std::max<std::ptrdiff_t>(0, -shift); ix < end; ++ix)
            work[static_cast<std::size_t>(ix)] += line[ix + shift];
    }
    if (direction == Direction::forward) divide(work.data());
    std::copy_n(work.data(), n, line);
}

std::ptrdiff_t half_width(int wind) {
    return std::max(wind, 1) - 1;
}

/// All three axes. A window reaches a sample as the sample's window reaches its centre, and the axes commute.
void average(const Parms& par, Direction direction, View<float, 3> gathers) {
    const auto [nx, nh, nz] = gathers.n;
    std::vector<float> work;
    for (std::ptrdiff_t ish = 0; ish < nh; ++ish)
        average_lines(direction, gathers.p + ish * nx, nx, nz, nx * nh, half_width(par.windz), work);
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
        for (std::ptrdiff_t ish = 0; ish < nh; ++ish)
            average_along(direction, gathers.slice(iz).slice(ish).p, nx, half_width(par.windx), work);
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
        average_lines(direction, gathers.slice(iz).p, nx, nh, nx, half_width(par.windh), work);
}

}  // namespace

void owsmooth(const Parms& par, View<const float, 3> wgcig, View<float, 3> odcig) {
    assert(odcig.n == wgcig.n);
    std::ranges::transform(wgcig.flat(), odcig.flat().begin(), [](float s) { return std::abs(s); });
    average(par, Direction::forward, odcig);
}

void owsmooth_transpose(const Parms& par, View<float, 3> odcig) {
    average(par, Direction::transposed, odcig);
}

}  // namespace morvane
