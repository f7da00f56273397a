// The derivative of the image with respect to slowness, by the recursion of the migration itself, and its transpose.
#include <algorithm>
#include <cassert>
#include <vector>

#include "src/areal/wemva/passes/frequency_loop.h"
#include "src/areal/wemva/step/step_derivative.h"

namespace morvane {

namespace {

struct Slot {
    View<cf, 2> ws, wr;                          // (nx, nz) fields at every depth, before the taper
    View<cf, 3> source_record, receiver_record;  // (nx, columns, nz) of the step that starts at the level
    View<cf, 1> ts, tr;                          // fields of one depth after the taper
    View<cf, 1> as, ar;                          // running adjoint fields, or running changes of the fields
    View<cf, 1> predicted;                       // running predicted receiver field
    StepTables tables;
    StepScratch steps;
    ImageScratch imaging;
    View<float, 2> gradient;  // (nx, nz)
    View<float, 3> image;     // (nx, nsecdim, nz)
    Slot(const Parms& par, const Medium& medium, bool transposed, Arena& arena)
        : ws(arena.take<cf>(par.kxm.n, par.img.z.n)),
          wr(arena.take<cf>(par.kxm.n, par.img.z.n)),
          source_record(arena.take<cf>(par.kxm.n, record_columns(par, medium), par.img.z.n)),
          receiver_record(arena.take<cf>(par.kxm.n, record_columns(par, medium), par.img.z.n)),
          ts(arena.take<cf>(par.kxm.n)),
          tr(arena.take<cf>(par.kxm.n)),
          as(arena.take<cf>(par.kxm.n)),
          ar(arena.take<cf>(par.kxm.n)),
          predicted(arena.take<cf>(transposed ? par.kxm.n : 0)),
          tables(par, medium, par.img.z.n, arena),
          steps(par.kxm.n),
          imaging(par.kxm.n),
          gradient(arena.take<float>(par.kxm.n, transposed ? par.img.z.n : 0)),
          image(arena.take<float>(par.kxm.n, par.nsecdim, transposed ? 0 : par.img.z.n)) {}
    void clear() {
        clear_samples(gradient);
        clear_samples(image);
    }
    /// The sides of the step that arrives at a level.
    SteppedField source(View<cf, 1> field, int level) {
        return {+1, field, ws.slice(level), source_record.slice(level - 1)};
    }
    SteppedField receiver(View<cf, 1> field, int level) {
        return {-1, field, wr.slice(level), receiver_record.slice(level - 1)};
    }
};

struct Frequency {
    const WaveContext& context;
    const ImageCondition& condition;
    int iw;
    bool steps;
    DepthRange depths;
    Slot& slot;

    void background(View<const cf, 2> recv, View<const cf, 2> source) const {
        const Parms& par = context.par;
        load_surface(par, source, iw, true, slot.ts);
        load_surface(par, recv, iw, true, slot.tr);
        if (steps) slot.tables.prepare(iw, 0, par.img.z.n);
        for (int iz = depths.first; iz < depths.end; ++iz) {
            if (steps) {
                apply_step_recorded(slot.tables.step(iz - 1), context.fft, slot.source(slot.ts, iz),
                                    slot.receiver(slot.tr, iz), slot.steps);
            } else {
                copy(slot.ts, slot.ws.slice(iz));
                copy(slot.tr, slot.wr.slice(iz));
            }
            taper_fields(iz);
        }
    }

    void taper_fields(int iz) const {
        apply_taper(context.taper, slot.ws.slice(iz), slot.ts);
        apply_taper(context.taper, slot.wr.slice(iz), slot.tr);
    }

    void transposed(View<const float, 3> deltai) const {
        clear_samples(slot.as);
        clear_samples(slot.ar);
        clear_samples(slot.predicted);
        for (int iz = depths.end - 1; iz >= depths.first; --iz) {
            const View<const float, 2> image = deltai.slice(iz), next = deltai.slice(iz - 1);
            owimage_transpose(condition, iw, Spread::source, context.taper, slot.wr.slice(iz), image, slot.as,
                              slot.imaging, next);
            owimage_transpose(condition, iw, Spread::receiver, context.taper, slot.ws.slice(iz), image, slot.ar,
                              slot.imaging, next);
            if (!steps) continue;
            if (context.prediction) predict(iz);
            apply_step_transposed(slot.tables.step(iz - 1), context.fft, slot.source(slot.as, iz),
                                  slot.receiver(slot.ar, iz), slot.gradient.slice(iz - 1), slot.steps);
        }
    }

    /// The receiver side of the transpose for the zero-offset image of level iz and the field from below, one level up.
    void predict(int iz) const {
        const float *const image = context.prediction->image.slice(iz).p, *const taper = context.taper.p;
        const cf* const ws = slot.ws.slice(iz).p;
        for (std::ptrdiff_t i = 0; i < slot.predicted.n[0]; ++i)
            slot.predicted(i) = taper[i] * (slot.predicted(i) + image[i] * taper[i] * ws[i]);
        apply_receiver_step_transposed(slot.tables.step(iz - 1), context.fft, slot.predicted, slot.steps);
    }

    void compare(View<const cf, 2> recv) const {
        const Parms& par = context.par;
        double both = 0.0, predicted = 0.0, recorded = 0.0;
        for (int i = 0; i < par.rec.h.n; ++i) {
            const std::complex<double> r = recv(i, iw), d = slot.predicted(i + par.tapertr + par.padtraces);
            if (r == 0.0) continue;
            both += r.real() * d.real() + r.imag() * d.imag();
            predicted += std::norm(d);
            recorded += std::norm(r);
        }
        const View<double, 1> sums = context.prediction->sums.slice(iw);
        sums(0) += both;
        sums(1) += predicted;
        sums(2) += recorded;
    }

    void derivative(View<const float, 2> deltas) const {
        clear_samples(slot.as);
        clear_samples(slot.ar);
        if (!steps) return;
        for (int iz = depths.first; iz < depths.end; ++iz) {
            apply_step_derivative(slot.tables.step(iz - 1), context.fft, slot.source(slot.as, iz),
                                  slot.receiver(slot.ar, iz), deltas.slice(iz - 1), slot.steps);
            apply_taper(context.taper, slot.as);
            apply_taper(context.taper, slot.ar);
            taper_fields(iz);
            const View<float, 2> image = slot.image.slice(iz);
            owimage_forward(condition, iw, slot.as, slot.tr, image, slot.imaging);
            owimage_forward(condition, iw, slot.ts, slot.ar, image, slot.imaging);
        }
    }
};

/// `work` runs on each frequency after its background fields are kept, `sum` on the slots.
template <class Work, class Sum>
void over_backgrounds(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                      View<const float, 2> vel, bool transposed, Work work, Sum sum) {
    assert(context.frozen.references != nullptr && context.clear_margins);
    const ImageCondition condition(context.par);
    const auto each = [&](Slot& slot, int iw, int /*inode*/) {
        const Frequency frequency{context, condition, iw, steps_at(context.par, iw), DepthRange(context.par), slot};
        frequency.background(recv, source);
        work(frequency);
    };
    over_frequencies<Slot>(context, vel, transposed, each, sum);
}

}  // namespace

void owwei_gradient(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 2> deltas, View<const float, 3> deltai) {
    over_backgrounds(
        context, recv, source, vel, true,
        [&](const Frequency& frequency) {
            frequency.transposed(deltai);
            if (context.prediction && frequency.steps) frequency.compare(recv);
        },
        [&](const std::vector<Slot>& slots) {
            reduce(slots, deltas, 0, deltas.n[1], [](const Slot& slot) { return slot.gradient; });
        });
}

void owwei_derivative(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                      View<const float, 2> vel, View<const float, 2> deltas, View<float, 3> deltai) {
    over_backgrounds(
        context, recv, source, vel, false, [&](const Frequency& frequency) { frequency.derivative(deltas); },
        [&](const std::vector<Slot>& slots) {
            reduce(slots, deltai, 0, deltai.n[2], [](const Slot& slot) { return slot.image; });
        });
}

}  // namespace morvane
