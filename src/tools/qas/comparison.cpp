#include "src/tools/qas/comparison.h"

#include <cmath>
#include <limits>
#include <vector>

namespace qastool {
namespace {

struct Pair {
    double re, im;
};

bool is_finite(const Pair& p) {
    return std::isfinite(p.re) && std::isfinite(p.im);
}
bool same(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

}  // namespace

void Comparison::add(Kind kind_a, std::span<const char> block_a, Kind kind_b, std::span<const char> block_b) {
    std::vector<Pair> values;
    values.reserve(block_a.size());
    for_each_sample(kind_a, block_a, [&](double re, double im) { values.push_back({re, im}); });
    std::size_t i = 0;
    for_each_sample(kind_b, block_b, [&](double re, double im) {
        const Pair first = values[i++], second{re, im};
        const std::int64_t at = samples++;
        if (!is_finite(first) || !is_finite(second)) {
            if (same(first.re, second.re) && same(first.im, second.im)) return;
            if (clashes++ == 0) first_clash = at;
            return;
        }
        const double dre = first.re - second.re, dim = first.im - second.im;
        const double squared = dre * dre + dim * dim;
        difference2 += squared;
        reference2 += first.re * first.re + first.im * first.im;
        const double distance = std::sqrt(squared);
        if (distance > largest) {
            const bool complex = kind_a == Kind::complex;
            largest = distance;
            largest_at = at;
            a = complex ? std::hypot(first.re, first.im) : first.re;
            b = complex ? std::hypot(re, im) : re;
        }
    });
}

double Comparison::relative() const {
    if (difference2 == 0.0) return 0.0;
    if (reference2 == 0.0) return std::numeric_limits<double>::infinity();
    return std::sqrt(difference2 / reference2);
}

}  // namespace qastool
