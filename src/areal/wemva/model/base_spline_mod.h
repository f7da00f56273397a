#pragma once
/// Cubic B-splines: operators between the coefficients of a coarse grid of knots and samples on a fine regular grid.
///
/// Forward: data(x) += sum over knots k of spline(x - x_k, d_k) modl(k), a product of one factor per axis; adjoint: the
/// transpose. In the interior the basis sums to 1; towards the ends of the knot axes it sums to less, since there are
/// no knots beyond, and a sample more than two knot intervals outside gets 0. Positions and basis are in single
/// precision, sums in double. Only the knots whose support holds a sample are visited, so that a call costs in
/// proportion to the fine grid.
///
/// The operators have the form int op(adj, add, modl, data) on flat vectors, first index fastest: adj true adds to
/// modl, adj false to data; add false clears the whole output first. Either vector may be longer than its grid; the
/// rest takes no part. Always return 0.
#include <span>

#include "lib/base/axis.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Cubic B-spline of support 4 dx centred on 0, 2/3 at its peak, 1/6 at -dx and dx.
float spline(float x, float dx);

struct base_spln1d {
    Axis axd1;  ///< fine grid
    Axis axk1;  ///< knots
};
struct base_spln2d {
    Axis axd1, ayd1;          ///< fine grid: first, second index of data
    Axis axk1, ayk1;          ///< knots: first, second index of modl
    int node = node_default;  ///< threads; node_default: the runtime's team size
};
struct base_spln3d {
    Axis axd1, ayd1, azd1;
    Axis axk1, ayk1, azk1;
};

/// Keep the axes. A knot interval that is not a positive finite number ends the run.
base_spln1d base_spln1d_init(const Axis& axd1, const Axis& axk1);
base_spln2d base_spln2d_init(const Axis& axd1, const Axis& ayd1, const Axis& axk1, const Axis& ayk1,
                             int node = node_default);
base_spln3d base_spln3d_init(const Axis& axd1, const Axis& ayd1, const Axis& azd1, const Axis& axk1, const Axis& ayk1,
                             const Axis& azk1);

int base_spln1d_oper(const base_spln1d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data);
/// Runs on several threads, each with its own columns of the output: the result does not depend on their number.
int base_spln2d_oper(const base_spln2d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data);
int base_spln3d_oper(const base_spln3d& spln, bool adj, bool add, std::span<double> modl, std::span<double> data);

}  // namespace morvane
