#include "src/tools/morvane_synth/acoustic_fd.h"

#include <cmath>
#include <numbers>

#include "lib/base/index.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

constexpr std::array<double, 5> second_derivative{-205.0 / 72, 8.0 / 5, -1.0 / 5, 8.0 / 315, -1.0 / 560};
constexpr std::array<double, 5> first_derivative{0.0, 4.0 / 5, -1.0 / 5, 4.0 / 105, -1.0 / 280};
constexpr double samples_per_wavelength = 4.0;

std::array<float, 5> scaled(const std::array<double, 5>& c, double factor) {
    std::array<float, 5> out;
    for (std::size_t k = 0; k < out.size(); ++k) out[k] = static_cast<float>(c[k] * factor);
    return out;
}

/// sum_k c_k (p(i + k s) - p(i - k s)), k = 1..4
inline float derivative1(const float* p, std::ptrdiff_t s, const float* c) {
    return c[1] * (p[s] - p[-s]) + c[2] * (p[2 * s] - p[-2 * s]) + c[3] * (p[3 * s] - p[-3 * s]) +
           c[4] * (p[4 * s] - p[-4 * s]);
}

/// c_0 p(i) + sum_k c_k (p(i + k s) + p(i - k s)), k = 1..4
inline float derivative2(const float* p, std::ptrdiff_t s, const float* c) {
    return c[0] * p[0] + c[1] * (p[s] + p[-s]) + c[2] * (p[2 * s] + p[-2 * s]) + c[3] * (p[3 * s] + p[-3 * s]) +
           c[4] * (p[4 * s] + p[-4 * s]);
}

/// One row of the plain scheme: before = 2 now - before + v2 (now_xx + now_zz).
void step_row(const float* __restrict now, float* __restrict before, const float* __restrict v2, int n,
              std::ptrdiff_t ld, const std::array<float, 5>& cx, const std::array<float, 5>& cz) {
#pragma omp simd
    for (int i = 0; i < n; ++i) {
        const float bend = derivative2(now + i, 1, cx.data()) + derivative2(now + i, ld, cz.data());
        before[i] = 2.0f * now[i] - before[i] + v2[i] * bend;
    }
}

}  // namespace

double fd_stable_dt(double dx, double dz, double vmax) {
    double sum = std::abs(second_derivative[0]);
    for (std::size_t k = 1; k < 5; ++k) sum += 2 * std::abs(second_derivative[k]);
    return 2.0 / (vmax * std::sqrt(sum * (1.0 / (dx * dx) + 1.0 / (dz * dz))));
}

double fd_largest_step(double vmin, double fmax) {
    return vmin / (fmax * samples_per_wavelength);
}

void fd_check(const FdGrid& grid, double vmin, double vmax, double fmax) {
    const double step = fd_largest_step(vmin, fmax);
    if (std::max(grid.dx, grid.dz) > step * (1 + 1e-6))
        qas::qaserr(
            "the grid is too coarse: at %g Hz and the smallest velocity %g the steps dx=%g, dz=%g would disperse the "
            "waves; permitted are steps up to %.6g, or frequencies up to %.6g Hz\n",
            fmax, vmin, static_cast<double>(grid.dx), static_cast<double>(grid.dz), step,
            fmax * step / std::max(grid.dx, grid.dz));
    const double stable = fd_stable_dt(grid.dx, grid.dz, vmax);
    if (!(grid.dt > 0) || grid.dt > stable)
        qas::qaserr(
            "the time step dt=%g is not stable: with the largest velocity %g and the steps dx=%g, dz=%g permitted is "
            "0 < dt <= %.6g s\n",
            static_cast<double>(grid.dt), vmax, static_cast<double>(grid.dx), static_cast<double>(grid.dz), stable);
}

AcousticFd::AcousticFd(const FdGrid& grid, View<const float, 2> velocity)
    : nx_(static_cast<int>(velocity.n[0])),
      nz_(static_cast<int>(velocity.n[1])),
      mx_(nx_ + 2 * grid.absorb),
      mz_(nz_ + 2 * grid.absorb + grid.above),
      left_(grid.absorb),
      top_(grid.absorb + grid.above),
      ld_((mx_ + 2 * halo + 15) / 16 * 16),
      source_factor_(1.0f / (grid.dx * grid.dz)),
      v2_(at(mx_) * at(mz_)),
      now_(at(ld_) * at(mz_ + 2 * halo)),
      before_(now_.size()),
      cx_(scaled(second_derivative, 1.0 / (double(grid.dx) * grid.dx))),
      cz_(scaled(second_derivative, 1.0 / (double(grid.dz) * grid.dz))),
      gx_(scaled(first_derivative, 1.0 / grid.dx)),
      gz_(scaled(first_derivative, 1.0 / grid.dz)) {
    for (int iz = 0; iz < mz_; ++iz)
        for (int ix = 0; ix < mx_; ++ix) {
            const float vdt = grid.dt * velocity(std::clamp(ix - left_, 0, nx_ - 1), std::clamp(iz - top_, 0, nz_ - 1));
            v2_[at(iz) * at(mx_) + at(ix)] = vdt * vdt;
        }
    // Damping grows with the square of the depth into the layer so that 1e-5 of a wave at normal incidence returns; the
    // frequency shift falls from pi fpeak to zero, which keeps the layer effective for grazing waves.
    const auto layer = [&](double step, bool low_side, std::ptrdiff_t width) {
        Layer made;
        made.n = grid.absorb;
        const double thickness = step * grid.absorb;
        const double d0 = 3.0 * grid.vmax * std::log(1e5) / (2.0 * thickness);
        for (int i = 0; i < grid.absorb; ++i) {
            const double u = static_cast<double>(low_side ? grid.absorb - i : i + 1) / grid.absorb;
            const double d = d0 * u * u, alpha = std::numbers::pi * grid.fpeak * (1.0 - u);
            const double b = std::exp(-(d + alpha) * grid.dt);
            made.b.push_back(static_cast<float>(b));
            made.a.push_back(static_cast<float>(d * (b - 1.0) / (d + alpha)));
        }
        made.psi.resize(static_cast<std::size_t>((grid.absorb + 2 * halo) * width));
        made.zeta.resize(static_cast<std::size_t>(grid.absorb * width));
        return made;
    };
    for (int side = 0; side < 2; ++side) {
        sides_[side] = layer(grid.dx, side == 0, mz_);
        caps_[side] = layer(grid.dz, side == 0, mx_);
    }
}

std::span<const float> AcousticFd::row(int iz) const {
    return {now_.data() + place(left_, top_ + iz), static_cast<std::size_t>(nx_)};
}

/// In a layer the derivative d/dx becomes d/dx + psi *: p_xx turns into p_xx + psi_x + zeta with
/// psi = b psi + a p_x and zeta = b zeta + a (p_xx + psi_x).
void AcousticFd::absorb_sides() {
    for (int side = 0; side < 2; ++side) {
        Layer& layer = sides_[side];
        const int n = layer.n, first = side == 0 ? 0 : mx_ - n;
        const float* __restrict a = layer.a.data(), * __restrict b = layer.b.data();
        for (int iz = 0; iz < mz_; ++iz) {
            const float* __restrict now = now_.data() + place(first, iz);
            float* __restrict next = before_.data() + place(first, iz);
            const float* __restrict v2 = v2_.data() + static_cast<std::ptrdiff_t>(iz) * mx_ + first;
            float* __restrict psi = layer.psi.data() + static_cast<std::ptrdiff_t>(iz) * (n + 2 * halo) + halo;
            float* __restrict zeta = layer.zeta.data() + static_cast<std::ptrdiff_t>(iz) * n;
#pragma omp simd
            for (int i = 0; i < n; ++i) psi[i] = b[i] * psi[i] + a[i] * derivative1(now + i, 1, gx_.data());
#pragma omp simd
            for (int i = 0; i < n; ++i) {
                const float slope = derivative1(psi + i, 1, gx_.data());
                zeta[i] = b[i] * zeta[i] + a[i] * (derivative2(now + i, 1, cx_.data()) + slope);
                next[i] += v2[i] * (slope + zeta[i]);
            }
        }
    }
}

void AcousticFd::absorb_caps() {
    for (int side = 0; side < 2; ++side) {
        Layer& layer = caps_[side];
        const int n = layer.n, first = side == 0 ? 0 : mz_ - n;
        float* const psi_start = layer.psi.data() + static_cast<std::ptrdiff_t>(halo) * mx_;
        for (int j = 0; j < n; ++j) {
            const float a = layer.a[at(j)], b = layer.b[at(j)];
            const float* __restrict now = now_.data() + place(0, first + j);
            float* __restrict psi = psi_start + static_cast<std::ptrdiff_t>(j) * mx_;
#pragma omp simd
            for (int i = 0; i < mx_; ++i) psi[i] = b * psi[i] + a * derivative1(now + i, ld_, gz_.data());
        }
        for (int j = 0; j < n; ++j) {
            const float a = layer.a[at(j)], b = layer.b[at(j)];
            const float* __restrict now = now_.data() + place(0, first + j);
            float* __restrict next = before_.data() + place(0, first + j);
            const float* __restrict v2 = v2_.data() + static_cast<std::ptrdiff_t>(first + j) * mx_;
            const float* __restrict psi = psi_start + static_cast<std::ptrdiff_t>(j) * mx_;
            float* __restrict zeta = layer.zeta.data() + static_cast<std::ptrdiff_t>(j) * mx_;
#pragma omp simd
            for (int i = 0; i < mx_; ++i) {
                const float slope = derivative1(psi + i, mx_, gz_.data());
                zeta[i] = b * zeta[i] + a * (derivative2(now + i, ld_, cz_.data()) + slope);
                next[i] += v2[i] * (slope + zeta[i]);
            }
        }
    }
}

void AcousticFd::step(float source, int ix) {
    for (int iz = 0; iz < mz_; ++iz)
        step_row(now_.data() + place(0, iz), before_.data() + place(0, iz),
                 v2_.data() + static_cast<std::ptrdiff_t>(iz) * mx_, mx_, ld_, cx_, cz_);
    absorb_sides();
    absorb_caps();
    before_[static_cast<std::size_t>(place(left_ + ix, top_))] +=
        v2_[at(top_) * at(mx_) + at(left_ + ix)] * source * source_factor_;
    std::swap(now_, before_);
}

StepTransform::StepTransform(std::span<const float> freqs, int nt, float dt)
    : nf_(static_cast<int>(freqs.size())),
      nt_(nt),
      cos_(freqs.size() * static_cast<std::size_t>(nt)),
      sin_(cos_.size()) {
    for (int n = 0; n < nt; ++n)
        for (int k = 0; k < nf_; ++k) {
            const double theta_dt = 2.0 * std::asin(std::numbers::pi * freqs[at(k)] * dt);
            const std::size_t i = at(n) * at(nf_) + at(k);
            cos_[i] = static_cast<float>(std::cos(theta_dt * n) * dt);
            sin_[i] = static_cast<float>(std::sin(theta_dt * n) * dt);
        }
}

std::vector<std::complex<double>> StepTransform::of(std::span<const float> samples) const {
    std::vector<std::complex<double>> sum(static_cast<std::size_t>(nf_));
    const int last = std::min(nt_, static_cast<int>(samples.size()));
    for (int n = 0; n < last; ++n)
        for (int k = 0; k < nf_; ++k)
            sum[at(k)] += static_cast<double>(samples[at(n)]) * std::complex<double>(cosine(n)[k], sine(n)[k]);
    return sum;
}

void model_shot(const FdGrid& grid, View<const float, 2> velocity, int ix, int first, std::span<const float> source,
                View<const float, 2> gate, const StepTransform& transform, View<cf, 2> record) {
    constexpr int block = 8;  // time samples gathered for one visit to the sums
    const std::ptrdiff_t nrec = record.n[0];
    const int nf = transform.nf(), nt = transform.nt();
    AcousticFd fd(grid, velocity);
    Array<float, 2> re({nrec, nf}), im({nrec, nf}), samples({nrec, block});
    for (int n0 = 0; n0 < nt; n0 += block) {
        samples.fill(0.0f);
        const int m = std::min(block, nt - n0);
        for (int k = 0; k < m; ++k) {
            const int n = n0 + k;
            const std::span<const float> row = fd.surface();
            for (std::ptrdiff_t i = 0; i < nrec; ++i)
                samples(i, k) = gate.p ? row[static_cast<std::size_t>(first + i)] * gate(i, n)
                                       : row[static_cast<std::size_t>(first + i)];
            fd.step(static_cast<std::size_t>(n) < source.size() ? source[static_cast<std::size_t>(n)] : 0.0f, ix);
        }
        const float* s[block];
        for (int k = 0; k < block; ++k) s[k] = samples.view().slice(k).p;
        for (int f = 0; f < nf; ++f) {
            float c[block] = {}, d[block] = {};
            for (int k = 0; k < m; ++k) {
                c[k] = transform.cosine(n0 + k)[f];
                d[k] = transform.sine(n0 + k)[f];
            }
            float* __restrict r = re.view().slice(f).p;
            float* __restrict q = im.view().slice(f).p;
#pragma omp simd
            for (std::ptrdiff_t i = 0; i < nrec; ++i) {
                float sum_re = 0.0f, sum_im = 0.0f;
                for (int k = 0; k < block; ++k) {
                    sum_re += c[k] * s[k][i];
                    sum_im += d[k] * s[k][i];
                }
                r[i] += sum_re;
                q[i] += sum_im;
            }
        }
    }
    for (int f = 0; f < nf; ++f)
        for (std::ptrdiff_t i = 0; i < nrec; ++i) record(i, f) = cf(re(i, f), im(i, f));
}

}  // namespace morvane
