#pragma once
/// Taylor test: does the gradient predict how the objective changes?
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace morvane {

/// Values of fun along one direction d, x + h d.
struct TaylorLine {
    double fun0 = 0.0;           ///< at x
    double slope = 0.0;          ///< <g, d>
    double noise = 0.0;          ///< of fun, from values a few rounding errors of slowness apart
    std::vector<double> h, fun;  ///< steps, falling by halves, and values there
    double central_h = 0.0;      ///< step of the central difference
    double central = 0.0;        ///< (fun(x + h d) - fun(x - h d)) / 2h
    double bend = 0.0;           ///< what the last halving of that step changed in it
    double coarse = 0.0;         ///< the difference at the last of the steps h, where central_h is no greater
};

/// Remainders and their rates of decay between a step and the one before: 1 and 2 for a right gradient, until the
/// noise.
struct TaylorRow {
    double h, fun, first, second, first_rate, second_rate;
};
std::vector<TaylorRow> taylor_rows(const TaylorLine& line);

/// The slope beside the central difference: `undecided` where the doubt of the latter is more than `slope_limit` of it,
/// otherwise `wrong` where the two differ by more than limit and doubt can account for.
enum class SlopeVerdict { right, wrong, undecided };
struct SlopeCheck {
    double error;  ///< |<g,d> / central - 1|
    double doubt;  ///< three standard deviations of the noise of central, and twice its bend, relative to it
    SlopeVerdict verdict;
};
inline constexpr double slope_limit = 0.01;
SlopeCheck check_slope(const TaylorLine& line);

/// Whether fun has another slope, by more than `slope_limit` and the noise, within the smallest of the steps h than
/// over it.
bool bends_within_steps(const TaylorLine& line);

/// The largest step whose third-order error is small and the smallest that noise leaves: h of the central difference,
/// from the noise and the curvature of the values at hand, within the steps given. taylor_line halves it further until
/// the difference has settled twice running.
double choose_central_step(const TaylorLine& line);

/// Standard deviation of the noise of equally spaced values of a smooth function, from their third differences.
double noise_of(std::span<const double> values);

/// Value of the objective at x.
using Value = std::function<double(std::span<const double> x)>;

/// Evaluates fun along d.
/// @param x, d  (n) point and direction
/// @param g     (n) gradient at x
/// @param fun0  value at x
/// @param reach largest relative change of a sample of slowness at the step h = 1
TaylorLine taylor_line(const Value& value, std::span<const double> x, std::span<const double> d,
                       std::span<const double> g, double fun0, int steps, double reach);

/// A smooth random direction on a grid of nx by nz samples or knots: a few waves of random phase across and down, with
/// or without a lateral mean; of no particular size.
std::vector<double> smooth_direction(int nx, int nz, bool with_mean, unsigned seed);

}  // namespace morvane
