#pragma once
/// A survey over a model: where shots and traces lie, what is done to the traces, and the wavefields that come out.
#include <complex>
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"
#include "src/tools/morvane_synth/acoustic_fd.h"

namespace morvane {

/// Shots and traces, and the margins that morvane adds to them.
struct Geometry {
    bool areal = false;
    Axis shot;   ///< position along the line
    Axis trace;  ///< areal false: position relative to the shot; areal true: position along the line
    int taper = 20;
    int pad = 10;

    int margin() const { return taper + pad; }
    /// The lateral axis of morvane's image and of the models that go with the survey.
    Axis image() const;
    /// Samples of one wavefield column with its margins.
    int columns() const { return trace.n + 2 * margin(); }
};

/// Smallest padding >= least that gives wavefield columns of traces + 2 (taper + pad) samples without prime factors
/// above 7, for which the lateral transforms are fast.
int good_padding(int traces, int taper, int least);

/// Refuses (qas::Fatal) positions that do not fall on the columns of the model, a spread without the shot, and axes
/// that morvane, which works on them in single precision after six printed digits, would place elsewhere.
void check_geometry(const Geometry& geometry);

enum class Direct { smooth, start, constant, mute, none };  ///< how the direct wave is removed

/// What is recorded and what is done to it.
struct Acquisition {
    Axis freq;            ///< cycles/time, o > 0
    float fpeak = 17.0f;  ///< peak frequency of the Ricker wavelet
    float delay = 0.0f;   ///< time of the wavelet's centre
    float tmax = 1.6f;    ///< length of the record
    Direct direct = Direct::smooth;
    float angle = 0.0f;          ///< reflections wider than this (degrees from the vertical) are muted; 0: none
    float angle_taper = 100.0f;  ///< offset over which that mute sets in
    float whiten = 0.0f;         ///< water level of the spectral flattening, part of the peak; 0: none
    float band_taper = 0.0f;     ///< width of the tapered band ends, cycles/time
    float rotate = 0.0f;         ///< degrees added to the phase of the source function
    float amplitude = 1.0f;      ///< largest spectral amplitude of the wavelet in the band, before flattening
    float trace_dt = 0.0f;       ///< interval of the traces in time; 0: none are made
};

/// Time axis of those traces: from 0 to two periods of the wavelet after the end of the record, which the
/// correction of the time scale (StepTransform) may pass.
Axis trace_times(const Acquisition& acquisition);

/// Ricker wavelet (1 - 2 a^2) exp(-a^2), a = pi fpeak (n dt - delay), nt samples.
std::vector<float> ricker(float fpeak, float delay, float dt, int nt);

/// Factor by which both the source and the receiver data are multiplied at each frequency: flattening, tapered ends and
/// scale. The image, a product of the two, sees its square.
/// @param spectrum of the wavelet
std::vector<double> band_factor(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum);

/// Weights of the samples of traces, (traces, nt): the end of the record runs out over two periods; with Direct::mute
/// all before the direct wave has passed is zero; with an angle, what lies beyond the offset x at which a flat
/// reflector is seen under that angle at time t is zero: x = 2 z tan(angle), t = delay + 2 z / (cos(angle) v(z)),
/// straight rays with the average velocity v(z) down to depth z.
/// @param offsets of the traces from the shot
/// @param column  slowness by depth under the shot, from the surface, step dz
Array<float, 2> trace_gate(const Acquisition& acquisition, const std::vector<float>& offsets,
                           const std::vector<float>& column, float dz, float dt, int nt);

/// Source function of a survey with one source sample a shot: the wavelet times i v / (4 pi f dx), the vertical part of
/// the downgoing half of a line source's field, times the band factor and the rotation.
/// @param v velocity at the surface
std::vector<cf> source_function(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum,
                                const std::vector<double>& factor, float v, float dx);

/// The downgoing field of a line source along the surface, by distance in traces from the source (n, nf): the spectrum
/// i / (2 kz) of all waves up to 49 degrees from the vertical (sine 0.75), tapered to nothing at 90. A steeper taper
/// would draw the field out along the surface.
Array<cf, 2> source_field(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum,
                          const std::vector<double>& factor, float v, float dx, int n);

/// The models as the survey sees them: velocities over the columns of one axis, (x.n, nz) each.
struct SurveyModels {
    Axis x;
    float dz = 10.0f;
    Array<float, 2> full;       ///< velocity
    Array<float, 2> reference;  ///< velocity of the model whose waves are subtracted; empty: none
    Array<float, 2> start;      ///< slowness, for the angle mute
};

struct SurveyData {
    Array<cf, 3> rec;            ///< (traces, frequencies, shots)
    Array<cf, 3> sou;            ///< areal: as rec; otherwise (1, frequencies, 1)
    Array<float, 3> traces;      ///< (times, traces, shots), what a field record would hold; empty unless asked for
    std::vector<float> wavelet;  ///< (times) that goes with them
};

/// Model all shots, in parallel. Each shot sees the model from `margin` before its first to `margin` after its last
/// trace. A reference model that is the same in every column is modelled once in a survey with moving spreads.
/// @param grid  checked (fd_check)
SurveyData model_survey(const Geometry& geometry, const Acquisition& acquisition, const FdGrid& grid,
                        const SurveyModels& models, float margin);

}  // namespace morvane
