#pragma once
/// One evaluation of objective and gradient: migrate all shots, weight the stacked image, carry the residual back.
#include <span>

#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/shot_passes.h"

namespace morvane {

/// Objective and gradient at x, in the classic order, one panel appended to "Velout", "bkgimg", "Dimage" and "grad",
/// and to "illum" with light.
/// @param x     (img.xm.n img.z.n) slowness; samples above a horizon go back to the start model, also for the caller
/// @param g     same size, overwritten: minus the sum of the shots' updates, conditioned; in the exact mode the
///              derivative of fun with respect to x
/// @param titer number of the evaluation, also the panel count of the outputs
/// @return fun; the caller checks that it is finite
/// Ends the run when data, image, residual or gradient hold numbers that are not finite, naming the array, the count
/// and the likely cause; the panel concerned has been written by then.
double evaluate(const Inversion& run, EvaluationArrays& arrays, std::span<double> x, std::span<double> g, int iter,
                int titer);

/// As evaluate, the value alone: one pass over the data, no panels, no residual carried back.
double evaluate_fun(const Inversion& run, EvaluationArrays& arrays, std::span<double> x);

}  // namespace morvane
