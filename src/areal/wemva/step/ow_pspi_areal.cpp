#include "src/areal/wemva/step/ow_pspi_areal.h"

#include "src/areal/wemva/step/depth_step.h"

namespace morvane {

void owpspi(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel,
            View<const float, 2> vref1) {
    const Medium medium = prepare_pspi_medium(par, {vel.p, {vel.n[0], 1}}, {vref1.p, {vref1.n[0], vref1.n[1], 1}}, {});
    apply_alone(par, medium, fft, iw, sign, ws);
}

}  // namespace morvane
