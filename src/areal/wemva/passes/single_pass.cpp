/// Objective and gradient of one shot in one pass over its frequencies.
#include <span>
#include <vector>

#include "src/areal/wemva/image/ow_image_areal.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/passes/frequency_loop.h"
#include "src/areal/wemva/passes/linearised.h"

namespace morvane {

namespace {

float energy(std::span<const float> samples) {
    float sum = 0.0f;
    for (const float sample : samples) sum += sample * sample;
    return sum;
}

}  // namespace

void owwemva_adj(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source, View<const float, 2> vel,
                 double& f, View<float, 2> deltas, View<float, 3> deltai) {
    const Parms& par = context.par;
    const ImageCondition condition(par);
    const DepthRange depths(par);
    const int top = std::max(par.nzmin, 1) - 1;
    struct Slot {
        Array<float, 3> gg;  // (nx, nsecdim, nz) weighted image of the frequencies so far
        float fun = 0.0f;
        ImageScratch imaging;
    };
    std::vector<Slot> slots;
    for (int inode = 0; inode < context.nodes; ++inode)
        slots.push_back({Array<float, 3>({par.kxm.n, par.nsecdim, par.img.z.n}), 0.0f, ImageScratch(par.kxm.n)});

    back_project(context, recv, source, vel, deltas,
                 [&](int iw, int inode, View<const cf, 2> bws, View<const cf, 2> bwr) -> View<const float, 3> {
                     Slot& slot = slots[static_cast<std::size_t>(inode)];
                     const View<float, 3> gg = slot.gg.view();
                     for (int iz = depths.first; iz < depths.end; ++iz)
                         owimage_forward(condition, iw, bws.slice(iz), bwr.slice(iz), gg.slice(iz - top), slot.imaging);
                     owdso(par, false, gg, {});
                     owdso(par, true, gg, {});
                     slot.fun = energy(gg.flat());
                     return gg;
                 });

    for (const Slot& slot : slots) f += static_cast<double>(slot.fun);
    reduce(slots, deltai, top, std::min(par.nzmax, par.img.z.n), [](const Slot& slot) { return slot.gg.view(); });
}

}  // namespace morvane
