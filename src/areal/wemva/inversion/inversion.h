#pragma once
/// What all evaluations of a run share.
#include <optional>
#include <span>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"
#include "src/areal/wemva/team/team.h"

namespace morvane {

/// How far an evaluation has come: the pass over the shots that it is in, and the next shot of that.
struct Position {
    enum class Pass : int { none, image, gradient };
    Pass pass = Pass::none;
    int shot = 1;
};

/// Is asked before each shot of an evaluation; may end the run by throwing.
class Watch {
public:
    virtual ~Watch() = default;
    virtual void before_shot(const Position& position) = 0;
};

/// Read-only. The views belong to the driver.
struct Inversion {
    const Parms& par;
    qas::Session& session;
    TextLog& listing;                   ///< progress lines
    const LateralFft& fft;              ///< of par.kxm.n samples
    View<const float, 1> taper;         ///< (kxm.n) lateral taper
    View<const float, 2> vel0;          ///< (img.xm.n, img.z.n) start model
    View<const float, 3> vref;          ///< (nref, 2, img.z.n) region table, or empty
    std::span<const float> pick1;       ///< (img.xm.n) horizon depths, or empty: no horizon
    std::optional<base_spln2d> spline;  ///< between knots and image grid, if there are knots
    bool panels = true;                 ///< whether evaluations append to the outputs
    Watch* watch = nullptr;             ///< none: an evaluation is never interrupted
    Team* team = nullptr;               ///< none: this process alone
    View<const float, 2> origin = {};   ///< (img.xm.n, img.z.n) what a change is regularised against; empty: vel0
    View<const float, 2> slowest = {};  ///< (img.xm.n, img.z.n) the greatest slowness a trial can have; empty: vel0
};

}  // namespace morvane
