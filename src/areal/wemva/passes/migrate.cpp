#include <algorithm>
#include <vector>

#include "src/areal/wemva/passes/exact.h"
#include "src/areal/wemva/passes/frequency_loop.h"

namespace morvane {

namespace {

/// What one thread owns: its fields, its image and its illumination.
struct Slot {
    View<cf, 1> ws, wr;
    View<float, 3> image;  // (nx, nsecdim, nz)
    View<float, 2> illum;  // (nx, nz), or empty
    StepTables tables;
    StepScratch steps;
    ImageScratch imaging;
    Slot(const Parms& par, const Medium& medium, bool illuminate, Arena& arena)
        : ws(arena.take<cf>(par.kxm.n)),
          wr(arena.take<cf>(par.kxm.n)),
          image(arena.take<float>(par.kxm.n, par.nsecdim, par.nz)),
          illum(illuminate ? arena.take<float>(par.kxm.n, par.img.z.n) : View<float, 2>{}),
          tables(par, medium, StepTables::batch(par), arena),
          steps(par.kxm.n),
          imaging(par.kxm.n) {}
    void clear() {
        clear_samples(ws);
        clear_samples(wr);
        clear_samples(image);
        clear_samples(illum);
    }
};

void add_illumination(View<const cf, 1> ws, View<float, 1> illum) {
    const float* const z = parts(ws.p);
    for (std::ptrdiff_t i = 0; i < ws.n[0]; ++i) illum.p[i] += z[2 * i] * z[2 * i] + z[2 * i + 1] * z[2 * i + 1];
}

void migrate_frequency(const WaveContext& context, const ImageCondition& condition, int iw, Slot& slot) {
    const Parms& par = context.par;
    const DepthRange depths(par);
    const bool steps = steps_at(par, iw);
    const View<cf, 1> ws = slot.ws, wr = slot.wr;
    const int batch = StepTables::batch(par);
    int prepared = depths.first - 1;  // the step that arrives at level iz starts at iz - 1
    for (int iz = depths.first; iz < depths.end; ++iz) {
        if (steps) {
            if (iz - 1 == prepared) {
                const int count = std::min(batch - prepared % batch, depths.end - 1 - prepared);
                slot.tables.prepare(iw, prepared, count);
                prepared += count;
            }
            apply_step_pair(slot.tables.step(iz - 1), context.fft, +1, ws, wr, slot.steps);
        }
        apply_taper(context.taper, ws);
        apply_taper(context.taper, wr);
        if (slot.illum.size() > 0) add_illumination(ws, slot.illum.slice(iz));
        owimage_forward(condition, iw, ws, wr, slot.image.slice(iz - (par.nzmin - 1)), slot.imaging);
    }
}

}  // namespace

void owwei(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source, View<const float, 2> vel,
           View<float, 3> image, View<float, 2> illum) {
    if (context.clear_margins) return migrate_blocks(context, recv, source, vel, image, illum);
    const Parms& par = context.par;
    const ImageCondition condition(par);
    const bool illuminate = illum.size() > 0;
    const auto each = [&](Slot& slot, int iw, int /*inode*/) {
        load_surface(par, source, iw, false, slot.ws);
        load_surface(par, recv, iw, false, slot.wr);
        migrate_frequency(context, condition, iw, slot);
    };
    over_frequencies<Slot>(context, vel, illuminate, each, [&](const std::vector<Slot>& slots) {
        if (illuminate) reduce(slots, illum, 0, par.nz, [](const Slot& slot) { return slot.illum; });
        reduce(slots, image, 0, par.nz, [](const Slot& slot) { return slot.image; });
    });
}

}  // namespace morvane
