#pragma once
/// Between time and frequency, with the sign that morvane's fields have: U(w) = sum u(t) exp(+i w t) dt.
#include <complex>
#include <memory>
#include <span>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"

namespace morvane::prepare {

/// Fourier sums of real samples at given frequencies. Where these are multiples of 1 / (n dt) for a whole n, not less
/// than the number of samples, a fast transform of that length; else direct sums, four traces at a time.
class FourierSum {
public:
    /// @param freqs cycles/time
    /// @param nt    samples every dt from time 0
    FourierSum(const Axis& freqs, int nt, double dt);
    ~FourierSum();
    FourierSum(const FourierSum&) = delete;
    FourierSum& operator=(const FourierSum&) = delete;
    /// @param traces (nt, n) samples; @param spectra (nf, n), overwritten. Threads: any number at once.
    void of(View<const float, 2> traces, View<cf, 2> spectra) const;
    /// Length of the transform that would serve these frequencies; 0 if none does.
    static int fast_length(const Axis& freqs, int nt, double dt);

private:
    void directly(View<const float, 2> traces, View<cf, 2> spectra) const;
    struct Plan;

    int nf_, nt_, stride_;
    double dt_;
    std::unique_ptr<Plan> plan_;    // of the fast transform
    std::vector<float> cos_, sin_;  // (stride, nt), the rest of a row 0
};

/// The least length not below `n` without prime factors above 7, for which transforms are fast.
int smooth_length(int n);

/// exp(+i w t) at the frequencies of an axis.
std::vector<std::complex<double>> delay_factor(const Axis& freqs, double t);

/// A mean power spectrum: values at k / (n dt), k = 0 .. n/2.
struct Power {
    int n = 0;  ///< length of the transform
    double dt = 0;
    std::vector<double> value;
    double step() const { return 1.0 / (n * dt); }
};

/// Mean over traces of |U|^2, with a transform of at least twice their length, so that its inverse is the
/// autocorrelation.
Power mean_power(View<const float, 2> traces, double dt);

/// The power averaged over frequency, by cutting the autocorrelation with half a cosine of this length (time).
Power smooth(const Power& power, double length);

/// Frequencies between which the amplitude of a smooth spectrum stays above this part of its greatest, around it.
struct Band {
    double low = 0, peak = 0, high = 0;
};
Band band_of(const Power& power, double part);

/// The wavelet of this amplitude spectrum (square root of power) whose energy comes earliest: its logarithm's inverse
/// transform folded to positive times. Amplitudes below 1/1000 of the greatest are raised to that. Samples every dt
/// from time 0, power.n of them.
std::vector<float> minimum_phase(const Power& power);
/// The symmetric wavelet of this amplitude spectrum; sample 0 is its centre, negative times stand at the end.
std::vector<float> zero_phase(const Power& power);

}  // namespace morvane::prepare
