#pragma once
/// The stored correction pairs and the small matrices made of them: B = theta I - W M W', W = [Y, theta S].
#include <span>

#include "lib/base/array.h"

namespace morvane::solver {

/// The last `col` <= m pairs s = step, y = change of gradient, in a circular store, and their products in age order
/// (oldest first). The blocks lie in the caller's work array.
struct Pairs {
    int n = 0, m = 0;
    View<double, 2> ws, wy;   ///< (n, m) the vectors s and y as columns
    View<double, 2> sy;       ///< (m, m) lower triangle of S'Y; its diagonal is D, its strict lower part L
    View<double, 2> ss;       ///< (m, m) upper triangle of S'S
    View<double, 2> wt;       ///< (m, m) upper triangle: Cholesky factor J' of theta S'S + L D^-1 L'
    double theta = 1;         ///< scale of B
    int col = 0;              ///< pairs stored
    int head = 1, itail = 0;  ///< columns, from 1, of the oldest and the newest pair
    int iupdat = 0;           ///< updates since the last reset

    /// The pair of age k, 0 <= k < col, 0 the oldest.
    const double* s(int k) const { return ws.slice((head - 1 + k) % m).p; }
    const double* y(int k) const { return wy.slice((head - 1 + k) % m).p; }

    /// Forget all pairs: B = I.
    void reset() { col = 0, head = 1, theta = 1, iupdat = 0; }
};

/// Store the pair s = d, y = r in the place of the oldest one when the store is full, and refresh sy, ss and theta.
/// The caller has counted it in `iupdat`.
/// @param d    (n) the step, already scaled by stp
/// @param r    (n) the change of gradient
/// @param rr   y'y
/// @param dr   s'y, > 0
/// @param stp  step length
/// @param dtd  d'd of the direction before it was scaled by stp
void matupd(Pairs& pairs, std::span<const double> d, std::span<const double> r, double rr, double dr, double stp,
            double dtd);

/// Refresh wt, the factor of T = theta S'S + L D^-1 L'. @return info: 0, or -3 when T is not positive definite.
int formt(Pairs& pairs);

/// p = M v for the middle matrix M of B, [-D, L'; L, theta S'S]^-1.
/// @param v, p  (2 col); p is left alone when col = 0
/// @return info: 0, or the index of a zero on the diagonal of wt.
int bmv(const Pairs& pairs, const double* v, double* p);

/// The sets of free and active variables, and how they changed: what `freev` writes. Variables are numbered from 1.
struct FreeSet {
    std::span<int> index;  ///< (n) free variables first, then active ones
    std::span<int> indx2;  ///< (n) first `nenter`: became free; from place `ileave` (counted from 1): became active
    int nfree = 0;         ///< number of free ones
    int nenter = 0, ileave = 0;

    std::span<const int> free() const { return index.first(static_cast<std::size_t>(nfree)); }
    std::span<const int> active() const { return index.subspan(static_cast<std::size_t>(nfree)); }
    std::span<const int> entered() const { return indx2.first(static_cast<std::size_t>(nenter)); }
    std::span<const int> left() const { return indx2.subspan(static_cast<std::size_t>(ileave - 1)); }
};

/// Sum of a(k) b(i) over the listed variables k = variables(i) of n; b is in the order of the list.
double dot_gathered(std::span<const int> variables, int n, const double* a, const double* b);
/// b(i) += factor a(k) for the listed variables k = variables(i) of n.
void add_gathered(std::span<const int> variables, int n, double factor, const double* a, double* b);

/// Bring wn1, the lower triangle of [Y'ZZ'Y, L_a'+R_z'; L_a+R_z, S'AA'S], up to date in blocks of size m. Z selects the
/// free, A the active variables, L_a is the strict lower part of S'AA'Y, R_z the upper part of S'ZZ'Y.
/// Only a new pair costs O(m n); old entries are corrected by sums over the variables that changed sides. It must thus
/// run each time when a pair was stored or the sets changed.
/// @param updatd  a pair was stored since the last call
/// @param wn1     (2m, 2m)
void update_wn1(const Pairs& pairs, const FreeSet& set, bool updatd, View<double, 2> wn1);

/// Form the LEL' factors, E = diag(-I, I), of K = [-D-Y'ZZ'Y/theta, L_a'-R_z'; L_a-R_z, theta S'AA'S], after
/// `update_wn1`.
/// @param wn  (2m, 2m) out: upper triangle, in blocks of size col
/// @return info: 0, or -1, -2 when the first or second Cholesky factorisation fails.
int formk(const Pairs& pairs, const FreeSet& set, bool updatd, View<double, 2> wn, View<double, 2> wn1);

/// r = -Z'(B (z - x) + g), the reduced gradient at the Cauchy point z, in the order of the free variables.
/// @param c       (2 col) W'(z - x) from `cauchy`
/// @param mc      (2 col) work
/// @param cnstnd  some variable is bounded; if none is and pairs are stored, z = x and r = -g
/// @return info: 0, or -8 when the product with M fails.
int cmprlb(const Pairs& pairs, const FreeSet& set, std::span<const double> x, std::span<const double> g,
           std::span<const double> z, const double* c, double* mc, bool cnstnd, std::span<double> r);

}  // namespace morvane::solver
