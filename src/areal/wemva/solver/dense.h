#pragma once
/// Vector kernels and the two dense triangular kernels of the limited-memory matrices.
#include <cstddef>

namespace morvane::solver {

/// Sum of x(i) y(i). Eight partial sums, so that it vectorises and does not depend on the vector width of the machine.
double ddot(std::ptrdiff_t n, const double* x, const double* y);
/// y += a x.
void daxpy(std::ptrdiff_t n, double a, const double* x, double* y);
/// x *= a.
void dscal(std::ptrdiff_t n, double a, double* x);

/// Factor a symmetric positive definite matrix, A = R'R, in the upper triangle of `a` (leading dimension `lda`, order
/// n).
/// @return info: 0, or the order (from 1) of the leading minor that is not positive; `a` is then partly overwritten.
int dpofa(double* a, int lda, int n);

/// Solve with a triangular matrix `t` (leading dimension `ldt`, order n); b is overwritten with the solution.
/// @param job  00 lower T x = b, 01 upper T x = b, 10 lower T'x = b, 11 upper T'x = b (decimal digits)
/// @return info: 0, or the index (from 1) of the first zero on the diagonal; b is then unchanged.
int dtrsl(const double* t, int ldt, int n, double* b, int job);

}  // namespace morvane::solver
