#pragma once
#include <span>

namespace morvane {

/// First difference, yy(i) += xx(i+1) - xx(i); the last sample has no pair. xx and yy of one size.
int igrad1_lop(bool adj, bool add, std::span<float> xx, std::span<float> yy);

/// The same without clearing: the caller prepares the output, whatever add says.
int igrad1_lop2(bool adj, bool add, std::span<float> xx, std::span<float> yy);

}  // namespace morvane
