#pragma once
/// What the solver varies: the slowness of every sample, or spline coefficients of a change of the start model.
#include <optional>
#include <span>
#include <vector>

#include "src/areal/wemva/model/base_spline_mod.h"

namespace morvane {

/// Bounds of the solver's variables; type 0 none, 2 both.
struct VariableBounds {
    std::vector<double> l, u;
    std::vector<int> nbd;
    explicit VariableBounds(std::size_t n) : l(n), u(n), nbd(n) {}
};

/// The map from the solver's variables v to slowness x: x = v, or x = start + B v with B >= 0 and rows that sum to one
/// at most.
class Variables {
public:
    /// @param start (nmax) the start model
    /// @param knots the spline whose coefficients vary; empty: every sample varies
    Variables(std::span<const double> start, std::optional<base_spln2d> knots);
    std::size_t count() const;
    /// Values that give the start model.
    std::vector<double> first() const;
    /// x of v; v is not changed.
    void model(std::span<double> v, std::span<double> x) const;
    /// What a change of x behind the solver's back (the horizon edit) means for v: the same, or nothing with knots.
    void accept_edit(std::span<const double> x, std::span<double> v) const;
    /// Derivative with respect to v of a function with derivative g with respect to x: g, or B' g.
    void gradient(std::span<double> g, std::span<double> gv) const;
    /// Bounds of v that keep x within `samples` (bounds of x, all of one type): with knots each coefficient gets the
    /// least room of the samples it reaches, which is enough since the rows of B are not negative and sum to one at
    /// most.
    VariableBounds bounds(const VariableBounds& samples) const;
    /// The greatest slowness of each sample that v within these bounds can give, and the start model at least, to which
    /// samples above a horizon return.
    std::vector<double> slowest(const VariableBounds& bounds) const;
    /// The largest relative change of a sample when every v moves by -gv: max (B |gv|) / x.
    double largest_change(std::span<const double> gv, std::span<const double> x) const;

private:
    std::vector<double> start_;
    std::optional<base_spln2d> knots_;
};

}  // namespace morvane
