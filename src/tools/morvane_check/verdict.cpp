#include "src/tools/morvane_check/verdict.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "lib/corelibs/qas/messages/notes.h"

namespace morvane {
namespace {

using qas::strprintf;

Verdict judge_gaps(const Parms& par, const Records& r) {
    const double most = std::ranges::max(r.data);
    int empty = 0, first = -1;
    for (int k = 0; k < std::ssize(r.data); ++k)
        if (r.data[static_cast<std::size_t>(k)] <= 1e-4 * most) {
            if (first < 0) first = k;
            ++empty;
        }
    const double at =
        (static_cast<double>(par.rec.w.o) + first * static_cast<double>(par.rec.w.d)) / (2.0 * 3.14159265358979);
    if (empty == 0)
        return {Level::ok, "frequencies", strprintf("%d, all with data, %g to %g", par.rec.w.n, r.lowest, r.highest)};
    return {Level::look, "frequencies",
            strprintf("%d of %d hold no data, the first %g: leave them out", empty, par.rec.w.n, at)};
}

Verdict judge_spectra(const Records& r) {
    double product = 0.0, data = 0.0, source = 0.0;
    for (std::size_t k = 0; k < r.data.size(); ++k) {
        product += r.data[k] * r.source[k];
        data += r.data[k] * r.data[k];
        source += r.source[k] * r.source[k];
    }
    const double likeness = data > 0.0 && source > 0.0 ? product / std::sqrt(data * source) : 0.0;
    return {judge(likeness, 0.7, 0.3), "spectra",
            strprintf("rec and sou agree by %.2f (at least 0.7 of 1)%s", likeness,
                      likeness < 0.7 ? ": is sou the wavelet of these data, in the same band?" : "")};
}

Verdict judge_shots(const Records& r) {
    std::vector<double> sorted = r.shot_rms;
    std::ranges::sort(sorted);
    const double median = sorted[sorted.size() / 2];
    std::string odd;
    int dead = 0, loud = 0;
    for (std::size_t i = 0; i < r.shot_rms.size(); ++i) {
        const bool is_dead = !(r.shot_rms[i] > 0.01 * median), is_loud = r.shot_rms[i] > 5.0 * median;
        dead += is_dead;
        loud += is_loud;
        if ((is_dead || is_loud) && odd.size() < 60) odd += (odd.empty() ? "" : ", ") + std::to_string(i + 1);
    }
    if (dead + loud == 0)
        return {Level::ok, "shots", strprintf("%zu, amplitudes within 1/100 to 5 of their median", sorted.size())};
    const Level level = dead * 2 > std::ssize(sorted) ? Level::wrong : Level::look;
    return {level, "shots",
            strprintf("%d dead, %d loud (below 1/100, above 5 of the median), shots %s: edit them", dead, loud,
                      odd.c_str())};
}

}  // namespace

const char* level_name(Level level) {
    return level == Level::ok ? "ok" : level == Level::look ? "look" : "wrong";
}

Level judge(double number, double good, double bad) {
    const bool upward = good > bad;
    if (upward ? number >= good : number <= good) return Level::ok;
    return (upward ? number >= bad : number <= bad) ? Level::look : Level::wrong;
}

Verdict judge_units(const Parms& par, const ModelRange& model, const Records& r) {
    const double wave = model.slowest / r.highest;
    const double samples = wave / static_cast<double>(par.v.z.d);
    const bool speed = (model.median >= 300 && model.median <= 26500) || (model.median >= 0.3 && model.median <= 8.7);
    const std::string numbers =
        strprintf("median velocity %.4g, shortest wavelength %.4g, %.3g depth steps", model.median, wave, samples);
    if (!speed)
        return {Level::wrong, "units",
                numbers + strprintf(" (300 to 8000 m/s, 984 to 26200 ft/s, 0.3 to 8 km/s): vel is slowness, time over "
                                    "the length of its axes%s",
                                    model.median > 0 && model.median < 0.1
                                        ? "; these numbers are a velocity or too great by 1000"
                                        : "")};
    if (samples < 0.2 || samples > 500)
        return {Level::wrong, "units",
                numbers + " (0.2 to 500): slowness and axes have different units of length, km against m for example"};
    return {Level::ok, "units", numbers};
}

std::vector<Verdict> judge_sampling(const Parms& par, const ModelRange& model, const Records& r) {
    std::vector<Verdict> out;
    const auto add = [&](Level level, const char* what, const std::string& text, const std::string& cure) {
        out.push_back({level, what, level == Level::ok ? text : text + ": " + cure});
    };
    const double dx = static_cast<double>(par.rec.h.d), dz = static_cast<double>(par.v.z.d);
    const double shortest = model.slowest / r.highest, usual = model.slowest / r.peak;
    const double depth = static_cast<double>(par.img.z.n - 1) * dz;
    double n = shortest / dz;
    add(judge(n, 4.0, 3.0), "dz", strprintf("%.3g steps of %g a shortest wavelength (at least 4)", n, dz),
        strprintf("dz=%.3g or less, or fmax below %.3g", shortest / 4.0, model.slowest / (4.0 * dz)));
    n = shortest / dx;
    add(judge(n, 2.0, 1.0), "dx", strprintf("%.3g traces of %g a shortest wavelength (at least 2)", n, dx),
        strprintf("a trace distance of %.3g or less, or fmax below %.3g", shortest / 2.0, model.slowest / (2.0 * dx)));
    if (par.rec.xd.n > 1 && !par.areal) {
        n = static_cast<double>(par.rec.xd.d) / usual;
        add(judge(n, 1.5, 10.0), "shot distance", strprintf("%.2g wavelengths of the peak frequency (at most 1.5)", n),
            "gathers will hold aliased energy, which fun counts; more shots, or a lower fmax");
    }
    if (!par.timeshift) {
        const double reach = static_cast<double>(par.dsecdim) * (par.nsecdim - 1) / 2.0 / depth;
        add(judge(reach, 0.07, 0.0), "offsets",
            strprintf("subsurface offsets reach %.2g of the depth (at least 0.07)", reach),
            "larger errors of velocity leave the gathers; a larger nh");
        const double step = static_cast<double>(par.dsecdim) / usual;
        add(judge(step, 0.5, 2.0), "dh", strprintf("%.2g wavelengths of the peak frequency (at most 0.5)", step),
            "a smaller dh");
    }
    if (par.spline_grad()) {
        const double x = static_cast<double>(par.axk.d) / usual, z = static_cast<double>(par.azk.d) / usual;
        add(std::max(judge(x, 0.5, 0.0), judge(z, 0.25, 0.0)), "knots",
            strprintf("%.2g and %.2g wavelengths apart (at least 0.5 and 0.25)", x, z),
            "they are finer than what the data resolve; larger dxk and dzk");
    } else {
        add(Level::look, "knots", "none",
            "every sample is a variable, and the model will be rough; nxk, dxk, nzk, dzk make it smooth");
    }
    const int margin = par.tapertr + par.padtraces;
    add(judge(margin, 15, 0), "margins", strprintf("%d traces on each side (at least 15)", margin),
        "traces_in_taper=20");
    return out;
}

std::vector<Verdict> judge_records(const Parms& par, const Records& r) {
    std::vector<Verdict> out;
    out.push_back(
        {judge(r.early, 0.05, 0.2), "first arrivals",
         strprintf("energy before the fastest arrival of the model is %.3g of the mean (at most 0.05)%s", r.early,
                   r.early > 0.05 ? ": folded times (df above 1/length of record), a wrong sign, noise before the "
                                    "first break, or a mute is missing"
                                  : "")});
    out.push_back({judge(r.direct, 1.0, 3.0), "direct wave",
                   strprintf("energy at its time is %.3g of the mean (at most 1)%s", r.direct,
                             r.direct > 1.0 ? ": mute it (morvane_prepare mute=auto)" : "")});
    out.push_back(
        {judge(r.tail, 0.15, 0.5), "end of record",
         strprintf("energy in the last twentieth of %.4g is %.3g of the mean (at most 0.15)%s", r.length, r.tail,
                   r.tail > 0.15
                       ? ": later times fold back; df must be at most 1/length of the record, and its end tapered"
                       : "")});
    out.push_back(judge_gaps(par, r));
    out.push_back(judge_spectra(r));
    out.push_back(judge_shots(r));
    return out;
}

Verdict judge_signs(const std::array<Focus, 4>& signs, bool direct_wave) {
    const SignShares share = shares_of(signs);
    const std::size_t best = best_other(share);
    const std::string text = strprintf("zero-offset share %.3g as they are, %.3g both conjugated, %.3g rec, %.3g sou",
                                       share[0], share[1], share[2], share[3]);
    const double ratio = share[0] > 0.0 ? share[best] / share[0] : 2.0;
    if (ratio < 0.87) return {Level::ok, "signs", text};
    if (ratio > 2.0) return {Level::wrong, "signs", text + ": " + cure_of_sign(best)};
    if (direct_wave) return {Level::look, "signs", text + ": not to be judged while the direct wave is in"};
    if (ratio > 1.15) return {Level::wrong, "signs", text + ": " + cure_of_sign(best)};
    return {Level::look, "signs",
            text + " (others at most 0.87 of the first): the start model is far off, or the data do not focus"};
}

Verdict judge_fit(const std::array<double, 4>& fit, const SignShares& shares) {
    const std::size_t best = best_other(fit);
    const std::string text = strprintf(
        "the image predicts the data with a fit of %.3f, with other signs of %.3f at most", fit[0], fit[best]);
    if (fit[0] < fit[best] && shares[0] < shares[best]) return {Level::wrong, "fit", text + ": " + cure_of_sign(best)};
    if (std::max(fit[0], fit[best]) < 0.4)
        return {Level::look, "fit", text + " (at least 0.4): the image explains little of the data"};
    return {Level::ok, "fit", text};
}

Verdict judge_time_zero(double by_focus, double by_fit, double period) {
    // The estimates of right data spread by a fifth and by a quarter of a period: weights as the inverse squares. The
    // limit is where right data end, and where half a period is still found nearly always.
    constexpr double limit = 0.32;
    const bool both = std::isfinite(by_fit);
    const double t0 = both ? (2.0 * by_focus + by_fit) / 3.0 : by_focus;
    const Level level = judge(std::abs(t0), limit, limit);
    const std::string text =
        strprintf("the records suit the image best %.3g later, %.2f periods (at most 0.32): %.2f by focus, %s by fit",
                  t0 * period, t0, by_focus, both ? strprintf("%.2f", by_fit).c_str() : "undecided");
    return {level, "time zero",
            level == Level::ok ? text
                               : text +
                                     "; check source_time, delays and the phase of the wavelet, or a velocity error "
                                     "that begins at the surface"};
}

}  // namespace morvane
