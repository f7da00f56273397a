#include "src/tools/morvane_prepare/plan.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <numbers>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/session.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr std::int64_t looked_at_traces = 400, looked_at_samples = 8'000'000;
constexpr double band_part = 0.1;  // of the greatest amplitude
constexpr double most_tables = 4e8, most_panel = 2.6e8, most_model = 2e8;

[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...) {
    char buffer[1000];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

/// Traces that were read to learn from: muted and corrected later on.
struct Samples {
    std::vector<SampleTrace> heads;
    Array<float, 2> u;
};

/// Traces spread over the survey, among those within the offsets that are not zero throughout; not every n-th, which
/// might be one channel of each shot.
Samples read_some(Survey& survey, const Scan& scan, const GridOptions& grid, int nt) {
    const std::int64_t most = std::clamp<std::int64_t>(looked_at_samples / nt, 1, looked_at_traces);
    std::int64_t all = 0;
    for (const Run& run : scan.runs) all += run.count;
    std::vector<std::int64_t> chosen;
    const std::int64_t n = std::min(most, all);
    for (std::int64_t i = 0; i < n; ++i) {
        const double place = (static_cast<double>(i) + std::fmod(static_cast<double>(i) * std::numbers::phi, 1.0)) /
                             static_cast<double>(n);
        chosen.push_back(std::min(all - 1, static_cast<std::int64_t>(place * static_cast<double>(all))));
    }
    Samples some{{}, Array<float, 2>({nt, n})};
    std::vector<float> samples(static_cast<std::size_t>(survey.samples()));
    std::int64_t before = 0;
    std::size_t next = 0;
    for (const Run& run : scan.runs) {
        for (; next < chosen.size() && chosen[next] < before + run.count; ++next) {
            const int trace = run.first + static_cast<int>(chosen[next] - before);
            const TraceHeader head = survey.file(run.file).header(trace);
            if (!is_seismic(head.trace_id) || head.offset() < grid.least_offset || head.offset() > grid.most_offset)
                continue;
            survey.file(run.file).samples(trace, samples);
            if (std::ranges::all_of(samples, [](float v) { return v == 0; })) continue;
            std::copy_n(samples.begin(), nt, some.u.view().slice(std::ssize(some.heads)).p);
            some.heads.push_back({head.offset(), head.delay});
        }
        before += run.count;
    }
    if (some.heads.empty())
        qaserr("%s: of %lld traces looked at, none within the offsets holds a sample other than 0\n",
               survey.files()[0].path().c_str(), static_cast<long long>(n));
    return some;
}

View<const float, 2> traces_of(const Samples& some) {
    View<const float, 2> view = some.u.view();
    view.n[1] = std::ssize(some.heads);
    return view;
}

/// Times of the records that are used, and what runs out at their end.
void plan_times(const PrepareOptions& o, Survey& survey, const Scan& scan, Plan& plan) {
    const double dt = survey.dt(), first = scan.least_delay;
    double last = scan.most_delay + (survey.samples() - 1) * dt;
    plan.nt = survey.samples();
    plan.first = first;
    if (o.tmax > 0) {
        if (o.tmax <= std::max(first, o.source_time))
            qaserr("tmax=%g ends before the records begin, at %g (source_time=%g)\n", o.tmax, first, o.source_time);
        if (o.tmax < last) {
            last = o.tmax;
            plan.nt = std::min<int>(plan.nt, static_cast<int>((last - first) / dt + 1e-6) + 1);
        }
    }
    Conditioning& c = plan.conditioning;
    c.source_time = o.source_time;
    c.last = last;
    c.end_taper = o.end_taper >= 0 ? o.end_taper : 0.05 * (last - first);
    c.gain = o.gain;
    c.point_source = o.field;
    plan.because("records", text("%g to %g s", first, last),
                 text("%d samples every %g s%s", plan.nt, dt, o.tmax > 0 ? ", cut by tmax" : ""));
    plan.because("end_taper", digits(c.end_taper), o.end_taper >= 0 ? "given" : "1/20 of the record");
}

void plan_mute(const PrepareOptions& o, const Samples& some, double dt, Plan& plan) {
    Mute& mute = plan.conditioning.mute;
    if (o.mute == "none") {
        plan.because("mute", "none", "as asked for: the data must be without a direct wave");
        return;
    }
    const Band raw = band_of(smooth(mean_power(traces_of(some), dt), 0.2 * dt * plan.nt), band_part);
    const double period = 1 / std::max(raw.peak, 2 / (plan.nt * dt));
    mute.taper = o.mute_taper >= 0 ? o.mute_taper : period;
    if (o.mute == "linear") {
        mute.velocity = o.mute_velocity;
        mute.intercept = o.mute_intercept;
        plan.because("mute", text("before %g + offset / %g", mute.intercept, mute.velocity), "given");
    } else if (o.mute != "auto") {
        mute.table = read_mute_table(o.mute);
        plan.because("mute", text("%zu offsets and times", mute.table.size()), "from the table " + o.mute);
    } else {
        DirectWave direct = fit_direct_wave(some.heads, traces_of(some), dt, plan.surface_velocity, period);
        // what comes later than two periods after the source is no direct wave
        const double late = direct.intercept - o.source_time;
        const bool found = direct.fitted && late > -period && late < 2 * period;
        mute.velocity = found ? direct.velocity : plan.surface_velocity;
        mute.intercept = (found ? late : 0) + 2 * period;
        plan.because("mute", text("before %.4g + offset / %.5g", mute.intercept, mute.velocity),
                     found ? text("first breaks line up within %.2g s at %.4g + offset / %.5g; two periods of the "
                                  "strongest frequency, %.3g, behind them",
                                  direct.misfit, late, direct.velocity, raw.peak)
                           : "no direct wave was found in the first breaks: the velocity at the surface, and two "
                             "periods of the strongest frequency");
    }
    plan.because("mute_taper", digits(mute.taper), o.mute_taper >= 0 ? "given" : "a period of the strongest frequency");
}

void plan_frequencies(const PrepareOptions& o, const Power& power, double dt, Plan& plan) {
    const double length = plan.conditioning.last - plan.first;
    const double permitted = 1 / length;
    double df = o.df;
    if (df == 0) {
        // a whole part of the sampling frequency: the transforms are fast then
        df = 1 / (smooth_length(static_cast<int>(std::lround(length / dt))) * dt);
    }
    if (df > permitted * (1 + 1e-4))
        qaserr(
            "df=%g folds the records: they are %g s long, and times repeat after 1/df = %g s; permitted is a df up to "
            "%.5g, or records cut by tmax=\n",
            df, length, 1 / df, permitted);
    const Band band = band_of(smooth(power, 0.2 * length), band_part);
    const double nyquist = 0.5 / dt;
    const double low = o.fmin > 0 ? o.fmin : std::max(std::round(band.low / df), 2.0) * df;
    const double high = o.fmax > 0 ? o.fmax : std::min(std::round(band.high / df) * df, 0.9 * nyquist);
    if (high > nyquist)
        qaserr("fmax=%g is above the highest frequency that samples every %g s hold, %g\n", high, dt, nyquist);
    if (high < low) qaserr("the band from fmin=%g to fmax=%g is empty\n", low, high);
    const double count = std::floor((high - low) / df + 1e-6) + 1;
    plan.freq = {static_cast<int>(std::min(count, 1e9)), static_cast<float>(df), static_cast<float>(low), {}};
    if (count * plan.nt > most_tables && FourierSum::fast_length(plan.freq, plan.nt, dt) == 0)
        qaserr(
            "%g frequencies of %d samples are too many; permitted is a product of %g: shorten the records by tmax=\n",
            count, plan.nt, most_tables);
    const char* found = "the muted data have a tenth of their greatest amplitude or more from there";
    plan.because("fmin", digits(low), o.fmin > 0 ? "given" : found);
    plan.because("fmax", digits(low + (count - 1) * df), o.fmax > 0 ? "given" : "and up to there");
    plan.because("df", digits(df),
                 text("%s; at most 1 / length of the records = %.5g, else late times fold onto early ones",
                      o.df > 0 ? "given" : "chosen", permitted));
}

void plan_source(qas::Session& session, const PrepareOptions& o, const Power& power, double dt, Plan& plan) {
    const double strongest = plan.strongest =
        std::max(band_of(smooth(power, 0.1 * plan.nt * dt), band_part).peak, static_cast<double>(plan.freq.o));
    const double length = o.source_length > 0 ? o.source_length : 6 / strongest;
    if (o.source == "ricker") {
        plan.wavelet = ricker_spectrum(o.fpeak, plan.freq);
        plan.because("source", text("Ricker wavelet, %g Hz", o.fpeak), "given");
    } else if (o.source == "zero" || o.source == "minimum") {
        plan.wavelet = spectrum_of(estimated(power, length, !o.field, o.source == "minimum"), plan.freq);
        plan.because("source", o.source + " phase, estimated",
                     text("mean autocorrelation of the muted data, cut at %.3g s", length));
    } else {
        const Wavelet wavelet = read_wavelet(session, o.source, o.wavelet_dt > 0 ? o.wavelet_dt : dt);
        plan.wavelet = spectrum_of(wavelet, plan.freq);
        plan.because("source", o.source,
                     text("%zu samples every %g s from %g s", wavelet.samples.size(), wavelet.dt, wavelet.t0));
    }
    plan.because("source_time", digits(o.source_time), "time of the records at which the wavelet's time 0 lies");
    double peak = 0;
    for (const auto& value : plan.wavelet) peak = std::max(peak, std::abs(value));
    if (!(peak > 0))
        qaserr("source=%s has nothing from %g to %g Hz\n", o.source.c_str(), plan.freq.o,
               static_cast<double>(plan.freq.o) + (plan.freq.n - 1) * static_cast<double>(plan.freq.d));
}

/// Depth that a vertical echo reaches and returns from within `time`.
double reach(const Velocity& velocity, double x, double time, double step) {
    double z = 0;
    for (double t = 0; t < time && z < 1e6 * step; z += step) t += 2 * step * velocity.slowness(x, z);
    return z;
}

void plan_depths(const PrepareOptions& o, const Velocity& velocity, double shortest, double middle, Plan& plan) {
    plan.dz = o.dz > 0 ? o.dz : round_down(shortest / 4);
    plan.because("dz", digits(plan.dz),
                 o.dz > 0 ? "given"
                          : text("a quarter of the shortest vertical wavelength, %.4g / %.4g", velocity.least,
                                 velocity.least / shortest));
    if (plan.dz > shortest / 4 * (1 + 1e-6))
        plan.warnings.push_back(
            text("dz=%g is more than a quarter of the shortest wavelength, %.4g", plan.dz, shortest));
    double zmax = o.zmax;
    std::string why = "given";
    if (zmax == 0) {
        zmax = reach(velocity, middle, plan.conditioning.last - o.source_time, plan.dz);
        why = "an echo from there returns at the end of the records";
        if (velocity.bottom > 0 && velocity.bottom < zmax) {
            zmax = velocity.bottom;
            why = "bottom of the velocity model";
        }
    }
    const double levels = std::floor(zmax / plan.dz + 1e-3) + 1;
    if (levels < 2 || levels > 1e7) qaserr("zmax=%g and dz=%g make %g levels\n", zmax, plan.dz, levels);
    plan.z = {static_cast<int>(levels), static_cast<float>(plan.dz), 0.0f, {}};
    plan.because("zmax", digits((levels - 1) * plan.dz), why);
    if (velocity.bottom > 0 && zmax > velocity.bottom + plan.dz)
        plan.warnings.push_back(text("the velocity model ends at the depth %g; its last values are continued to %g",
                                     velocity.bottom, zmax));
}

void plan_grid(const PrepareOptions& o, Survey& survey, const Scan& scan, const Velocity& velocity, double shortest,
               Plan& plan) {
    GridOptions options = o.grid;
    options.most_distance = o.max_distance;
    plan.grid = make_grid(survey, scan, plan.line, options);
    const SurveyGrid& g = plan.grid;
    plan.dx = g.dx;
    plan.geometry = g.geometry(options);
    const int margin = plan.geometry.margin();
    plan.x = plan.geometry.image();
    plan.origin =
        g.origin +
        (static_cast<double>(g.first_trace) + (g.areal ? 0.0 : static_cast<double>(g.node[0])) - margin) * g.dx;
    const double multiple = std::floor(shortest / 4 / g.dx * (1 + 1e-9));
    plan.because(
        "dx", digits(g.dx),
        o.grid.dx > 0
            ? text("given; the group interval is %.6g", g.group_interval)
            : text("the group interval, %.6g%s", g.group_interval,
                   multiple < 2
                       ? ""
                       : text("; a quarter of the shortest wavelength would permit dx=%g", multiple * g.dx).c_str()));
    plan.because(
        "areal", g.areal ? "y" : "n",
        g.why + text("; %zu shots%s, %d traces each", g.node.size(),
                     g.empty_panels > 0 ? text(" (%d of them empty stations)", g.empty_panels).c_str() : "", g.traces));
    plan.because("traces_in_taper", std::to_string(plan.geometry.taper), "margin that absorbs");
    plan.because("padtraces", std::to_string(plan.geometry.pad),
                 o.grid.pad >= 0
                     ? "given"
                     : text("makes transforms of %d samples, a product of 2, 3, 5 and 7", plan.geometry.columns()));
    const double v = plan.surface_velocity, high = velocity.least / shortest;
    if (g.dx > v / (2 * high))
        plan.warnings.push_back(text("dx=%g: at %.4g Hz waves steeper than %.0f degrees are aliased at the surface",
                                     g.dx, high, std::asin(v / (2 * high * g.dx)) * 180 / std::numbers::pi));
    const double step = static_cast<double>(g.shot_step) * g.dx;
    if (!g.areal && g.node.size() > 1 && step > 2 * shortest)
        plan.warnings.push_back(text(
            "shots every %g are more than two of the shortest wavelengths (%.4g) apart: aliased energy enters the gathers",
            step, shortest));
    if (static_cast<double>(g.traces) * plan.freq.n > most_panel)
        qaserr("%d traces of %d frequencies per shot are too many; permitted are %g samples\n", g.traces, plan.freq.n,
               most_panel);
}

void plan_parameters(const PrepareOptions& o, const Velocity& velocity, double shortest, Plan& plan) {
    const double depth = (plan.z.n - 1) * plan.dz, width = (plan.x.n - 1) * plan.dx;
    plan.dh = o.dh > 0 ? o.dh : std::max(1.0, std::floor(shortest / 4 / plan.dx)) * plan.dx;
    plan.nh =
        o.nh > 0 ? o.nh : 2 * static_cast<int>(std::ceil(std::min(o.error / 100 * depth, width / 4) / plan.dh)) + 1;
    plan.because("nh", std::to_string(plan.nh),
                 o.nh > 0 ? "given" : text("offsets to %g %% of the depth, the largest expected error", o.error));
    plan.because("dh", digits(plan.dh), o.dh > 0 ? "given" : "dx, or a multiple within a quarter of a wavelength");
    const double v = 1 / velocity.slowness(plan.origin + 0.5 * width, depth);
    plan.dxk = o.dxk >= 0 ? o.dxk : std::max(round_near(v / plan.strongest), 2 * plan.dx);
    plan.dzk = o.dzk >= 0 ? o.dzk : std::max(plan.dxk, 2 * plan.dz);
    if (plan.dxk == 0 || plan.dzk == 0) {
        plan.because("knots", "none", "as asked for");
        return;
    }
    plan.nxk = static_cast<int>(std::ceil(width / plan.dxk)) + 3;
    plan.nzk = static_cast<int>(std::ceil(depth / plan.dzk)) + 3;
    plan.because("dxk", digits(plan.dxk),
                 o.dxk >= 0
                     ? "given"
                     : text("about the wavelength of the strongest frequency, %.4g Hz, at the bottom", plan.strongest));
    plan.because("dzk", digits(plan.dzk), o.dzk >= 0 ? "given" : "as dxk");
}

/// Columns that reflections pass: midpoints of the first shot's middle trace to the last shot's.
void plan_range(Plan& plan) {
    const SurveyGrid& g = plan.grid;
    double offset = 0;
    if (!g.areal) offset = (static_cast<double>(g.first_trace) + 0.5 * (g.traces - 1)) * g.dx;
    plan.fun_least = g.least_shot + std::min(0.5 * offset, 0.0);
    plan.fun_most = g.most_shot + std::max(0.5 * offset, 0.0);
    plan.because("fun_xmin", digits(plan.fun_least),
                 "where reflections come from: from the first shot, or half the middle offset before it");
    plan.because("fun_xmax", digits(plan.fun_most), "to the last shot, or half the middle offset behind it");
}

/// Root mean square of the samples' transforms, and the factors that bring data and source to 1.
void plan_scale(const PrepareOptions& o, const Samples& some, double dt, Plan& plan) {
    if (o.scale != "rms") {
        plan.because("scale", o.scale, "given");
        return;
    }
    const FourierSum sum(plan.freq, plan.nt, dt);
    const View<const float, 2> u = traces_of(some);
    Array<cf, 2> spectra({plan.freq.n, u.n[1]});
    sum.of(u, spectra);
    const std::vector<std::complex<double>> factor = data_factor(plan, o);
    double data = 0, source = 0;
    for (std::ptrdiff_t i = 0; i < u.n[1]; ++i)
        for (int k = 0; k < plan.freq.n; ++k)
            data += std::norm(std::complex<double>(spectra(k, i)) * factor[static_cast<std::size_t>(k)]);
    for (int k = 0; k < plan.freq.n; ++k) {
        const double f = plan.freq.o + k * static_cast<double>(plan.freq.d);
        source += std::norm(plan.wavelet[static_cast<std::size_t>(k)] * plan.factor[static_cast<std::size_t>(k)] *
                            plan.surface_velocity / (4 * std::numbers::pi * f * plan.dx));
    }
    data = std::sqrt(data / (static_cast<double>(u.n[1]) * plan.freq.n));
    source = std::sqrt(source / plan.freq.n);
    if (!(data > 0) || !(source > 0))
        qaserr("nothing is left of the data between mute and end of the records from %g to %g Hz (rms %g, source %g)\n",
               digits(plan.freq.o).empty() ? 0.0 : static_cast<double>(plan.freq.o),
               static_cast<double>(plan.freq.o) + (plan.freq.n - 1) * static_cast<double>(plan.freq.d), data, source);
    plan.data_scale = 1 / data;
    plan.source_scale = 1 / source;
    plan.because(
        "scale", "rms",
        text("data times %.5g (from %td traces), source times %.5g", plan.data_scale, u.n[1], plan.source_scale));
}

}  // namespace

void Plan::because(const std::string& name, const std::string& value, const std::string& why) {
    reasons.push_back({name, value, why});
}

std::string digits(double value) {
    return text("%.7g", value);
}

double round_down(double value) {
    const double unit = std::pow(10.0, std::floor(std::log10(value)));
    double best = unit;
    for (const double digit : {1.25, 1.5, 2.0, 2.5, 3.0, 4.0, 5.0, 6.0, 8.0, 10.0})
        if (digit * unit <= value * (1 + 1e-9)) best = digit * unit;
    return best;
}

double round_near(double value) {
    const double below = round_down(value), above = round_down(1.34 * value);
    return above - value < value - below ? above : below;
}

std::vector<double> factors(const PrepareOptions& o, const Axis& freq,
                            const std::vector<std::complex<double>>& wavelet) {
    Acquisition a;
    a.freq = freq;
    a.whiten = static_cast<float>(o.whiten);
    const double band = (freq.n - 1) * static_cast<double>(freq.d);
    a.band_taper = static_cast<float>(o.band_taper >= 0 ? o.band_taper : 0.1 * band);
    if (2 * a.band_taper > band * (1 + 1e-6))
        qaserr("band_taper=%g leaves nothing of the band; permitted is half of it, %g\n",
               static_cast<double>(a.band_taper), 0.5 * band);
    double peak = 0;
    for (const auto& value : wavelet) peak = std::max(peak, std::abs(value));
    if (o.scale == "none") a.amplitude = static_cast<float>(peak);
    return band_factor(a, wavelet);
}

std::vector<std::complex<double>> data_factor(const Plan& plan, const PrepareOptions& o) {
    std::vector<std::complex<double>> all;
    for (int k = 0; k < plan.freq.n; ++k) {
        const double f = plan.freq.o + k * static_cast<double>(plan.freq.d);
        std::complex<double> factor = plan.factor[static_cast<std::size_t>(k)] * plan.data_scale;
        if (o.field) factor *= std::polar(1 / std::sqrt(f), std::numbers::pi / 4);
        all.push_back(factor);
    }
    return all;
}

Plan make_plan(qas::Session& session, const PrepareOptions& o, Survey& survey, const Scan& scan,
               const Velocity& velocity, const Line& line) {
    Plan plan;
    plan.line = line;
    const double dt = survey.dt();
    double middle = 0;
    for (const Point& shot : scan.shots) {
        const double x = line.position(shot);
        plan.surface_velocity += 1 / velocity.slowness(x, 0) / static_cast<double>(scan.shots.size());
        middle += x / static_cast<double>(scan.shots.size());
    }
    plan_times(o, survey, scan, plan);
    Samples some = read_some(survey, scan, o.grid, plan.nt);
    plan_mute(o, some, dt, plan);
    for (std::ptrdiff_t i = 0; i < std::ssize(some.heads); ++i) {
        const SampleTrace& head = some.heads[static_cast<std::size_t>(i)];
        plan.conditioning.apply(some.u.view().slice(i).flat(), head.t0, dt, head.offset);
    }
    const Power power = mean_power(traces_of(some), dt);
    if (!(*std::ranges::max_element(power.value) > 0))
        qaserr("the mute leaves nothing of the %zu traces looked at; mute=none leaves it out\n", some.heads.size());
    plan_frequencies(o, power, dt, plan);
    plan_source(session, o, power, dt, plan);
    plan.factor = factors(o, plan.freq, plan.wavelet);
    const double high = plan.freq.o + (plan.freq.n - 1) * static_cast<double>(plan.freq.d);
    const double shortest = velocity.least / high;
    plan_depths(o, velocity, shortest, middle, plan);
    plan_grid(o, survey, scan, velocity, shortest, plan);
    if (static_cast<double>(plan.x.n) * plan.z.n > most_model)
        qaserr("a model of %d columns and %d levels is too large; permitted are %g samples\n", plan.x.n, plan.z.n,
               most_model);
    plan_parameters(o, velocity, shortest, plan);
    plan_range(plan);
    plan_scale(o, some, dt, plan);
    for (const auto& [what, least, most] :
         {std::tuple("groups are at elevations", scan.least_elevation, scan.most_elevation),
          std::tuple("sources are at depths", scan.least_depth, scan.most_depth)})
        if (most - least > shortest / 4 || (what[0] == 's' && most > shortest / 4))
            plan.warnings.push_back(
                text("%s from %g to %g, more than a quarter of the shortest wavelength (%.4g): they "
                     "are taken as at depth 0; redatum the data first",
                     what, least, most, shortest));
    return plan;
}

}  // namespace morvane::prepare
