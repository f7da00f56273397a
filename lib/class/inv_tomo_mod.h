#pragma once
#include <span>

#include "lib/class/helix/helix.h"

namespace morvane {

/// Diagonal operator: d = mask m; its own transpose. All of one size.
int mask_op(std::span<const float> mask, bool adj, bool add, std::span<float> m, std::span<float> d);

/// The same without clearing: the caller prepares the output, whatever add says.
int mask_op2(std::span<const float> mask, bool adj, bool add, std::span<float> m, std::span<float> d);

/// Smooth along dips by niter conjugate-direction steps, S = polynomial division by `filt`.
///
/// Without a mask: min over m of |S m - slow0|^2 + eps^2 |m|^2.
///
/// With a mask J, the steps reduce |m - slow0|^2 + eps^2 |S m|^2, and a sample whose mask is 0 stays 0. The division
/// runs over what the gradient held (see polydiv_lop), so that the steps go along J S' (m - slow0 + eps^2 S m) rather
/// than along the gradient J (m - slow0 + eps^2 S'S m), and settle above the minimum.
///
/// Steps beyond convergence gain nothing: rounding moves the result away again.
/// @param slow  out: the m found; not S m
/// @param slow0 data, of one size with slow and mask
/// @param mask  or empty
/// @param verb  report each iteration on standard error
/// Ends the run with "cgstep: grad vanishes identically" if slow0, or its part that the mask leaves, is zero.
void inv_tomo(const Filter& filt, std::span<const float> mask, float eps, int niter, std::span<float> slow,
              std::span<const float> slow0, bool verb);

}  // namespace morvane
