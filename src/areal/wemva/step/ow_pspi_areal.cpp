#include "src/areal/wemva/step/ow_pspi_areal.h"

#include "src/areal/wemva/step/depth_step.h"
#include "src/areal/wemva/step/pspi_level.h"

namespace morvane {

void owpspi(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel,
            View<const float, 2> vref1) {
    Medium medium;
    medium.levels.resize(1);
    pspi_level(par, vel.flat(), vref1, medium.levels[0]);
    Arena arena;
    StepTables tables(par, medium, 1, arena);
    tables.prepare(iw, 0, 1);
    StepScratch scratch(par.kxm.n);
    apply_step(tables.step(0), fft, sign, ws, scratch);
}

}  // namespace morvane
