#include "src/tools/qas/statistics.h"

#include <algorithm>
#include <cmath>

#include "lib/corelibs/qas/messages/notes.h"

namespace qastool {

void Statistics::add(Kind kind, std::span<const char> block) {
    for_each_sample(kind, block, [&](double re, double im) {
        if (!std::isfinite(re) || !std::isfinite(im)) {
            ++non_finite;
            return;
        }
        const double energy = re * re + im * im;
        const double value = kind == Kind::complex ? std::sqrt(energy) : re;
        ++finite;
        if (value == 0.0) ++zeros;
        least = std::min(least, value);
        most = std::max(most, value);
        sum += value;
        squares += energy;
    });
}

void Statistics::add(const Statistics& other) {
    finite += other.finite;
    zeros += other.zeros;
    non_finite += other.non_finite;
    least = std::min(least, other.least);
    most = std::max(most, other.most);
    sum += other.sum;
    squares += other.squares;
}

double Statistics::mean() const {
    return sum / static_cast<double>(finite);
}

double Statistics::rms() const {
    return std::sqrt(squares / static_cast<double>(finite));
}

std::string statistics_text(const Statistics& s) {
    const std::string counts = qas::strprintf("zeros=%lld nonfinite=%lld", static_cast<long long>(s.zeros),
                                              static_cast<long long>(s.non_finite));
    if (s.finite == 0) return "min=none max=none mean=none rms=none " + counts;
    return qas::strprintf("min=%.9g max=%.9g mean=%.9g rms=%.9g ", s.least, s.most, s.mean(), s.rms()) + counts;
}

}  // namespace qastool
