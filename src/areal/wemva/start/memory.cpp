#include "src/areal/wemva/start/memory.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "lib/base/lanes.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

namespace {

constexpr double real_bytes = 4.0, complex_bytes = 8.0;

/// Fields that a thread keeps at every depth.
double fields_of_thread(const Parms& par) {
    const double window = static_cast<double>(par.kxm.n) * par.img.z.n;
    const double stages = par.ffd() ? ifd_coeffts(par.dipop).nstage : 0;
    if (!par.exact()) return window * (2.0 + std::max(1.0, 4.0 * stages)) * complex_bytes;
    const double blended = par.pspi() && par.nref > 1 ? 2.0 : 0.0;
    return window * (2.0 + blended + 2.0 * stages) * lane_count * complex_bytes;
}

/// Bytes of memory that programs can still get; 0 if the system does not say.
std::int64_t free_memory() {
    std::ifstream in("/proc/meminfo");
    std::string word;
    while (in >> word) {
        if (word != "MemAvailable:") continue;
        std::int64_t kilobytes = 0;
        in >> kilobytes;
        return 1024 * kilobytes;
    }
    return 0;
}

}  // namespace

std::int64_t keep_limit(const std::string& keep) {
    if (keep == "n" || keep == "no") return 0;
    if (keep == "auto") return free_memory() / 2;
    double gigabytes = 0.0;
    const char* const end = keep.data() + keep.size();
    const auto [rest, error] = std::from_chars(keep.data(), end, gigabytes);
    if (error != std::errc() || rest != end || !(gigabytes > 0.0) || !std::isfinite(gigabytes))
        refuse("keep=%s: n, auto or a number of GB above 0 is needed", keep.c_str());
    constexpr double most = 9e18;
    return static_cast<std::int64_t>(std::min(1e9 * gigabytes, most));
}

std::int64_t kept_bytes(const Parms& par) {
    const std::int64_t sample = 2 * sizeof(cf);  // of both sides
    std::int64_t columns = par.rec.w.n;
    if (par.ffd()) {
        const std::int64_t lanes = (columns + lane_count - 1) / lane_count * lane_count;
        columns += ifd_coeffts(par.dipop).nstage * lanes;
    } else if (par.nref > 1) {
        columns *= 2;  // references may be blended
    }
    return sample * columns * par.kxm.n * par.img.z.n;
}

double memory_of_process(const Parms& par, int threads, bool in_team, bool leads) {
    const double levels = static_cast<double>(par.nsecdim) * par.img.z.n;
    const double window = par.kxm.n * levels * real_bytes, image = par.img.xm.n * levels * real_bytes;
    const double shot = 2.0 * par.rec.h.n * par.rec.w.n * complex_bytes;
    const double models = 12.0 * par.img.xm.n * par.img.z.n * real_bytes;
    const double images_of_threads = par.exact() ? window : threads * window;
    const double imaging = window + images_of_threads + (in_team && !leads ? window : image);
    const double kept = leads && par.normalise ? image : 0.0, reweighted = leads && par.l1norm ? 2.0 * image : 0.0;
    const double gradient = window + image + threads * fields_of_thread(par);
    return std::max(imaging, gradient) + kept + reweighted + shot + models;
}

std::string memory_text(double bytes) {
    char text[40];
    if (bytes < 1e9)
        std::snprintf(text, sizeof text, "%.0f MB", bytes / 1e6);
    else
        std::snprintf(text, sizeof text, "%.1f GB", bytes / 1e9);
    return text;
}

}  // namespace morvane
