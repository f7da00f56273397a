#pragma once
/// The generalized Cauchy point: the minimiser of the quadratic model along the projected gradient path P(x - t g).
#include <span>

#include "src/areal/wemva/solver/solver_lbfgsb_mod/bounds.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod/matrices.h"

namespace solver {

/// Scratch of `cauchy`, (2 m) each.
struct CauchyScratch {
    double* p;    ///< W'd
    double* c;    ///< out: W'(xcp - x), (2 col), read by `cmprlb`
    double* wbp;  ///< row of W of the variable that meets its bound
    double* v;    ///< product with M
};

/// Find the generalized Cauchy point.
/// @param x, g    (n) start point and gradient
/// @param iorder  (n) work: variables, from 1, in the order of their break points; those without one at the end
/// @param iwhere  (n) in/out: see `Where`
/// @param t       (n) work: times at which variables meet their bounds
/// @param d       (n) out: the part of -g still moving at the Cauchy point
/// @param xcp     (n) out: the Cauchy point
/// @param nint    out: number of segments searched
/// @param sbgnrm  norm of the projected gradient; with 0 the point is x itself
/// @return info: 0, or the error of `bmv`; xcp, iwhere and d are then half done.
int cauchy(const Pairs& pairs, const Bounds& bounds, std::span<const double> x, std::span<const double> g,
           std::span<int> iorder, std::span<int> iwhere, std::span<double> t, std::span<double> d,
           std::span<double> xcp, CauchyScratch scratch, int& nint, int iprint, double sbgnrm, double epsmch);

/// Move the least of the n times to the last place, its variable with it, and leave the others as a heap.
/// @param iheap  0: t is no heap yet
void hpsolb(int n, double* t, int* iorder, int iheap);

/// Sort the variables into free and active ones after `cauchy`, and list those that changed sides since the last call.
/// @param index, indx2, nfree, nenter, ileave  see `FreeSet`; index and nfree are also read
/// @param updatd  a pair was stored since the last factorisation
/// @return wrk: the matrix of the subspace problem must be factored anew
bool freev(std::span<int> index, int& nfree, int& nenter, int& ileave, std::span<int> indx2,
           std::span<const int> iwhere, bool updatd, bool cnstnd, int iprint, int iter);

}  // namespace solver
