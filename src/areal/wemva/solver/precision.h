#pragma once
/// The precision of the arithmetic.

namespace morvane::solver {

/// Relative spacing of double-precision numbers, found by probing the arithmetic: 2^-52.
double dpmeps();

}  // namespace morvane::solver
