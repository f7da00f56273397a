#include "src/areal/wemva/inversion/shots.h"

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/memory.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

namespace {

template <class T>
std::int64_t bytes(std::span<T> samples) {
    return static_cast<std::int64_t>(samples.size_bytes());
}

void check_data(const char* tag, int ishot, View<const cf, 2> field) {
    const std::span<const float> samples{parts(field.p), 2 * field.flat().size()};
    if (const std::int64_t bad = count_not_finite(samples); bad > 0)
        refuse("%s: shot %d holds %lld of %zu numbers that are not finite", tag, ishot, static_cast<long long>(bad),
               samples.size());
}

/// A shot's field. Of a stage that leaves frequencies out just those that count; the others are 0.
void read_shot(const Inversion& run, const char* tag, int ishot, View<cf, 2> field) {
    const Parms& par = run.par;
    std::ranges::fill(field.flat(), cf{});
    const std::int64_t first = par.first_frequency(), count = par.end_frequency() - first;
    if (count == field.n[1]) {
        run.session.sreed(tag, field.p, bytes(field.flat()));
    } else {
        const std::int64_t slice = bytes(field.slice(0).flat());
        run.session.sseek(tag, ((ishot - 1) * field.n[1] + first) * slice, 0);
        run.session.sreed(tag, field.slice(first).p, count * slice);
    }
    check_data(tag, ishot, field);
}

/// Reference velocities of the start model in the window that begins at column ish, counted from 1. Those of the
/// finite-difference form stay below every velocity that a trial can have.
ReferenceTable freeze_references(const Inversion& run, View<const float, 2> start, int ish) {
    ReferenceTable table = references_of(prepare_medium(run.par, start, run.vref, {}));
    if (!run.par.ffd()) return table;
    const View<const float, 2> slowest = run.slowest.p ? run.slowest : run.vel0;
    for (std::size_t iz = 0; iz < table.size(); ++iz) {
        const auto window = slowest.slice(static_cast<std::ptrdiff_t>(iz))
                                .flat()
                                .subspan(static_cast<std::size_t>(ish - 1), static_cast<std::size_t>(start.n[0]));
        table[iz][0] = ffd_reference_share(run.par.dipop) / std::ranges::max(window);
    }
    return table;
}

}  // namespace

Shots::Shots(const Parms& par, bool freezes)
    : recv({par.rec.h.n, par.rec.w.n}),
      source({par.areal ? par.sou.h.n : par.rec.h.n, par.sou.w.n}),
      vel({par.kxm.n, par.img.z.n}),
      most_kept_(freezes ? keep_limit(par.keep) / kept_bytes(par) : 0),
      freezes_(freezes) {
    if (!freezes) return;
    start_ = vel;
    references.resize(static_cast<std::size_t>(par.areal ? 1 : par.rec.xd.n));
}

void Shots::rewind(const Inversion& run) {
    const Parms& par = run.par;
    for (const char* tag : {"rec", "sou"})
        if (run.session.sseek(tag, 0, 0) != 0) refuse("%s: its data cannot be read again from their start", tag);
    next_ = 1;
    if (par.areal) return;
    Array<cf, 1> source1({par.sou.w.n});
    run.session.sreed("sou", source1.view().p, bytes(source1.flat()));
    check_data("sou", 1, {source1.view().p, {source1.n()[0], 1}});
    for (int iw = 0; iw < par.sou.w.n; ++iw) source(par.isp - 1, iw) = source1(iw);
}

void Shots::seek(const Inversion& run, int ishot) {
    if (ishot == next_) return;
    run.session.sseek("rec", (ishot - 1) * bytes(recv.flat()), 0);
    if (run.par.areal) run.session.sseek("sou", (ishot - 1) * bytes(source.flat()), 0);
}

void Shots::load(const Inversion& run, View<const float, 2> model, int ishot) {
    const Parms& par = run.par;
    seek(run, ishot);
    next_ = ishot + 1;
    ishot_ = ishot;
    ish_ = 1;
    if (par.areal) {
        read_shot(run, "sou", ishot, source);
        std::ranges::copy(model.flat(), vel.flat().begin());
    } else {
        ish_ = run.panels ? owgrab_vel(par, run.session, model, vel, false, ishot) : window_column(par, ishot);
        if (!run.panels) cut_window(model, vel, ish_);
    }
    read_shot(run, "rec", ishot, recv);
}

KeptFields* Shots::kept() {
    if (!kept_.contains(ishot_) && static_cast<std::int64_t>(kept_.size() + 1) > most_kept_) return nullptr;
    return &kept_[ishot_];
}

WaveContext Shots::context(const Inversion& run, int nodes) {
    WaveContext context{run.par, run.fft, nodes, run.taper, run.vref};
    context.memory = &memory_;
    if (freezes_) {
        ReferenceTable& table = references[run.par.areal ? 0 : static_cast<std::size_t>(ishot_ - 1)];
        cut_window(run.vel0, start_, ish_);
        if (table.empty()) table = freeze_references(run, start_, ish_);
        context.frozen = {&table, start_};
        context.clear_margins = true;
        context.reproducible = run.par.reproducible;
        context.kept = kept();
    }
    return context;
}

std::vector<ShotFields> load_shots(const Inversion& run, std::span<const int> numbers) {
    Parms par = run.par;
    par.quiet = true;
    const Inversion silent{par,      run.session, run.listing, run.fft,    run.taper,
                           run.vel0, run.vref,    run.pick1,   run.spline, false};
    Shots shots(par, false);
    std::vector<ShotFields> loaded;
    shots.rewind(silent);
    for (const int ishot : numbers) {
        shots.load(silent, run.vel0, ishot);
        loaded.push_back({shots.recv, shots.source, shots.vel, shots.first_column()});
    }
    return loaded;
}

std::int64_t count_not_finite(std::span<const float> samples) {
    return std::count_if(samples.begin(), samples.end(), [](float s) { return !std::isfinite(s); });
}

void stack(View<const float, 2> window, View<float, 2> image, int ish) {
    for (std::ptrdiff_t i = 0; i < window.n[1]; ++i) {
        float* const out = image.slice(i).p + ish - 1;
        const float* const in = window.slice(i).p;
        for (std::ptrdiff_t ix = 0; ix < window.n[0]; ++ix) out[ix] += in[ix];
    }
}
void stack(View<const float, 3> window, View<float, 3> image, int ish, int nodes) {
#pragma omp parallel for schedule(static) num_threads(nodes)
    for (std::ptrdiff_t iz = 0; iz < window.n[2]; ++iz) stack(window.slice(iz), image.slice(iz), ish);
}

void cut_window(View<const float, 2> image, View<float, 2> window, int ish) {
    for (std::ptrdiff_t i = 0; i < window.n[1]; ++i)
        std::copy_n(image.slice(i).p + ish - 1, window.n[0], window.slice(i).p);
}
void cut_window(View<const float, 3> image, View<float, 3> window, int ish) {
    for (std::ptrdiff_t iz = 0; iz < window.n[2]; ++iz) cut_window(image.slice(iz), window.slice(iz), ish);
}

}  // namespace morvane
