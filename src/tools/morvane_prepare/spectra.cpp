#include "src/tools/morvane_prepare/spectra.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

namespace morvane::prepare {
namespace {

constexpr double pi = std::numbers::pi;
constexpr int lanes = 8, together = 4;

/// In-place transform of complex samples; sign -1 or +1, unscaled.
void transform(std::vector<cf>& samples, int sign) {
    const auto raw = reinterpret_cast<fftwf_complex*>(samples.data());
    const std::unique_ptr<std::remove_pointer_t<fftwf_plan>, decltype(&fftwf_destroy_plan)> plan(
        fftwf_plan_dft_1d(static_cast<int>(samples.size()), raw, raw, sign, FFTW_ESTIMATE | FFTW_UNALIGNED),
        &fftwf_destroy_plan);
    fftwf_execute(plan.get());
}

/// Values at k and n - k, as the transform of real or symmetric samples has them.
std::vector<cf> symmetric(const Power& power, const auto& value) {
    std::vector<cf> all(static_cast<std::size_t>(power.n));
    for (int k = 0; k < power.n; ++k)
        all[static_cast<std::size_t>(k)] =
            static_cast<float>(value(power.value[static_cast<std::size_t>(std::min(k, power.n - k))]));
    return all;
}

int even_length(std::ptrdiff_t least) {
    int n = 1;
    while (n < least) n *= 2;
    return std::max(n, 8);
}

}  // namespace

struct FourierSum::Plan {
    int n, first;  ///< length, number of the first frequency
    fftwf_plan plan;
    Plan(int length, int from) : n(length), first(from) {
        std::vector<float> in(static_cast<std::size_t>(n));
        std::vector<cf> out(static_cast<std::size_t>(n / 2 + 1));
        plan = fftwf_plan_dft_r2c_1d(n, in.data(), reinterpret_cast<fftwf_complex*>(out.data()),
                                     FFTW_ESTIMATE | FFTW_UNALIGNED);
    }
    ~Plan() { fftwf_destroy_plan(plan); }
};

int smooth_length(int n) {
    for (;; ++n) {
        int rest = n;
        for (const int prime : {2, 3, 5, 7})
            while (rest % prime == 0) rest /= prime;
        if (rest == 1) return n;
    }
}

int FourierSum::fast_length(const Axis& freqs, int nt, double dt) {
    const double df = freqs.d, n = std::round(1 / (df * dt)), first = freqs.o / df;
    const bool on_grid = std::abs(n * df * dt - 1) < 1e-6 && std::abs(first - std::round(first)) < 1e-5;
    return on_grid && n >= nt && n < 1e8 && std::round(first) + freqs.n - 1 <= n / 2 ? static_cast<int>(n) : 0;
}

FourierSum::FourierSum(const Axis& freqs, int nt, double dt)
    : nf_(freqs.n), nt_(nt), stride_((freqs.n + lanes - 1) / lanes * lanes), dt_(dt) {
    if (const int n = fast_length(freqs, nt, dt)) {
        plan_ = std::make_unique<Plan>(n, static_cast<int>(std::lround(freqs.o / freqs.d)));
        return;
    }
    cos_.resize(static_cast<std::size_t>(stride_) * static_cast<std::size_t>(nt));
    sin_.resize(cos_.size());
    for (int n = 0; n < nt; ++n)
        for (int k = 0; k < nf_; ++k) {
            const double cycles = (freqs.o + k * static_cast<double>(freqs.d)) * n * dt;
            const double phase = 2 * pi * (cycles - std::floor(cycles));
            const std::size_t i =
                static_cast<std::size_t>(n) * static_cast<std::size_t>(stride_) + static_cast<std::size_t>(k);
            cos_[i] = static_cast<float>(std::cos(phase) * dt);
            sin_[i] = static_cast<float>(std::sin(phase) * dt);
        }
}

FourierSum::~FourierSum() = default;

void FourierSum::of(View<const float, 2> traces, View<cf, 2> spectra) const {
    if (!plan_) return directly(traces, spectra);
    std::vector<float> in(static_cast<std::size_t>(plan_->n));
    std::vector<cf> out(static_cast<std::size_t>(plan_->n / 2 + 1));
    for (std::ptrdiff_t i = 0; i < traces.n[1]; ++i) {
        std::ranges::copy(traces.slice(i).flat(), in.begin());
        fftwf_execute_dft_r2c(plan_->plan, in.data(), reinterpret_cast<fftwf_complex*>(out.data()));
        for (int k = 0; k < nf_; ++k)  // the library's sign is the other one
            spectra(k, i) = std::conj(out[static_cast<std::size_t>(plan_->first + k)]) * static_cast<float>(dt_);
        std::fill(in.begin() + nt_, in.end(), 0.0f);
    }
}

void FourierSum::directly(View<const float, 2> traces, View<cf, 2> spectra) const {
    const std::vector<float> none(static_cast<std::size_t>(nt_));
    for (std::ptrdiff_t i = 0; i < traces.n[1]; i += together)
        for (int k0 = 0; k0 < stride_; k0 += lanes) {
            const float* u[together];
            for (int j = 0; j < together; ++j) u[j] = i + j < traces.n[1] ? traces.slice(i + j).p : none.data();
            float re[together][lanes] = {}, im[together][lanes] = {};
            for (int n = 0; n < nt_; ++n) {
                const float* c = cos_.data() + static_cast<std::ptrdiff_t>(n) * stride_ + k0;
                const float* s = sin_.data() + static_cast<std::ptrdiff_t>(n) * stride_ + k0;
                for (int j = 0; j < together; ++j)
#pragma omp simd
                    for (int k = 0; k < lanes; ++k) {
                        re[j][k] += u[j][n] * c[k];
                        im[j][k] += u[j][n] * s[k];
                    }
            }
            for (int j = 0; j < together && i + j < traces.n[1]; ++j)
                for (int k = 0; k < lanes && k0 + k < nf_; ++k) spectra(k0 + k, i + j) = cf(re[j][k], im[j][k]);
        }
}

std::vector<std::complex<double>> delay_factor(const Axis& freqs, double t) {
    std::vector<std::complex<double>> factor;
    for (int k = 0; k < freqs.n; ++k)
        factor.push_back(std::polar(1.0, 2 * pi * (freqs.o + k * static_cast<double>(freqs.d)) * t));
    return factor;
}

Power mean_power(View<const float, 2> traces, double dt) {
    Power power{even_length(2 * traces.n[0]), dt, {}};
    power.value.resize(static_cast<std::size_t>(power.n / 2 + 1));
    for (std::ptrdiff_t i = 0; i < traces.n[1]; ++i) {
        std::vector<cf> u(static_cast<std::size_t>(power.n));
        std::ranges::copy(traces.slice(i).flat(), u.begin());
        transform(u, FFTW_FORWARD);
        for (std::size_t k = 0; k < power.value.size(); ++k)
            power.value[k] += std::norm(std::complex<double>(u[k])) * dt * dt / static_cast<double>(traces.n[1]);
    }
    return power;
}

Power smooth(const Power& power, double length) {
    const double scale = *std::ranges::max_element(power.value);
    if (!(scale > 0)) return power;
    std::vector<cf> u = symmetric(power, [&](double v) { return v / scale; });
    transform(u, FFTW_BACKWARD);
    for (int n = 0; n < power.n; ++n) {
        const double t = std::min(n, power.n - n) * power.dt / length;
        u[static_cast<std::size_t>(n)] *= static_cast<float>(t < 1 ? 0.5 * (1 + std::cos(pi * t)) / power.n : 0.0);
    }
    transform(u, FFTW_FORWARD);
    Power out{power.n, power.dt, {}};
    for (std::size_t k = 0; k < power.value.size(); ++k)
        out.value.push_back(std::max(0.0, static_cast<double>(u[k].real())) * scale);
    return out;
}

Band band_of(const Power& power, double part) {
    const auto top = std::ranges::max_element(power.value);
    const double limit = *top * part * part;
    auto low = top, high = top;
    while (low != power.value.begin() && *(low - 1) >= limit) --low;
    while (high + 1 != power.value.end() && *(high + 1) >= limit) ++high;
    const auto frequency = [&](auto at) { return static_cast<double>(at - power.value.begin()) * power.step(); };
    return {frequency(low), frequency(top), frequency(high)};
}

std::vector<float> minimum_phase(const Power& power) {
    const double top = *std::ranges::max_element(power.value);
    std::vector<cf> u = symmetric(power, [&](double v) { return 0.5 * std::log(std::max(v / top, 1e-6)); });
    transform(u, FFTW_BACKWARD);
    const int n = power.n;
    for (int i = 0; i < n; ++i) {  // what stands at negative times moves to positive ones
        const float weight = i == 0 || i == n / 2 ? 1.0f : i < n / 2 ? 2.0f : 0.0f;
        u[static_cast<std::size_t>(i)] *= weight / static_cast<float>(n);
    }
    transform(u, FFTW_FORWARD);
    for (cf& value : u) value = std::exp(value);
    transform(u, FFTW_BACKWARD);
    std::vector<float> wavelet;
    const double scale = std::sqrt(top) / (n * power.dt);
    for (const cf& value : u) wavelet.push_back(static_cast<float>(value.real() * scale));
    return wavelet;
}

std::vector<float> zero_phase(const Power& power) {
    std::vector<cf> u = symmetric(power, [](double v) { return std::sqrt(v); });
    transform(u, FFTW_BACKWARD);
    std::vector<float> wavelet;
    for (const cf& value : u) wavelet.push_back(static_cast<float>(value.real() / (power.n * power.dt)));
    return wavelet;
}

}  // namespace morvane::prepare
