#include "src/areal/wemva/image/prediction.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "lib/base/index.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

constexpr float diagonal_only = -999.0f;

/// sum += a b
void add_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re += a.re * b.re - a.im * b.im;
    sum.im += a.re * b.im + a.im * b.re;
}
/// sum -= a b
void subtract_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re -= a.re * b.re - a.im * b.im;
    sum.im -= a.re * b.im + a.im * b.re;
}
/// sum += conj(a) b
void add_conj_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re += a.re * b.re + a.im * b.im;
    sum.im += a.re * b.im - a.im * b.re;
}
/// 1 / a, formed in double precision; 0 for 0.
void reciprocal(const ComplexLanes& a, ComplexLanes& result) {
    float re[midpoints_at_a_time], im[midpoints_at_a_time];
    std::memcpy(re, &a.re, sizeof re);
    std::memcpy(im, &a.im, sizeof im);
    for (int l = 0; l < midpoints_at_a_time; ++l) {
        const double size = double{re[l]} * re[l] + double{im[l]} * im[l];
        const double inverse = size == 0.0 ? 0.0 : 1.0 / size;
        re[l] = static_cast<float>(re[l] * inverse);
        im[l] = static_cast<float>(-im[l] * inverse);
    }
    std::memcpy(&result.re, re, sizeof re);
    std::memcpy(&result.im, im, sizeof im);
}

}  // namespace

int pad2(int n) {
    int power = 1;
    while (power < n) power *= 2;
    return power;
}

Predictor::Predictor(int noper, float lambda)
    : m_(noper - 1),
      lambda_(lambda),
      corr_(at(noper)),
      a_(at(m_ * m_)),
      b_(at(m_)),
      inverse_(at(m_)),
      filter_(at(m_)) {}

/// Gaussian elimination without pivoting.
void Predictor::ngauss() {
    for (int k = 0; k < m_; ++k) {
        reciprocal(a(k, k), inverse_[at(k)]);
        for (int i = k + 1; i < m_; ++i) {
            ComplexLanes factor;
            add_product(a(i, k), inverse_[at(k)], factor);
            for (int j = k + 1; j < m_; ++j) subtract_product(factor, a(k, j), a(i, j));
            subtract_product(factor, b_[at(k)], b_[at(i)]);
        }
    }
    for (int i = m_; i-- > 0;) {
        for (int j = i + 1; j < m_; ++j) subtract_product(a(i, j), filter_[at(j)], b_[at(i)]);
        filter_[at(i)] = {};
        add_product(b_[at(i)], inverse_[at(i)], filter_[at(i)]);
    }
}

/// Coefficients f of x(i) = sum over k = 1..m of f(k) x(i-k) in the least-squares sense, samples beyond the ends
/// zero: a(j,k) = sum over i of conj(x(i-j)) x(i-k), b(j) = sum over i of conj(x(i-j)) x(i).
void Predictor::find_filter(const ComplexLanes* x, int n) {
    for (int lag = 0; lag <= m_; lag += 2) {  // two sums at a time hide the latency of each other
        const int next = std::min(lag + 1, m_);
        ComplexLanes sum, next_sum;
        for (int i = 0; i + lag < n; ++i) {
            add_conj_product(x[i], x[i + lag], sum);
            add_conj_product(x[i], x[i + next], next_sum);
        }
        corr_[at(lag)] = sum;
        corr_[at(next)] = next_sum;
    }
    for (int j = 0; j < m_; ++j) {
        b_[at(j)] = corr_[at(j + 1)];
        for (int k = 0; k < m_; ++k) {
            a(j, k) = corr_[at(std::abs(j - k))];
            if (j < k) a(j, k).im = -a(j, k).im;
        }
    }
    if (lambda_ == diagonal_only) {
        for (int i = 0; i < m_; ++i) {
            reciprocal(a(i, i), inverse_[at(i)]);
            filter_[at(i)] = {};
            add_product(b_[at(i)], inverse_[at(i)], filter_[at(i)]);
        }
        return;
    }
    for (int i = 0; i < m_; ++i) a(i, i).re *= 1.0f + lambda_ * lambda_;
    ngauss();
}

void Predictor::predict(const ComplexLanes* x, int n, ComplexLanes* predicted) {
    find_filter(x, n);
    for (int i = 0; i < n; ++i) {
        ComplexLanes sum;
        for (int k = 1; k <= m_; ++k) {
            const ComplexLanes &f = filter_[at(k - 1)], &below = x[i - k], &above = x[i + k];
            sum.re += f.re * (below.re + above.re) - f.im * (below.im - above.im);
            sum.im += f.re * (below.im + above.im) + f.im * (below.re - above.re);
        }
        const float share = i == 0 || i == n - 1 ? 1.0f : 0.5f;
        predicted[i].re = sum.re * share;
        predicted[i].im = sum.im * share;
    }
}

Ftu::Ftu(int n) : n_(n), half_(n / 2), even_(at(half_ + 1)), odd_(at(half_ + 1)) {
    if (n != pad2(n)) qas::erexit("ftu: nx not a power of 2");
    const double scale = 1.0 / std::sqrt(double(n));
    for (int row = 0; row <= half_; ++row)
        for (int i = 0; i <= half_; ++i) {
            const double phase = 2.0 * std::numbers::pi * (row * i % n) / n;
            const double share = i == 0 || 2 * i == n ? 1.0 : 2.0;
            cos_.push_back(static_cast<float>(scale * std::cos(phase)));
            sin_.push_back(static_cast<float>(-scale * std::sin(phase)));
            inverse_cos_.push_back(static_cast<float>(share * scale * std::cos(phase)));
            inverse_sin_.push_back(static_cast<float>(share * scale * std::sin(phase)));
        }
}

void Ftu::forward(const Float16* x, int count, ComplexLanes* spectrum, std::size_t stride) {
    for (int j = 0; j <= half_; ++j) {
        even_[at(j)] = odd_[at(j)] = j < count ? x[j] : Float16{};
        const int mirror = n_ - j;
        if (mirror <= j || mirror >= count) continue;
        even_[at(j)] += x[mirror];
        odd_[at(j)] -= x[mirror];
    }
    for (int k = 0; k <= half_; k += 2) {
        const int next = std::min(k + 1, half_);
        const float *c0 = row(cos_, k), *s0 = row(sin_, k), *c1 = row(cos_, next), *s1 = row(sin_, next);
        Float16 re0{}, im0{}, re1{}, im1{};
        for (int j = 0; j <= half_; ++j) {
            re0 += even_[at(j)] * c0[j];
            im0 += odd_[at(j)] * s0[j];
            re1 += even_[at(j)] * c1[j];
            im1 += odd_[at(j)] * s1[j];
        }
        spectrum[at(k) * stride].re = re0;
        spectrum[at(k) * stride].im = im0;
        spectrum[at(next) * stride].re = re1;
        spectrum[at(next) * stride].im = im1;
    }
}

void Ftu::inverse(const ComplexLanes* spectrum, std::size_t stride, int count, Float16* x) {
    const auto keep = [&](int j, const Float16& even, const Float16& odd) {
        if (j < count) x[j] = even - odd;
        if (j > 0 && n_ - j > j && n_ - j < count) x[n_ - j] = even + odd;
    };
    for (int j = 0; j <= half_; j += 2) {
        const int next = std::min(j + 1, half_);
        const float *c0 = row(inverse_cos_, j), *s0 = row(inverse_sin_, j);
        const float *c1 = row(inverse_cos_, next), *s1 = row(inverse_sin_, next);
        Float16 even0{}, odd0{}, even1{}, odd1{};
        for (int k = 0; k <= half_; ++k) {
            const ComplexLanes& z = spectrum[at(k) * stride];
            even0 += z.re * c0[k];
            odd0 += z.im * s0[k];
            even1 += z.re * c1[k];
            odd1 += z.im * s1[k];
        }
        keep(j, even0, odd0);
        keep(next, even1, odd1);
    }
}

}  // namespace morvane
