#pragma once
/// The source's wavelet: a formula, a file, or estimated from the data.
#include <complex>
#include <string>
#include <vector>

#include "lib/base/axis.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/spectra.h"

namespace morvane::prepare {

/// Samples every dt from time t0 of the source's clock.
struct Wavelet {
    std::vector<float> samples;
    double t0 = 0, dt = 0;
};

/// Reads a wavelet: SEG-Y (.sgy, .segy; first trace, its recording delay), .npy (one axis), a dataset (n1, d1, o1), or
/// text, an amplitude or a time and an amplitude a line. Refuses (qas::Fatal), with file and line: what is none of
/// these, times that are not evenly spaced, samples that are not finite or all zero.
/// @param dt interval where the file has none
Wavelet read_wavelet(qas::Session& session, const std::string& path, double dt);

/// Spectrum at the frequencies of an axis, sum of u(t) exp(+i w t) dt. Refuses (qas::Fatal) a wavelet too coarse for
/// the highest of them.
std::vector<std::complex<double>> spectrum_of(const Wavelet& wavelet, const Axis& freqs);

/// Spectrum of the Ricker wavelet (1 - 2 a^2) exp(-a^2), a = pi fpeak t: 2 f^2 exp(-(f/fpeak)^2) / (sqrt(pi) fpeak^3).
std::vector<std::complex<double>> ricker_spectrum(double fpeak, const Axis& freqs);

/// The wavelet whose autocorrelation is that of the data, cut at `length`, if their reflectivity is white; of zero or
/// minimum phase. @param line_source the data come from line sources, whose reflections have 1/sqrt(f) in them
Wavelet estimated(const Power& data, double length, bool line_source, bool minimum);

}  // namespace morvane::prepare
