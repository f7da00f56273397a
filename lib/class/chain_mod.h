#pragma once
#include "lib/base/lin_op.h"

namespace morvane {

/// The chain d = op1(op2(m)) through the temporary t; adjoint in reverse order.
/// @param t of the size of op2's data and op1's model, overwritten
int chain20(const LinOp& op1, const LinOp& op2, bool adj, bool add, std::span<float> m, std::span<float> d,
            std::span<float> t);

}  // namespace morvane
