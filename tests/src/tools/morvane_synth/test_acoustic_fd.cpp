#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "src/tools/morvane_synth/acoustic_fd.h"
#include "src/tools/morvane_synth/survey.h"

using namespace morvane;

namespace {

constexpr double pi = std::numbers::pi;
constexpr float velocity = 2000.0f, fpeak = 17.0f, delay = 0.09f;

Array<float, 2> constant_model(int nx, int nz) {
    Array<float, 2> model({nx, nz});
    model.fill(velocity);
    return model;
}

FdGrid grid_of(double dx, double dz, double part_of_limit) {
    FdGrid grid;
    grid.dx = static_cast<float>(dx);
    grid.dz = static_cast<float>(dz);
    grid.vmax = velocity;
    grid.fpeak = fpeak;
    grid.dt = static_cast<float>(part_of_limit * fd_stable_dt(dx, dz, velocity));
    return grid;
}

/// Field of a line source of unit spectrum: i/4 H0(kr), outgoing for time dependence exp(-i w t).
std::complex<double> line_source(double f, double r) {
    const double kr = 2 * pi * f * r / velocity;
    return std::complex<double>(0, 0.25) * std::complex<double>(std::cyl_bessel_j(0, kr), std::cyl_neumann(0, kr));
}

}  // namespace

// The two distances separate a wrong amplitude (dx dz, dt) from a wrong decay; the steps at 0.9 and 0.3 of the limit
// show that no dispersion of the time steps is left; dx differs from dz to catch exchanged steps.
TEST(AcousticFd, MatchesTheLineSourceInPhaseAndAmplitude) {
    for (double part : {0.9, 0.3}) {
        const FdGrid grid = grid_of(10.0, 8.0, part);
        const std::vector<float> freqs{6.0f, 17.0f, 30.0f};
        const int nt = static_cast<int>(0.75 / grid.dt), source = 30;
        const StepTransform transform(freqs, nt, grid.dt);
        const std::vector<float> wavelet = ricker(fpeak, delay, grid.dt, nt);
        Array<cf, 2> record({100, 3});
        model_shot(grid, constant_model(130, 40).view(), source, 20, wavelet, {}, transform, record);
        const auto spectrum = transform.of(wavelet);
        for (int f = 0; f < 3; ++f)
            for (int column : {50, 110}) {
                SCOPED_TRACE(testing::Message() << "part " << part << " f " << freqs[f] << " column " << column);
                const auto ratio = std::complex<double>(record(column - 20, f)) /
                                   (line_source(freqs[f], std::abs(column - source) * 10.0) * spectrum[f]);
                EXPECT_NEAR(std::abs(ratio), 1.0, 0.005);
                EXPECT_NEAR(std::arg(ratio), 0.0, 0.012);
            }
    }
}

// A source near three sides against the same one in a model so large that no side answers within the record.
TEST(AcousticFd, SidesReturnLessThanAThousandth) {
    const FdGrid grid = grid_of(10.0, 10.0, 0.9);
    const int nt = 200;
    const std::vector<float> wavelet = ricker(fpeak, delay, grid.dt, nt);
    FdGrid roomy = grid;
    roomy.above = 90;
    AcousticFd small(grid, constant_model(60, 20)), large(roomy, constant_model(240, 120));
    double direct = 0.0, worst = 0.0;
    for (int n = 0; n < nt; ++n) {
        small.step(wavelet[n], 6);
        large.step(wavelet[n], 96);
        for (int iz : {0, 10, 19})
            for (int i = 0; i < 60; ++i) {
                const double free = large.row(iz)[90 + i];
                if (std::abs(i - 6) > 2) direct = std::max(direct, std::abs(free));
                worst = std::max(worst, std::abs(small.row(iz)[i] - free));
            }
    }
    EXPECT_GT(direct, 0.0);
    EXPECT_LT(worst, 1e-3 * direct);
}

TEST(AcousticFd, StableUpToTheLimitAndNotBeyond) {
    for (auto [part, stable] : {std::pair{0.995, true}, {1.02, false}}) {
        FdGrid grid = grid_of(10.0, 7.0, part);
        AcousticFd fd(grid, constant_model(40, 40));
        double largest = 0.0;
        for (int n = 0; n < 1500; ++n) fd.step(n < 50 ? 1.0f : 0.0f, 20);
        for (float p : fd.surface()) largest = std::max(largest, std::isfinite(p) ? std::abs(double(p)) : 1e30);
        EXPECT_EQ(largest < 1.0, stable) << part << ' ' << largest;
    }
}

// The running transform of a shot against the sum over its recorded time steps; 67 steps leave an incomplete block.
TEST(ModelShot, TransformsWhatItRecords) {
    const FdGrid grid = grid_of(10.0, 10.0, 0.9);
    const int nt = 67, nrec = 9, first = 11, source = 14;
    const std::vector<float> freqs{7.0f, 12.0f, 31.0f};
    const StepTransform transform(freqs, nt, grid.dt);
    const std::vector<float> wavelet = ricker(fpeak, 0.06f, grid.dt, 50);  // shorter than the record
    const Array<float, 2> model = constant_model(30, 12);
    Array<float, 2> gate({nrec, nt});
    for (int n = 0; n < nt; ++n)
        for (int i = 0; i < nrec; ++i) gate(i, n) = static_cast<float>(1 + (i + 2 * n) % 3);
    Array<cf, 2> record({nrec, 3});
    record.fill(cf(5, 5));
    model_shot(grid, model.view(), source, first, wavelet, gate.view(), transform, record);

    AcousticFd fd(grid, model.view());
    std::vector<std::vector<float>> traces(nrec, std::vector<float>(nt));
    for (int n = 0; n < nt; ++n) {
        for (int i = 0; i < nrec; ++i) traces[i][n] = gate(i, n) * fd.surface()[first + i];
        fd.step(n < 50 ? wavelet[n] : 0.0f, source);
    }
    for (int i = 0; i < nrec; ++i) {
        const auto expected = transform.of(traces[i]);
        for (int f = 0; f < 3; ++f)
            EXPECT_NEAR(std::abs(std::complex<double>(record(i, f)) - expected[f]), 0.0,
                        1e-5 * std::abs(expected[f]) + 1e-9);
    }
}
