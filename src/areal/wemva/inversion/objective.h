#pragma once
/// What a run minimises, and what becomes of its gradient: one interface for the two modes of a run.
///
/// With the stacked image I, the offset weight W (see owdso) and, if asked for, the prediction P across offset and the
/// reweighting by the envelope:
///   classic: r = W reweighted(P W I), fun = sum r^2, what is carried back is r itself;
///   exact:   I is zero outside the columns that count, and may be replaced by its differences in depth; fun may be
///            divided by the energy of that; what is carried back is the derivative of fun with respect to I. The
///            roughness of the model may be added.
#include <memory>
#include <span>

#include "lib/base/array.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/shots.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Images are (img.xm.n, nsecdim, img.z.n), models (img.xm.n, img.z.n).
class Objective {
public:
    virtual ~Objective() = default;
    /// Whether the steps are to depend smoothly on slowness: references of the start model, cleared margins.
    virtual bool is_smooth() const = 0;
    /// Turns the stacked image into the residual, in place.
    /// @param titer number of the evaluation, also that of its set of prediction filters
    virtual void form_residual(const Inversion& run, View<float, 3> image, int titer) = 0;
    /// `fun` of the residual that was formed last: terms |r|^2, or |r| with l1norm.
    virtual double value(View<const float, 3> residual, int titer) const = 0;
    /// Turns the residual into what is carried back, in place.
    /// @param fun its value
    virtual void differentiate(const Inversion& run, View<float, 3> residual, double fun) = 0;
    /// Carries it back through one shot.
    /// @param window (kxm.n, nsecdim, img.z.n) what is carried back, in the shot's window
    /// @param update (kxm.n, img.z.n) added to
    virtual void back_project(const WaveContext& context, const Shots& shot, View<float, 3> window,
                              View<float, 2> update, qas::Session& session) const = 0;
    /// The gradient from the sum of the shots' updates.
    virtual void gradient(const Inversion& run, View<const float, 2> updates, View<double, 2> g) const = 0;
    /// What the model itself adds to fun; its derivative is added to g, unless that is empty.
    /// @param data what the residual contributes to fun; the first one a run meets is the unit of what is added
    /// @param x    slowness
    virtual double regularise(const Inversion& run, double data, std::span<const double> x, std::span<double> g) = 0;
    /// What it keeps from one pass, or one evaluation, to the next.
    virtual void archive(Archive& archive) = 0;
    /// Conditions the gradient, in place. Returns the seconds spent on spline knots.
    virtual float condition(const Inversion& run, View<double, 2> g) = 0;
};

std::unique_ptr<Objective> classic_objective(const Parms& par);
std::unique_ptr<Objective> exact_objective(const Parms& par);
/// The one that `gradient` asks for.
std::unique_ptr<Objective> make_objective(const Parms& par);

// --- steps that both take
// ---------------------------------------------------------------------------------------------

/// With the once-weighted image y in `image` and its envelope e in `envelope`: y |y| / e^e, in place of the image.
void reweight(View<float, 3> image, View<const float, 3> envelope);

}  // namespace morvane
