#pragma once
/// The box of the variables, and the checks and measures that depend on it alone.
#include <cstddef>
#include <span>

#include "src/areal/wemva/solver/text60.h"

namespace morvane::solver {

/// Bounds of the variables. nbd: 0 none, 1 lower, 2 both, 3 upper; l and u are read only where they hold.
struct Bounds {
    std::span<const double> l, u;
    std::span<const int> nbd;

    std::size_t size() const { return nbd.size(); }
    bool has_lower(std::size_t i) const { return nbd[i] == 1 || nbd[i] == 2; }
    bool has_upper(std::size_t i) const { return nbd[i] >= 2; }
    /// The value that variable i reached by a step: rounding must not carry it past the bound that limits the step.
    double stop_at_bound(std::size_t i, double step, double value) const {
        if (step < 0 && has_lower(i) && value < l[i]) return l[i];
        if (step > 0 && has_upper(i) && value > u[i]) return u[i];
        return value;
    }
    void stop_at_bounds(std::span<const double> step, std::span<double> x) const {
        for (std::size_t i = 0; i < x.size(); ++i) x[i] = stop_at_bound(i, step[i], x[i]);
    }
};

/// Values of `iwhere`: how a variable stands at the Cauchy point. Values up to 0 are free, values above 0 are active.
enum Where : int { unmoved = -3, unbounded = -1, between = 0, at_lower = 1, at_upper = 2, fixed = 3 };

/// Check the arguments of a run; a fault sets `task` to an "ERROR" text, the last one found wins.
/// @param info, k  out: -6 invalid nbd or -7 l > u, and the variable (from 1); left alone otherwise
void errclb(int n, int m, double factr, const Bounds& bounds, Text60& task, int& info, int& k);

/// What kind of problem the bounds make.
struct Kind {
    bool prjctd = false;  ///< the start point was outside
    bool cnstnd = false;  ///< some variable is bounded
    bool boxed = false;   ///< all variables have both bounds
};

/// Put the start point into the box, set `iwhere` to its first values and report at levels >= 0.
Kind active(const Bounds& bounds, std::span<double> x, std::span<int> iwhere, int iprint);

/// Largest component of the projected gradient, sbgnrm; not-a-number when a component is.
double projgr(const Bounds& bounds, std::span<const double> x, std::span<const double> g);

}  // namespace morvane::solver
