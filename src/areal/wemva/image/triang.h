#pragma once
/// Triangle smoothing of real panels, first index fastest. uu and vv may be the same array.
#include <span>

namespace morvane {

/// Direct weighted sums: triangle of rect2 samples along the first axis, then of rect1 samples along the second.
/// Windows are clipped at the ends without renormalising, so that values fall there. Lengths are meant to be odd: of an
/// even one the outermost tap on the far side is left out; 1 or less does not smooth.
/// @param uu, vv (n1, n2) in, out
void triangle3(int rect1, int rect2, int n1, int n2, std::span<const float> uu, std::span<float> vv);

/// Recursive form, with reflection at the ends: triangle() of rect1 along the first axis, then of rect2 along the
/// second. Prints its four sizes on standard output.
void triangle2(int rect1, int rect2, int n1, int n2, std::span<const float> uu, std::span<float> vv);

/// Two boxes of nr samples on one line, the tails folded back at its ends. nr above n12 + 1 counts as n12 + 1; nr of 1
/// or less copies.
/// @param uu, vv n12 samples, every m1-th element from the first on
void triangle(int nr, int m1, int n12, std::span<const float> uu, std::span<float> vv);

/// Box of nb samples on nx samples of xx, by running sums: yy gets nx + nb - 1 samples, ramps at both ends.
void boxconv(int nb, int nx, std::span<const float> xx, std::span<float> yy);

}  // namespace morvane
