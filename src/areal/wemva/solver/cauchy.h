#pragma once
/// The generalized Cauchy point: the minimiser of the quadratic model along the projected gradient path P(x - t g).
#include <span>

#include "src/areal/wemva/solver/bounds.h"
#include "src/areal/wemva/solver/matrices.h"

namespace morvane::solver {

/// Scratch of `cauchy`, (2 m) each.
struct CauchyScratch {
    double* p;    ///< W'd
    double* c;    ///< out: W'(xcp - x), (2 col), read by `cmprlb`
    double* wbp;  ///< row of W of the variable that meets its bound
    double* v;    ///< product with M
};

/// The vectors of the search, n each.
struct CauchyVectors {
    std::span<const double> x, g;  ///< start point and gradient
    std::span<int> iorder;  ///< work: variables, from 1, in the order of their break points; those without at the end
    std::span<int> iwhere;  ///< in/out: see `Where`
    std::span<double> t;    ///< work: times at which variables meet their bounds
    std::span<double> d;    ///< out: the part of -g still moving at the Cauchy point
    std::span<double> xcp;  ///< out: the Cauchy point
};

/// Find the generalized Cauchy point.
/// @param nint    out: number of segments searched
/// @param sbgnrm  norm of the projected gradient; with 0 the point is x itself
/// @return info: 0, or the error of `bmv`; xcp, iwhere and d are then half done.
int cauchy(const Pairs& pairs, const Bounds& bounds, const CauchyVectors& vectors, CauchyScratch scratch, int& nint,
           int iprint, double sbgnrm, double epsmch);

/// Move the least of the n times to the last place, its variable with it, and leave the others as a heap.
/// @param iheap  0: t is no heap yet
void hpsolb(int n, double* t, int* iorder, int iheap);

/// Sort the variables into free and active ones after `cauchy`, and list those that changed sides since the last call.
/// @param set     in: the sets of the last call; out: the new ones
/// @param updatd  a pair was stored since the last factorisation
/// @return wrk: the matrix of the subspace problem must be factored anew
bool freev(FreeSet& set, std::span<const int> iwhere, bool updatd, bool cnstnd, int iprint, int iter);

}  // namespace morvane::solver
