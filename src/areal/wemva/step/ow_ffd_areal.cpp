#include "src/areal/wemva/step/ow_ffd_areal.h"

#include "src/areal/wemva/step/depth_step.h"

namespace morvane {

void owffd(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel) {
    if (par.rec.w.all[static_cast<std::size_t>(iw)] == 0.0f) return;
    apply_alone(par, prepare_ffd_medium(par, {vel.p, {vel.n[0], 1}}, {}), fft, iw, sign, ws);
}

}  // namespace morvane
