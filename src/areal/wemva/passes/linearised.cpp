#include <algorithm>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/passes/frequency_loop.h"
#include "src/areal/wemva/passes/linearised.h"
#include "src/areal/wemva/step/ow_scttr_areal.h"

namespace morvane {

namespace {

/// Histories of the image-side fields, all depths and frequencies, for the wavefield outputs that were asked for.
struct Histories {
    Array<cf, 3> zddws, zddwr, ddwsz, ddwrz;  // (nx, nz, nw)
    bool source = false, receiver = false;    // "ddws", "ddwr" exist: only then are the histories filled
    Histories(const Parms& par, qas::Session* session) {
        if (session == nullptr) return;
        const Extents<3> shape{par.kxm.n, par.img.z.n, par.rec.w.n};
        source = session->exist_file("ddws");
        receiver = session->exist_file("ddwr");
        if (source) zddws = Array<cf, 3>(shape);
        if (receiver) zddwr = Array<cf, 3>(shape);
        if (source || session->exist_file("ddwsz")) ddwsz = Array<cf, 3>(shape);
        if (receiver || session->exist_file("ddwrz")) ddwrz = Array<cf, 3>(shape);
    }
    void write(qas::Session& session) {
        const std::pair<const char*, Array<cf, 3>*> outputs[] = {
            {"ddws", &zddws}, {"ddwr", &zddwr}, {"ddwsz", &ddwsz}, {"ddwrz", &ddwrz}};
        for (const auto& [tag, history] : outputs) {
            if (!session.exist_file(tag)) continue;
            session.srite(tag, history->flat().data(), static_cast<std::int64_t>(history->flat().size_bytes()));
        }
    }
};

struct Slot {
    View<cf, 1> ws, wr;      // running background fields; their margins live on from frequency to frequency
    View<cf, 2> bws, bwr;    // (nx, nz) background fields at every depth
    View<cf, 1> dws, dwr;    // running image-side fields
    View<cf, 1> ddws, ddwr;  // scattered fields of the level
    View<cf, 2> series;      // scratch of owscctr
    StepTables tables;       // all depths: the steps serve background and image-side fields
    StepScratch steps;
    ImageScratch imaging;
    View<float, 2> ggg;  // (nx, nz) sum of deltas
    View<float, 3> gg;   // (nx, nsecdim, nz) sum of deltai
    Slot(const Parms& par, const Medium& medium, bool adj, Arena& arena)
        : ws(arena.take<cf>(par.kxm.n)),
          wr(arena.take<cf>(par.kxm.n)),
          bws(arena.take<cf>(par.kxm.n, par.img.z.n)),
          bwr(arena.take<cf>(par.kxm.n, par.img.z.n)),
          dws(arena.take<cf>(par.kxm.n)),
          dwr(arena.take<cf>(par.kxm.n)),
          ddws(arena.take<cf>(par.kxm.n)),
          ddwr(arena.take<cf>(par.kxm.n)),
          series(arena.take<cf>(par.kxm.n, 3)),
          tables(par, medium, par.img.z.n, arena),
          steps(par.kxm.n),
          imaging(par.kxm.n),
          ggg(arena.take<float>(par.kxm.n, adj ? par.img.z.n : 0)),
          gg(arena.take<float>(par.kxm.n, par.nsecdim, adj ? 0 : par.img.z.n)) {}
    void clear() {
        clear_samples(ws);
        clear_samples(wr);
        clear_samples(ggg);
        clear_samples(gg);
    }
};

/// sum += Re(a conj(b))
void correlate(View<const cf, 1> a, View<const cf, 1> b, View<float, 1> sum) {
    const float* const x = parts(a.p);
    const float* const y = parts(b.p);
    for (std::ptrdiff_t i = 0; i < a.n[0]; ++i) sum.p[i] += x[2 * i] * y[2 * i] + x[2 * i + 1] * y[2 * i + 1];
}

/// field += a deltas
void scatter(View<const cf, 1> a, View<const float, 1> deltas, View<cf, 1> field) {
    const float* const x = parts(a.p);
    float* const y = parts(field.p);
    for (std::ptrdiff_t i = 0; i < a.n[0]; ++i) {
        y[2 * i] += x[2 * i] * deltas.p[i];
        y[2 * i + 1] += x[2 * i + 1] * deltas.p[i];
    }
}

/// Everything one frequency needs; `slot` is the thread's own.
struct Frequency {
    const WaveContext& context;
    const ImageCondition& condition;
    View<const float, 2> vel;
    int iw;
    bool steps, scatters;
    Slot& slot;

    Frequency(const WaveContext& c, const ImageCondition& i, View<const float, 2> v, int iw_, Slot& s)
        : context(c),
          condition(i),
          vel(v),
          iw(iw_),
          steps(steps_at(c.par, iw_)),
          scatters(c.par.rec.w.all[static_cast<std::size_t>(iw_)] != 0.0f),
          slot(s) {}

    /// Carry both fields down and keep them at every depth.
    void background(View<const cf, 2> recv, View<const cf, 2> source) const {
        const Parms& par = context.par;
        load_surface(par, source, iw, context.clear_margins, slot.ws);
        load_surface(par, recv, iw, context.clear_margins, slot.wr);
        if (steps) slot.tables.prepare(iw, 0, par.img.z.n);
        clear_samples(slot.bws);
        clear_samples(slot.bwr);
        copy(slot.ws, slot.bws.slice(0));
        copy(slot.wr, slot.bwr.slice(0));
        const DepthRange depths(par);
        for (int iz = depths.first; iz < depths.end; ++iz) {
            if (steps) apply_step_pair(slot.tables.step(iz - 1), context.fft, +1, slot.ws, slot.wr, slot.steps);
            apply_taper(context.taper, slot.ws);
            apply_taper(context.taper, slot.wr);
            copy(slot.ws, slot.bws.slice(iz));
            copy(slot.wr, slot.bwr.slice(iz));
        }
    }

    /// The field that a unit slowness perturbation at level iz scatters off the background.
    void scattered(int sign, View<const cf, 1> background, int iz, View<cf, 1> out) const {
        std::fill_n(out.p, out.n[0], cf{});
        if (scatters) {
            owscctr(context.par, context.fft, scattering_series, iw, sign, out, background, vel.slice(iz), slot.series);
        }
    }

    void adjoint(View<const float, 3> deltai, Histories& histories) const {
        const Parms& par = context.par;
        clear_samples(slot.dws);
        clear_samples(slot.dwr);
        for (int iz = par.img.z.n - 1; iz >= std::max(par.nzmin, 1) - 1; --iz) {
            const View<cf, 1> bws = slot.bws.slice(iz), bwr = slot.bwr.slice(iz);
            const View<const float, 2> image = deltai.slice(iz);
            const View<const float, 2> next = iz > 0 ? deltai.slice(iz - 1) : View<const float, 2>{};
            owimage_adjoint(condition, iw, Spread::source, bwr, image, slot.dws, slot.imaging, next);
            owimage_adjoint(condition, iw, Spread::receiver, bws, image, slot.dwr, slot.imaging, next);
            apply_taper(context.taper, slot.dws);
            apply_taper(context.taper, slot.dwr);
            if (steps) apply_step_pair(slot.tables.step(iz), context.fft, -1, slot.dws, slot.dwr, slot.steps);
            scattered(+1, bws, iz, slot.ddws);
            correlate(slot.dws, slot.ddws, slot.ggg.slice(iz));
            scattered(-1, bwr, iz, slot.ddwr);
            correlate(slot.dwr, slot.ddwr, slot.ggg.slice(iz));
            if (histories.source) {
                copy(slot.dws, histories.zddws.view().slice(iw).slice(iz));
                copy(slot.ddws, histories.ddwsz.view().slice(iw).slice(iz));
            }
            if (histories.receiver) {
                copy(slot.dwr, histories.zddwr.view().slice(iw).slice(iz));
                copy(slot.ddwr, histories.ddwrz.view().slice(iw).slice(iz));
            }
        }
    }

    void forward(View<const float, 2> deltas) const {
        const Parms& par = context.par;
        clear_samples(slot.dws);
        clear_samples(slot.dwr);
        for (int iz = std::max(par.nzmin, 1) - 1; iz < std::min(par.nzmax, par.img.z.n); ++iz) {
            const View<cf, 1> bws = slot.bws.slice(iz), bwr = slot.bwr.slice(iz);
            const View<float, 2> image = slot.gg.slice(iz);
            scattered(+1, bws, iz, slot.ddws);
            scatter(slot.ddws, deltas.slice(iz), slot.dws);
            scattered(-1, bwr, iz, slot.ddwr);
            scatter(slot.ddwr, deltas.slice(iz), slot.dwr);
            if (steps) apply_step_pair(slot.tables.step(iz), context.fft, +1, slot.dws, slot.dwr, slot.steps);
            apply_taper(context.taper, slot.dws);
            apply_taper(context.taper, slot.dwr);
            owimage_forward(condition, iw, slot.dws, bwr, image, slot.imaging);
            owimage_forward(condition, iw, bws, slot.dwr, image, slot.imaging);
        }
    }
};

/// `work` runs on each frequency after its background fields are kept, `sum` on the slots and the range of levels that
/// have a part in them.
template <class Work, class Sum>
void over_backgrounds(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                      View<const float, 2> vel, bool adj, Work work, Sum sum) {
    const Parms& par = context.par;
    const ImageCondition condition(par);
    const auto each = [&](Slot& slot, int iw, int inode) {
        const Frequency frequency(context, condition, vel, iw, slot);
        frequency.background(recv, source);
        work(frequency, inode);
    };
    over_frequencies<Slot>(context, vel, adj, each, [&](const std::vector<Slot>& slots) {
        sum(slots, std::max(par.nzmin, 1) - 1, std::min(par.nzmax, par.img.z.n));
    });
}

}  // namespace

void owwemva(const WaveContext& context, bool adj, View<const cf, 2> recv, View<const cf, 2> source,
             View<const float, 2> vel, View<float, 2> deltas, View<float, 3> deltai, qas::Session* session) {
    Histories histories(context.par, adj ? session : nullptr);
    const auto work = [&](const Frequency& frequency, int /*inode*/) {
        if (adj) {
            frequency.adjoint(deltai, histories);
        } else {
            frequency.forward(deltas);
        }
    };
    over_backgrounds(context, recv, source, vel, adj, work, [&](const std::vector<Slot>& slots, int first, int end) {
        if (adj) {
            reduce(slots, deltas, first, end, [](const Slot& slot) { return slot.ggg; });
        } else {
            reduce(slots, deltai, first, end, [](const Slot& slot) { return slot.gg; });
        }
    });
    if (adj && session != nullptr) histories.write(*session);
}

void back_project(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                  View<const float, 2> vel, View<float, 2> deltas, const ResidualOf& residual_of) {
    Histories none(context.par, nullptr);
    const auto work = [&](const Frequency& frequency, int inode) {
        frequency.adjoint(residual_of(frequency.iw, inode, frequency.slot.bws, frequency.slot.bwr), none);
    };
    over_backgrounds(context, recv, source, vel, true, work, [&](const std::vector<Slot>& slots, int first, int end) {
        reduce(slots, deltas, first, end, [](const Slot& slot) { return slot.ggg; });
    });
}

}  // namespace morvane
