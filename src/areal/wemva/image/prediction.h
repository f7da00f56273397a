#pragma once
/// One-step prediction along a line of complex samples, and the transform along depth that leads to it; for several
/// midpoints at a time, which all go through the same arithmetic.
#include <cstddef>
#include <vector>

#include "lib/base/simd.h"

namespace morvane {

/// The smallest power of two not below n.
int pad2(int n);

/// The same sample of neighbouring midpoints.
constexpr int midpoints_at_a_time = 16;
struct ComplexLanes {
    Float16 re{}, im{};
};

class Predictor {
    int m_;
    float lambda_;
    std::vector<ComplexLanes> corr_, a_, b_, inverse_, filter_;

    ComplexLanes& a(int i, int j) { return a_[static_cast<std::size_t>(i * m_ + j)]; }
    void ngauss();
    void find_filter(const ComplexLanes* x, int n);

public:
    Predictor(int noper, float lambda);

    /// noper - 1 coefficients of the last line.
    const std::vector<ComplexLanes>& filter() const { return filter_; }

    /// The mean of the predictions from below and from above: f(k) x(i-k) and, since the filter of the reversed line is
    /// the conjugate of the line's own, conj(f(k)) x(i+k). The ends have one prediction; a single sample has none.
    /// @param x n samples, and noper - 1 zeros before the first and after the last
    void predict(const ComplexLanes* x, int n, ComplexLanes* predicted);
};

/// Unitary Fourier transform of real columns, frequencies 0 to n/2. By tables: for the few samples of a patch, and all
/// lanes at once, that is faster than a library's transform of one column after the other. Sample j and its mirror n -
/// j share a cosine, and a sine up to its sign. Two sums are formed at a time to hide the latency of each other.
class Ftu {
    int n_, half_;
    // (half + 1, half + 1) [k][j]; with the scale 1/sqrt(n); for the inverse [j][k], counting conjugate frequencies
    std::vector<float> cos_, sin_, inverse_cos_, inverse_sin_;
    std::vector<Float16> even_, odd_;

    const float* row(const std::vector<float>& table, int i) const {
        return table.data() + std::ptrdiff_t{i} * (half_ + 1);
    }

public:
    /// @param n a power of two
    explicit Ftu(int n);
    int frequencies() const { return half_ + 1; }

    /// Sign -1.
    /// @param x      count samples, zeros to n
    /// @param stride from one frequency of the spectrum to the next
    void forward(const Float16* x, int count, ComplexLanes* spectrum, std::size_t stride);

    /// Sign +1, from the spectrum of a real column.
    void inverse(const ComplexLanes* spectrum, std::size_t stride, int count, Float16* x);
};

}  // namespace morvane
