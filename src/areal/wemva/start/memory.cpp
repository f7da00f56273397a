#include "src/areal/wemva/start/memory.h"

#include <algorithm>
#include <cstdio>

#include "lib/base/lanes.h"
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

}  // namespace

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
