#pragma once
/// Two-dimensional acoustic waves of constant density by finite differences in time.
#include <span>
#include <string>
#include <vector>

#include "lib/base/array.h"

namespace morvane {

/// Where and how finely the wave equation is solved. Lengths, times and velocities in any one set of units.
struct FdGrid {
    float dx = 10.0f;    ///< lateral step
    float dz = 10.0f;    ///< depth step
    float dt = 0.001f;   ///< time step
    float vmax = 0.0f;   ///< velocity that the absorbing layers are made for: the largest of the model
    float fpeak = 0.0f;  ///< frequency (cycles/time) around which the absorbing layers work best
    int absorb = 20;     ///< absorbing samples added on each side
    int above = 10;      ///< rows between the surface (row 0 of the model) and the absorbing layer on top of it
};

/// Largest stable time step for velocities up to vmax.
double fd_stable_dt(double dx, double dz, double vmax);

/// Largest lateral and depth step at which the phase velocity stays within 0.6 % for frequencies up to fmax where the
/// velocity is at least vmin: a quarter of the shortest wavelength.
double fd_largest_step(double vmin, double fmax);

/// Refuses (qas::Fatal) a grid that is unstable or disperses, with the step that is permitted.
void fd_check(const FdGrid& grid, double vmin, double vmax, double fmax);

/// The pressure field of one shot. It solves p_tt / v^2 = p_xx + p_zz + s(t) delta(x - xs) delta(z), second order in
/// time and eighth in space, inside convolutional perfectly matched layers on all four sides into which the edge values
/// of the model are continued. Row 0 of the model is the surface, which reflects nothing.
class AcousticFd {
public:
    /// @param velocity (nx, nz), each > 0 and <= grid.vmax, not checked; copied
    AcousticFd(const FdGrid& grid, View<const float, 2> velocity);

    /// Advance from time n dt to (n + 1) dt with the source sample s(n dt) at column ix of the surface.
    void step(float source, int ix);

    /// Pressure along the surface at the present time, nx samples.
    std::span<const float> surface() const { return row(0); }
    /// Pressure along row iz of the model, nx samples.
    std::span<const float> row(int iz) const;

private:
    static constexpr int halo = 4;  ///< half-length of the stencil
    int nx_, nz_;                   ///< model samples
    int mx_, mz_;                   ///< samples with the layers
    int left_, top_;                ///< where the model starts in them
    std::ptrdiff_t ld_;             ///< row length in memory, with halo
    float source_factor_;
    std::vector<float> v2_;  ///< (v dt)^2, without halo, row length mx_
    std::vector<float> now_, before_;
    std::array<float, 5> cx_, cz_;  ///< second derivative
    std::array<float, 5> gx_, gz_;  ///< first derivative
    /// Memory of one absorbing layer: decay and gain by distance, psi of the first and zeta of the second derivative.
    struct Layer {
        int n = 0;
        std::vector<float> b, a;  ///< by sample from the low-index side
        std::vector<float> psi, zeta;
    };
    Layer sides_[2], caps_[2];  ///< left and right (row by row), top and bottom (sample by sample)

    void absorb_sides();
    void absorb_caps();
    std::ptrdiff_t place(int ix, int iz) const { return (iz + halo) * ld_ + ix + halo; }
};

/// Frequencies to which the time steps of a shot are transformed: F(f) = sum_n p(n dt) exp(+i theta n dt) dt with
/// theta = asin(pi f dt) 2 / dt. The time-stepping scheme of second order solves the wave equation at theta exactly as
/// time-harmonic waves of frequency f do: this choice of theta leaves no numerical dispersion from the time steps.
/// The positive exponent makes exp(+i k r) an outgoing wave.
class StepTransform {
public:
    /// @param freqs cycles/time, each with pi f dt < 1 (not checked; a stable and undispersed grid satisfies it)
    StepTransform(std::span<const float> freqs, int nt, float dt);

    int nf() const { return nf_; }
    int nt() const { return nt_; }
    /// exp(i theta n dt) dt, real and imaginary part, frequency fastest.
    const float* cosine(int n) const { return cos_.data() + static_cast<std::ptrdiff_t>(n) * nf_; }
    const float* sine(int n) const { return sin_.data() + static_cast<std::ptrdiff_t>(n) * nf_; }

    /// Transform of one time function of at most nt samples.
    std::vector<std::complex<double>> of(std::span<const float> samples) const;

private:
    int nf_, nt_;
    std::vector<float> cos_, sin_;
};

/// Model one shot and transform what the receivers record while it runs.
/// @param velocity (nx, nz)
/// @param ix       column of the source
/// @param first    column of the first receiver; first + record.n[0] <= nx
/// @param source   source samples from time 0, missing ones are zero
/// @param gate     (receivers, nt) weight of each sample before the transform, or empty: 1
/// @param record   (receivers, nf) overwritten
/// Errors: none. Threads: any number at once with their own record.
void model_shot(const FdGrid& grid, View<const float, 2> velocity, int ix, int first, std::span<const float> source,
                View<const float, 2> gate, const StepTransform& transform, View<cf, 2> record);

}  // namespace morvane
