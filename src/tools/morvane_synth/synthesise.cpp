#include "src/tools/morvane_synth/synthesise.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/survey_files.h"

namespace morvane {

namespace {

Array<float, 2> reciprocal(const Array<float, 2>& values) {
    Array<float, 2> out(values.n());
    std::ranges::transform(values.flat(), out.flat().begin(), [](float v) { return 1.0f / v; });
    return out;
}

/// Velocity of the model whose waves are taken as the direct wave; empty if none is subtracted.
Array<float, 2> reference_model(const SynthOptions& options, const EarthModel& model) {
    switch (options.acquisition.direct) {
        case Direct::smooth:
            return reciprocal(options.from_file ? smoothed(model.full.view(), options.dx, options.dz, options.smooth)
                                                : model.smooth);
        case Direct::start:
            return reciprocal(model.start);
        case Direct::constant: {
            Array<float, 2> constant(model.full.n());
            constant.fill(1.0f / model.full(model.full.n()[0] / 2, std::ptrdiff_t{0}));
            return constant;
        }
        case Direct::mute:
        case Direct::none:
            break;
    }
    return Array<float, 2>();
}

}  // namespace

void synthesise(qas::Session& session) {
    SynthOptions options = read_options(session);
    check_geometry(options.geometry);
    const EarthModel model = survey_model(session, options);
    const Acquisition& acquisition = options.acquisition;

    SurveyModels models{model.x, options.dz, reciprocal(model.full), reference_model(options, model), model.start};
    auto [slowest, fastest] = value_range(models.full.view());
    if (models.reference.view().size() > 0) {
        const auto [low, high] = value_range(models.reference.view());
        slowest = std::min(slowest, low);
        fastest = std::max(fastest, high);
    }
    FdGrid& grid = options.grid;
    grid.dx = options.dx;
    grid.dz = options.dz;
    grid.vmax = fastest;
    grid.fpeak = acquisition.fpeak;
    if (grid.dt == 0.0f) grid.dt = static_cast<float>(0.9 * fd_stable_dt(grid.dx, grid.dz, fastest));
    const double fmax = acquisition.freq.o + (acquisition.freq.n - 1) * static_cast<double>(acquisition.freq.d);
    fd_check(grid, slowest, fastest, fmax);
    if (acquisition.freq.n > 1 && acquisition.tmax * acquisition.freq.d > 1.0f)
        warn("times after 1/df = %g s fold back; tmax=%g is longer", 1.0 / acquisition.freq.d,
             static_cast<double>(acquisition.tmax));

    const Geometry& geometry = options.geometry;
    std::fprintf(
        stderr,
        "morvane_synth: model=%s, %d x %d samples, velocity %.5g to %.5g; %d shots of %d traces, %d frequencies "
        "%g to %g; dt=%.4g, %d steps\n",
        options.model.c_str(), model.x.n, model.z.n, static_cast<double>(slowest), static_cast<double>(fastest),
        geometry.shot.n, geometry.trace.n, acquisition.freq.n, static_cast<double>(acquisition.freq.o), fmax,
        static_cast<double>(grid.dt), static_cast<int>(std::ceil(acquisition.tmax / grid.dt)));
    SurveyFiles files = open_survey(session, options);
    const auto start = std::chrono::steady_clock::now();
    const SurveyData data = model_survey(geometry, acquisition, grid, models, options.margin);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    write_survey(session, files, options, model, data);
    std::fprintf(stderr, "morvane_synth: modelled in %.1f s; now run: morvane par=%s\n", seconds.count(),
                 options.parfile.c_str());
}

}  // namespace morvane
