#pragma once
/// The minimiser of the quadratic model over the free variables, from the Cauchy point.
#include <span>

#include "src/areal/wemva/solver/bounds.h"
#include "src/areal/wemva/solver/matrices.h"

namespace morvane::solver {

/// Move x from the Cauchy point to the subspace minimiser, or as far towards it as the box allows.
/// @param free   the free variables, numbered from 1
/// @param x      (n) in: the Cauchy point, out: the result
/// @param d      in: the reduced gradient from `cmprlb`, in the order of the free variables; out: the step
/// @param iword  out: 0 the minimiser lay inside the box, 1 a bound was reached
/// @param wv     (2 col) work
/// @param wn     (2m, 2m) the factors from `formk`
/// @return info: 0, or the index of a zero on the diagonal of wn; x and d are then partly changed.
int subsm(const Pairs& pairs, std::span<const int> free, const Bounds& bounds, std::span<double> x, std::span<double> d,
          int& iword, double* wv, View<const double, 2> wn, int iprint);

}  // namespace morvane::solver
