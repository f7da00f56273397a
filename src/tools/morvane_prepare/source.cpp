#include "src/tools/morvane_prepare/source.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <numbers>
#include <sstream>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/segy_file.h"
#include "src/tools/morvane_prepare/text_table.h"
#include "src/tools/qas/npy.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr std::int64_t longest = 10'000'000;

bool ends_with(const std::string& name, const char* end) {
    std::string lower(name);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.ends_with(end);
}

Wavelet from_npy(const std::string& path, double dt) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) qaserr("source=%s cannot be opened: %s\n", path.c_str(), std::strerror(errno));
    const qastool::NpyHeader head = qastool::read_npy_header(file.get(), path);
    if (head.type != 'f' || head.swapped || head.elements > longest || head.shape.size() != 1)
        qaserr("source=%s must be a real array of one axis in this machine's byte order\n", path.c_str());
    Wavelet wavelet{{}, 0, dt};
    for (std::int64_t i = 0; i < head.elements; ++i) {
        float single = 0;
        double value = 0;
        const bool whole =
            head.size == 8 ? std::fread(&value, 8, 1, file.get()) == 1 : std::fread(&single, 4, 1, file.get()) == 1;
        if (!whole) qaserr("source=%s is shorter than its shape says\n", path.c_str());
        wavelet.samples.push_back(head.size == 8 ? static_cast<float>(value) : single);
    }
    return wavelet;
}

Wavelet from_text(const std::string& path, double dt) {
    std::vector<double> times;
    Wavelet wavelet{{}, 0, dt};
    for_each_row(path, [&](int number, const std::string& line, std::istringstream& words) {
        double a = 0, b = 0;
        if (!(words >> a))
            qaserr("source=%s, line %d: \"%.60s\" is not an amplitude, or a time and an amplitude\n", path.c_str(),
                   number, line.c_str());
        const bool two = static_cast<bool>(words >> b);
        if (two != !times.empty() && !wavelet.samples.empty())
            qaserr("source=%s, line %d: the lines differ in their count of numbers\n", path.c_str(), number);
        if (two) times.push_back(a);
        wavelet.samples.push_back(static_cast<float>(two ? b : a));
    });
    if (times.size() > 1) {
        wavelet.t0 = times[0];
        wavelet.dt = (times.back() - times[0]) / static_cast<double>(times.size() - 1);
        for (std::size_t i = 0; i < times.size(); ++i)
            if (!(std::abs(times[i] - wavelet.t0 - static_cast<double>(i) * wavelet.dt) < 0.01 * wavelet.dt))
                qaserr("source=%s: its times are not evenly spaced, %g is off %g + k * %g\n", path.c_str(), times[i],
                       wavelet.t0, wavelet.dt);
    }
    return wavelet;
}

bool is_numbers(const std::string& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t at = line.find_first_not_of(" \t\r");
        if (at == line.npos || line[at] == '#') continue;
        return std::string("0123456789+-.").find(line[at]) != line.npos;
    }
    return false;
}

Wavelet from_dataset(qas::Session& session, const std::string& path) {
    const Axis t = session.from_aux_axis("source", 1);
    if (t.n > longest) qaserr("source=%s: n1=%d is no length of a wavelet\n", path.c_str(), t.n);
    Wavelet wavelet{std::vector<float>(static_cast<std::size_t>(t.n)), static_cast<double>(t.o),
                    static_cast<double>(t.d)};
    const auto bytes = static_cast<std::int64_t>(wavelet.samples.size() * sizeof(float));
    session.check_data_size("source", bytes, "n1");
    if (session.sreed("source", wavelet.samples.data(), bytes) != bytes)
        qaserr("source=%s holds fewer than n1 samples\n", path.c_str());
    return wavelet;
}

}  // namespace

Wavelet read_wavelet(qas::Session& session, const std::string& path, double dt) {
    if (!std::ifstream(path))
        qaserr("source=%s cannot be read; permitted are zero, minimum, ricker and the name of a file\n", path.c_str());
    Wavelet wavelet;
    if (ends_with(path, ".sgy") || ends_with(path, ".segy")) {
        SegyFile file(path, {});
        wavelet.samples.resize(static_cast<std::size_t>(file.info().samples));
        file.samples(0, wavelet.samples);
        wavelet.t0 = file.header(0).delay;
        wavelet.dt = file.info().dt;
    } else if (ends_with(path, ".npy")) {
        wavelet = from_npy(path, dt);
    } else if (is_numbers(path)) {
        wavelet = from_text(path, dt);
    } else {
        wavelet = from_dataset(session, path);
    }
    for (const float v : wavelet.samples)
        if (!std::isfinite(v)) qaserr("source=%s holds a sample that is not finite\n", path.c_str());
    if (std::ranges::all_of(wavelet.samples, [](float v) { return v == 0; }) || !(wavelet.dt > 0))
        qaserr("source=%s holds no wavelet: %zu samples every %g s, all zero or none\n", path.c_str(),
               wavelet.samples.size(), wavelet.dt);
    return wavelet;
}

std::vector<std::complex<double>> spectrum_of(const Wavelet& wavelet, const Axis& freqs) {
    const double last = freqs.o + (freqs.n - 1) * static_cast<double>(freqs.d);
    if (last * wavelet.dt > 0.5)
        qaserr(
            "a wavelet with a sample every %g s holds frequencies up to %g, not to fmax=%g; wavelet_dt= names the interval\n",
            wavelet.dt, 0.5 / wavelet.dt, last);
    std::vector<std::complex<double>> spectrum;
    for (int k = 0; k < freqs.n; ++k) {
        const double w = 2 * std::numbers::pi * (freqs.o + k * static_cast<double>(freqs.d));
        std::complex<double> sum;
        for (std::size_t n = 0; n < wavelet.samples.size(); ++n)
            sum += static_cast<double>(wavelet.samples[n]) *
                   std::polar(wavelet.dt, w * (wavelet.t0 + static_cast<double>(n) * wavelet.dt));
        spectrum.push_back(sum);
    }
    return spectrum;
}

std::vector<std::complex<double>> ricker_spectrum(double fpeak, const Axis& freqs) {
    std::vector<std::complex<double>> spectrum;
    for (int k = 0; k < freqs.n; ++k) {
        const double f = freqs.o + k * static_cast<double>(freqs.d), r = f / fpeak;
        spectrum.push_back(2 / (std::sqrt(std::numbers::pi) * fpeak) * r * r * std::exp(-r * r));
    }
    return spectrum;
}

Wavelet estimated(const Power& data, double length, bool line_source, bool minimum) {
    Power power = data;
    if (line_source)
        for (std::size_t k = 0; k < power.value.size(); ++k) power.value[k] *= static_cast<double>(k) * power.step();
    power = smooth(power, length);
    if (minimum) {
        Wavelet wavelet{minimum_phase(power), 0, power.dt};
        wavelet.samples.resize(wavelet.samples.size() / 2);
        return wavelet;
    }
    const std::vector<float> round = zero_phase(power);
    const int half = power.n / 2;
    Wavelet wavelet{{}, -half * power.dt, power.dt};
    wavelet.samples.assign(round.begin() + half, round.end());
    wavelet.samples.insert(wavelet.samples.end(), round.begin(), round.begin() + half);
    return wavelet;
}

}  // namespace morvane::prepare
