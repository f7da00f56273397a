#include "src/tools/morvane_check/records.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace morvane {
namespace {

constexpr double two_pi = 2.0 * std::numbers::pi;

double energy(View<const cf, 1> field) {
    double sum = 0.0;
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) sum += static_cast<double>(std::norm(field(i)));
    return sum;
}

/// Sums of energy and counts of samples by zone of time.
struct Zones {
    double energy[4] = {}, count[4] = {};  // all, early, direct, tail
    void add(int zone, double sample) {
        energy[zone] += sample * sample;
        count[zone] += 1;
    }
    double density(int zone) const {
        if (count[zone] == 0 || energy[0] == 0) return 0.0;
        return energy[zone] / count[zone] / (energy[0] / count[0]);
    }
};

/// The band in which data and source have amplitude.
void find_band(const Parms& par, Records& r) {
    std::vector<double> both(r.data.size());
    for (std::size_t k = 0; k < both.size(); ++k) both[k] = r.data[k] * r.source[k];
    const auto largest = std::ranges::max_element(both);
    const auto frequency = [&](std::ptrdiff_t k) {
        return (par.rec.w.o + static_cast<float>(k) * par.rec.w.d) / two_pi;
    };
    r.peak = frequency(largest - both.begin());
    std::ptrdiff_t first = largest - both.begin(), last = first;
    for (std::ptrdiff_t k = 0; k < std::ssize(both); ++k)
        if (both[static_cast<std::size_t>(k)] >= 0.1 * *largest) {
            first = std::min(first, k);
            last = std::max(last, k);
        }
    r.lowest = frequency(first);
    r.highest = frequency(last);
}

/// The samples in time of U conj(S) / |S| at times i dt.
void correlate(const Parms& par, View<const cf, 2> recv, std::ptrdiff_t trace, const std::vector<cf>& wavelet,
               double dt, std::vector<double>& samples) {
    std::ranges::fill(samples, 0.0);
    for (int iw = 0; iw < par.rec.w.n; ++iw) {
        const std::complex<double> u(recv(trace, iw) * std::conj(wavelet[static_cast<std::size_t>(iw)]));
        const double w = static_cast<double>(par.rec.w.o) + iw * static_cast<double>(par.rec.w.d);
        const std::complex<double> turn = std::polar(1.0, -w * dt);
        std::complex<double> phase(1.0, 0.0);
        for (double& sample : samples) {
            sample += (u * phase).real();
            phase *= turn;
        }
    }
}

void sort_samples(const std::vector<double>& samples, double dt, double offset, double fastest, double surface,
                  double period, Zones& zones) {
    const double length = dt * static_cast<double>(samples.size());
    const double first = offset * fastest - 1.5 * period, direct = offset * surface;
    const bool clear = direct > 3.0 * period && direct < 6.0 * period;  // of the source, and of reflections
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i) * dt;
        zones.add(0, samples[i]);
        if (t > 0.5 * period && t < first) zones.add(1, samples[i]);
        if (clear && std::abs(t - direct) < 0.5 * period) zones.add(2, samples[i]);
        if (t > 0.95 * length - period && t < length - period) zones.add(3, samples[i]);
    }
}

}  // namespace

std::ptrdiff_t source_trace(View<const cf, 2> source) {
    std::vector<double> at(static_cast<std::size_t>(source.n[0]));
    for (std::ptrdiff_t iw = 0; iw < source.n[1]; ++iw)
        for (std::ptrdiff_t i = 0; i < source.n[0]; ++i)
            at[static_cast<std::size_t>(i)] += static_cast<double>(std::norm(source(i, iw)));
    return std::ranges::max_element(at) - at.begin();
}

Records look_at_records(const Inversion& run, Shots& shots, View<const float, 2> model, const std::vector<int>& used) {
    const Parms& par = run.par;
    Records r;
    r.data.resize(static_cast<std::size_t>(par.rec.w.n));
    r.source = r.data;
    r.length = two_pi / static_cast<double>(par.rec.w.d);
    const double fastest = static_cast<double>(std::ranges::min(model.flat()));
    shots.rewind(run);
    for (int ishot = 1; ishot <= par.rec.xd.n; ++ishot) {  // first pass: spectra
        shots.load(run, model, ishot);
        double all = 0.0;
        for (int iw = 0; iw < par.rec.w.n; ++iw) {
            const double here = energy(shots.recv.view().slice(iw));
            all += here;
            r.data[static_cast<std::size_t>(iw)] += here;
            r.source[static_cast<std::size_t>(iw)] += energy(shots.source.view().slice(iw));
        }
        r.shot_rms.push_back(std::sqrt(all / static_cast<double>(shots.recv.flat().size())));
    }
    for (auto* spectrum : {&r.data, &r.source})
        for (double& value : *spectrum) value = std::sqrt(value);
    find_band(par, r);

    const double dt = 1.0 / (4.0 * std::max(r.highest, r.peak)), period = 1.0 / r.peak;
    std::vector<double> samples(static_cast<std::size_t>(std::max(1.0, r.length / dt)));
    std::vector<cf> wavelet(r.data.size());
    Zones zones;
    shots.rewind(run);
    for (int ishot = 1; ishot <= par.rec.xd.n; ++ishot) {
        shots.load(run, model, ishot);
        if (!std::ranges::binary_search(used, ishot)) continue;
        const std::ptrdiff_t is = source_trace(shots.source);
        for (std::size_t iw = 0; iw < wavelet.size(); ++iw) {
            const cf s = shots.source(is, static_cast<std::ptrdiff_t>(iw));
            wavelet[iw] = s == cf() ? cf() : s / std::abs(s);
        }
        const int margin = (par.kxm.n - par.rec.h.n) / 2;
        const double surface =
            static_cast<double>(shots.vel(std::min<std::ptrdiff_t>(is + margin, shots.vel.n()[0] - 1), 0));
        for (std::ptrdiff_t i = 0; i < par.rec.h.n; ++i) {
            correlate(par, shots.recv, i, wavelet, dt, samples);
            sort_samples(samples, dt, std::abs(static_cast<double>(i - is) * static_cast<double>(par.rec.h.d)), fastest,
                         surface, period, zones);
        }
    }
    r.early = zones.density(1);
    r.direct = zones.density(2);
    r.tail = zones.density(3);
    return r;
}

}  // namespace morvane
