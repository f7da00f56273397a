#pragma once
/// Least-squares problems by iteration, with operators passed in.
#include <cstddef>
#include <span>
#include <vector>

#include "lib/base/lin_op.h"
#include "lib/class/cgstep_mod.h"

namespace morvane {

/// What solver_reg takes and leaves besides the problem itself; what is empty or null is not used.
struct SolverReg {
    LinOp wop;                                        ///< W: weight of the data residual
    LinOp jop;                                        ///< J: applied to each gradient
    std::span<const float> m0;                        ///< start model
    std::span<const float> rm0;                       ///< start value of the model residual
    std::vector<float>* err = nullptr;                ///< out: squared data residual of each iteration
    std::vector<float>* resd = nullptr;               ///< out: last data residual
    std::vector<float>* resm = nullptr;               ///< out: last model residual
    std::vector<std::vector<float>>* mmov = nullptr;  ///< out: model after each iteration
    std::vector<std::vector<float>>* rmov = nullptr;  ///< out: residual, data part first, after each iteration
    bool verb = false;                                ///< report each iteration on standard error
};

/// min over m of |W (F m - d)|^2 + eps1^2 |A m|^2 by niter steps at most; fewer when the stepper returns 1.
/// @param m    out: model; zero or m0 where no step is made
/// @param d    data
/// @param fop  F, from m to d
/// @param aop  A, from m to naop samples
/// @param naop samples of the model residual; with a jop the size of m
void solver_reg(std::span<float> m, std::span<const float> d, const LinOp& fop, const LinOp& aop,
                const Stepper& stepper, std::size_t naop, int niter, float eps1, const SolverReg& options);

/// min over m of |F m - d|^2.
/// @param m0   start model, or empty
/// @param resd out: last residual; null: not wanted
void solver_tiny(std::span<float> m, std::span<const float> d, const LinOp& fop, const Stepper& stepper, int niter,
                 std::span<const float> m0, std::vector<float>* resd);

}  // namespace morvane
