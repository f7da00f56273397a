#include "src/tools/morvane_synth/survey.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <numeric>

#include "lib/base/index.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

constexpr double pi = std::numbers::pi;

/// A value as it comes back from a header, which holds six digits.
float printed(float value) {
    char text[40];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(value));
    return std::strtof(text, nullptr);
}

bool on_grid(double position, double step) {
    return std::abs(position / step - std::round(position / step)) < 1e-4;
}

/// 1 at u <= 0, 0 at u >= 1, half a cosine in between.
float fade(double u) {
    if (u <= 0) return 1.0f;
    if (u >= 1) return 0.0f;
    return static_cast<float>(0.5 * (1.0 + std::cos(pi * u)));
}

/// Offset up to which a reflection arriving `t` after the shot stays below the angle. The path of a flat reflector at
/// depth z under that angle is 2 z / cos(angle) long.
class AngleOffset {
    std::vector<double> time_;
    double offset_step_;

public:
    AngleOffset(double angle, const std::vector<float>& column, double dz) : offset_step_(2 * dz * std::tan(angle)) {
        double vertical = 0.0;
        for (std::size_t iz = 0; iz < column.size(); ++iz) {
            time_.push_back(2.0 * vertical / std::cos(angle));
            vertical += column[iz] * dz;
        }
        time_.push_back(2.0 * vertical / std::cos(angle));
    }
    double operator()(double t) const {
        if (t <= 0) return 0.0;
        const auto above = std::ranges::upper_bound(time_, t);
        const auto i = std::clamp<std::ptrdiff_t>(above - time_.begin() - 1, 0, std::ssize(time_) - 2);
        return offset_step_ * (static_cast<double>(i) + (t - time_[at(i)]) / (time_[at(i + 1)] - time_[at(i)]));
    }
};

/// Columns first .. first + n - 1 of a model, its edge columns continued where they lie outside.
Array<float, 2> window(View<const float, 2> model, int first, int n) {
    Array<float, 2> cut({n, model.n[1]});
    for (std::ptrdiff_t iz = 0; iz < model.n[1]; ++iz)
        for (int i = 0; i < n; ++i) cut(i, iz) = model(std::clamp<std::ptrdiff_t>(first + i, 0, model.n[0] - 1), iz);
    return cut;
}

bool same_in_every_column(View<const float, 2> model) {
    for (std::ptrdiff_t iz = 0; iz < model.n[1]; ++iz) {
        const std::span<const float> row = model.slice(iz).flat();
        if (std::ranges::any_of(row, [&](float v) { return v != row[0]; })) return false;
    }
    return true;
}

std::complex<double> rotation(const Acquisition& acquisition) {
    return std::polar(1.0, acquisition.rotate * pi / 180.0);
}

double frequency(const Acquisition& acquisition, int k) {
    return acquisition.freq.o + k * static_cast<double>(acquisition.freq.d);
}

/// Frequencies of the survey, then those from which the traces in time are made: every 1/period, up to five times the
/// wavelet's peak, where nothing of it is left, or to the last one that the time steps carry.
std::vector<float> all_frequencies(const Acquisition& acquisition, float dt) {
    std::vector<float> freqs;
    for (int k = 0; k < acquisition.freq.n; ++k) freqs.push_back(static_cast<float>(frequency(acquisition, k)));
    if (acquisition.trace_dt == 0.0f) return freqs;
    const Axis times = trace_times(acquisition);
    const double last = std::min({5.0 * acquisition.fpeak, 0.31 / dt, 0.5 / times.d});
    for (int k = 0; k * (1.0 / (times.n * static_cast<double>(times.d))) < last; ++k)
        freqs.push_back(static_cast<float>(k / (times.n * static_cast<double>(times.d))));
    return freqs;
}

/// x(t) = (X_0 + 2 Re sum_k X_k exp(-i w_k t)) / period: times t of the axis, w_k = 2 pi k / period. The spectrum is
/// that of the continuous equation (StepTransform), and so the samples are free of the dispersion of the time steps.
void inverse_transform(const std::vector<cf>& spectrum, std::span<float> samples, double period) {
    const std::ptrdiff_t n = std::ssize(samples);
    std::vector<std::complex<double>> turn;
    for (std::ptrdiff_t i = 0; i < n; ++i) turn.push_back(std::polar(1.0, -2.0 * pi * i / n));
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        double sum = 0.5 * spectrum[0].real();
        for (std::ptrdiff_t k = 1; k < std::ssize(spectrum); ++k)
            sum += (std::complex<double>(spectrum[at(k)]) * turn[static_cast<std::size_t>(i * k % n)]).real();
        samples[static_cast<std::size_t>(i)] = static_cast<float>(2.0 * sum / period);
    }
}

/// Moves what lies behind the survey's frequencies in the records into traces in time.
void make_traces(const Acquisition& acquisition, const std::vector<std::complex<double>>& wavelet, SurveyData& data) {
    const Axis times = trace_times(acquisition);
    const double period = times.n * static_cast<double>(times.d);
    const std::ptrdiff_t nf = acquisition.freq.n, all = data.rec.n()[1], nrec = data.rec.n()[0], ns = data.rec.n()[2];
    data.traces = Array<float, 3>({times.n, nrec, ns});
    data.wavelet.resize(static_cast<std::size_t>(times.n));
    inverse_transform({wavelet.begin() + nf, wavelet.end()}, data.wavelet, period);
    Array<cf, 3> rec({nrec, nf, ns});
#pragma omp parallel for schedule(dynamic)
    for (std::ptrdiff_t is = 0; is < ns; ++is) {
        for (std::ptrdiff_t f = 0; f < nf; ++f)
            std::ranges::copy(data.rec.view().slice(is).slice(f).flat(), rec.view().slice(is).slice(f).flat().begin());
        std::vector<cf> spectrum(static_cast<std::size_t>(all - nf));
        for (std::ptrdiff_t i = 0; i < nrec; ++i) {
            for (std::ptrdiff_t f = nf; f < all; ++f) spectrum[static_cast<std::size_t>(f - nf)] = data.rec(i, f, is);
            inverse_transform(spectrum, data.traces.view().slice(is).slice(i).flat(), period);
        }
    }
    data.rec = std::move(rec);
}

}  // namespace

Axis Geometry::image() const {
    Axis axis;
    axis.d = trace.d;
    if (areal) {
        axis.n = columns();
        axis.o = trace.o - static_cast<float>(margin()) * trace.d;
    } else {
        axis.n = columns() + static_cast<int>(std::lround((shot.n - 1) * static_cast<double>(shot.d) / trace.d));
        axis.o = shot.o - static_cast<float>(margin()) * trace.d + trace.o;
    }
    return axis;
}

int good_padding(int traces, int taper, int least) {
    for (int pad = least;; ++pad) {
        int n = traces + 2 * (taper + pad);
        for (int prime : {2, 3, 5, 7})
            while (n % prime == 0) n /= prime;
        if (n == 1) return pad;
    }
}

void check_geometry(const Geometry& g) {
    const float dx = g.trace.d;
    for (float value : {g.shot.o, g.shot.d, g.trace.o, dx, g.image().o})
        if (printed(value) != value)
            qas::qaserr(
                "the position or step %.9g does not survive the six digits of a header; choose a rounder value\n",
                static_cast<double>(value));
    if (!on_grid(g.shot.d, dx) || (g.areal && !on_grid(g.shot.o - g.trace.o, dx)))
        qas::qaserr(
            "the shots (oshot=%g, dshot=%g) do not fall on columns of the model; permitted are multiples of dx=%g\n",
            static_cast<double>(g.shot.o), static_cast<double>(g.shot.d), static_cast<double>(dx));
    if (!g.areal) {
        // morvane puts the source on the trace number |floor(o / d)| + 1
        const double place = g.trace.o + std::abs(std::floor(g.trace.o / dx)) * static_cast<double>(dx);
        if (!on_grid(g.trace.o, dx) || std::abs(place) > 1e-3 * dx || g.trace.o + (g.trace.n - 1) * dx < 0)
            qas::qaserr(
                "the spread from %g to %g has no trace at the shot; orec must be a multiple of dx=%g, not above 0, and "
                "nrec large enough to reach 0\n",
                static_cast<double>(g.trace.o), static_cast<double>(g.trace.o + (g.trace.n - 1) * dx),
                static_cast<double>(dx));
        const int counted = static_cast<int>((g.trace.n + 2 * g.margin()) + (g.shot.n - 1) * g.shot.d / dx);
        if (counted != g.image().n)
            qas::qaserr(
                "morvane would count %d image columns where the survey has %d: (nshot-1)*dshot/dx is not a whole "
                "number in single precision; choose rounder steps\n",
                counted, g.image().n);
    }
}

Axis trace_times(const Acquisition& acquisition) {
    const double last = acquisition.tmax + 2.0 / acquisition.fpeak;
    return {static_cast<int>(std::ceil(last / acquisition.trace_dt)), acquisition.trace_dt, 0.0f, {}};
}

std::vector<float> ricker(float fpeak, float delay, float dt, int nt) {
    std::vector<float> samples(static_cast<std::size_t>(nt));
    for (int n = 0; n < nt; ++n) {
        const double a = pi * fpeak * (n * static_cast<double>(dt) - delay);
        samples[static_cast<std::size_t>(n)] = static_cast<float>((1.0 - 2.0 * a * a) * std::exp(-a * a));
    }
    return samples;
}

std::vector<double> band_factor(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum) {
    double peak = 0.0;
    for (const auto& s : spectrum) peak = std::max(peak, std::abs(s));
    const double width = acquisition.band_taper;
    const int n = acquisition.freq.n;
    std::vector<double> factor;
    for (int k = 0; k < n; ++k) {
        double f = acquisition.amplitude / peak;
        if (acquisition.whiten > 0)
            f = acquisition.amplitude /
                std::max(std::abs(spectrum[static_cast<std::size_t>(k)]), acquisition.whiten * peak);
        // the sample next to an end is the first inside the taper: no frequency of the band is lost
        const double from_end = (std::min(k, n - 1 - k) + 1) * static_cast<double>(acquisition.freq.d);
        if (from_end < width) f *= std::sin(0.5 * pi * from_end / width);
        factor.push_back(f);
    }
    return factor;
}

Array<float, 2> trace_gate(const Acquisition& acquisition, const std::vector<float>& offsets,
                           const std::vector<float>& column, float dz, float dt, int nt) {
    const double period = 1.0 / acquisition.fpeak, v = 1.0 / column[0];
    const double angle = acquisition.angle * pi / 180.0;
    const AngleOffset limit(angle, column, dz);
    Array<float, 2> gate({std::ssize(offsets), nt});
    for (int n = 0; n < nt; ++n) {
        const double t = n * static_cast<double>(dt);
        const float end = fade(1.0 - (acquisition.tmax - t) / (2 * period));
        const double reach = acquisition.angle > 0 ? limit(t - acquisition.delay) : 0.0;
        for (std::ptrdiff_t i = 0; i < std::ssize(offsets); ++i) {
            const double x = std::abs(offsets[static_cast<std::size_t>(i)]);
            float weight = end;
            if (acquisition.angle > 0)
                weight *= acquisition.angle_taper > 0 ? fade((x - reach) / acquisition.angle_taper) : x <= reach;
            if (acquisition.direct == Direct::mute)
                weight *= fade(1.0 - (t - acquisition.delay - x / v - period) / (0.5 * period));
            gate(i, n) = weight;
        }
    }
    return gate;
}

std::vector<cf> source_function(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum,
                                const std::vector<double>& factor, float v, float dx) {
    std::vector<cf> source;
    for (int k = 0; k < acquisition.freq.n; ++k) {
        const std::complex<double> down(0.0, v / (4.0 * pi * frequency(acquisition, k) * dx));
        source.push_back(cf(spectrum[static_cast<std::size_t>(k)] * factor[static_cast<std::size_t>(k)] * down *
                            rotation(acquisition)));
    }
    return source;
}

Array<cf, 2> source_field(const Acquisition& acquisition, const std::vector<std::complex<double>>& spectrum,
                          const std::vector<double>& factor, float v, float dx, int n) {
    const int period = 4 * n;  // samples after which the field repeats, far beyond the line
    Array<cf, 2> field({n, acquisition.freq.n});
    for (int f = 0; f < acquisition.freq.n; ++f) {
        const double k = 2.0 * pi * frequency(acquisition, f) / v, dk = 2.0 * pi / (period * static_cast<double>(dx));
        const std::complex<double> scale = spectrum[static_cast<std::size_t>(f)] * factor[static_cast<std::size_t>(f)] *
                                           rotation(acquisition) / (period * static_cast<double>(dx));
        std::vector<double> sum(static_cast<std::size_t>(n));
        for (int m = 0; m < period / 2 && m * dk < k; ++m) {
            const double sine = m * dk / k;
            const double weight =
                (m == 0 ? 1.0 : 2.0) * fade((sine - 0.75) / 0.25) / (2.0 * k * std::sqrt(1.0 - sine * sine));
            for (int i = 0; i < n; ++i) sum[static_cast<std::size_t>(i)] += weight * std::cos(m * dk * i * dx);
        }
        for (int i = 0; i < n; ++i)
            field(i, f) = cf(scale * std::complex<double>(0.0, sum[static_cast<std::size_t>(i)]));
    }
    return field;
}

namespace {

/// Columns: of the first trace and of the source in the model.
struct Shot {
    int first, source;
};

/// The source fields of a whole line, or the one source function.
Array<cf, 3> source_data(const Geometry& geometry, const Acquisition& acquisition, const SurveyModels& models,
                         const std::vector<Shot>& shots, const std::vector<std::complex<double>>& spectrum,
                         const std::vector<double>& factor) {
    const int ns = geometry.shot.n, nf = acquisition.freq.n, nrec = geometry.trace.n;
    const auto surface_velocity = [&](const Shot& shot) {
        return models.full(std::clamp<std::ptrdiff_t>(shot.source, 0, models.full.n()[0] - 1), std::ptrdiff_t{0});
    };
    Array<cf, 3> sou;
    if (geometry.areal) {
        sou = Array<cf, 3>({nrec, nf, ns});
        for (int is = 0; is < ns; ++is) {
            const Shot& shot = shots[static_cast<std::size_t>(is)];
            const Array<cf, 2> field =
                source_field(acquisition, spectrum, factor, surface_velocity(shot), geometry.trace.d, nrec);
            for (int f = 0; f < nf; ++f)
                for (int i = 0; i < nrec; ++i) sou(i, f, is) = field(std::abs(shot.first + i - shot.source), f);
        }
    } else {
        double v = 0.0;
        for (const Shot& shot : shots) v += surface_velocity(shot) / static_cast<double>(ns);
        const std::vector<cf> source =
            source_function(acquisition, spectrum, factor, static_cast<float>(v), geometry.trace.d);
        sou = Array<cf, 3>({1, nf, 1});
        std::ranges::copy(source, sou.flat().begin());
    }
    return sou;
}

}  // namespace

SurveyData model_survey(const Geometry& geometry, const Acquisition& acquisition, const FdGrid& grid,
                        const SurveyModels& models, float margin) {
    const int ns = geometry.shot.n, nf = acquisition.freq.n, nrec = geometry.trace.n;
    const double dx = geometry.trace.d;
    const int nt = std::max(1, static_cast<int>(std::ceil(acquisition.tmax / grid.dt)));
    const int side = static_cast<int>(std::lround(margin / dx)), width = nrec + 2 * side;
    const std::vector<float> freqs = all_frequencies(acquisition, grid.dt);
    const StepTransform transform(freqs, nt, grid.dt);
    const int all = transform.nf();
    const std::vector<float> wavelet = ricker(acquisition.fpeak, acquisition.delay, grid.dt, nt);
    const std::vector<std::complex<double>> spectrum = transform.of(wavelet);
    const std::vector<double> factor =
        band_factor(acquisition, {spectrum.begin(), spectrum.begin() + acquisition.freq.n});

    std::vector<Shot> shots;
    for (int is = 0; is < ns; ++is) {
        const double position = geometry.shot.o + is * static_cast<double>(geometry.shot.d);
        const double start = geometry.areal ? geometry.trace.o : position + geometry.trace.o;
        shots.push_back({static_cast<int>(std::lround((start - models.x.o) / dx)),
                         static_cast<int>(std::lround((position - models.x.o) / dx))});
    }
    const bool subtract = models.reference.view().size() > 0;
    const bool one_reference = subtract && !geometry.areal && same_in_every_column(models.reference.view());
    const int nref = !subtract ? 0 : one_reference ? 1 : ns;

    SurveyData data;
    data.rec = Array<cf, 3>({nrec, all, ns});
    Array<cf, 3> reference({nrec, all, nref});
#pragma omp parallel for schedule(dynamic)
    for (int job = 0; job < ns + nref; ++job) {
        const int is = job < ns ? job : job - ns;
        const Shot& shot = shots[static_cast<std::size_t>(is)];
        const View<const float, 2> whole = job < ns ? models.full.view() : models.reference.view();
        const Array<float, 2> cut = window(whole, shot.first - side, width);
        std::vector<float> offsets, column;
        for (int i = 0; i < nrec; ++i) offsets.push_back(static_cast<float>((shot.first + i - shot.source) * dx));
        const std::ptrdiff_t under = std::clamp<std::ptrdiff_t>(shot.source, 0, models.start.n()[0] - 1);
        for (std::ptrdiff_t iz = 0; iz < models.start.n()[1]; ++iz) column.push_back(models.start(under, iz));
        const Array<float, 2> gate = trace_gate(acquisition, offsets, column, models.dz, grid.dt, nt);
        model_shot(grid, cut.view(), shot.source - shot.first + side, side, wavelet, gate.view(), transform,
                   job < ns ? data.rec.view().slice(is) : reference.view().slice(is));
    }
    for (int is = 0; is < ns; ++is)
        for (int f = 0; f < all; ++f)
            for (int i = 0; i < nrec; ++i) {
                cf& sample = data.rec(i, f, is);
                if (subtract) sample -= reference(i, f, one_reference ? 0 : is);
                if (f < nf) sample *= static_cast<float>(factor[static_cast<std::size_t>(f)]);
            }
    if (all > nf) make_traces(acquisition, spectrum, data);

    data.sou = source_data(geometry, acquisition, models, shots, spectrum, factor);
    return data;
}

}  // namespace morvane
