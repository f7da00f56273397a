#pragma once
/// The implicit finite-difference stages that carry what phase shift and thin lens leave of lateral velocity variation.
///
/// One stage with coefficients alph, beta acts on a field f as M^-1 conj(M) f, M = I + a T, (T f)_i = f_(i-1) - 2 f_i +
/// f_(i+1) with zeros beyond the ends, and
///   a_i = beta/w^2 (beta term)_i + trick - i alph/w (alpha term)_i,
///   alpha term = dz/2 v (1 - c/v) / dx^2,   beta term = v^2 ((c/v)^2 + c/v + 1) / dx^2,
/// with the velocity v and its reference c. It is computed as f + S^-1 (q T f) with the symmetric
/// S = tridiag(1, 1/a - 2, 1) and q = 2i Im(-a) / a, which leaves f exactly alone where the velocity is the reference.
#include <array>
#include <complex>
#include <span>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/simd.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/medium_level.h"

namespace morvane {

/// Stage coefficients of a dip limit. nstage is 0 for a limit outside the table (15 45 65 79 80 87 89 90).
struct FfdStages {
    std::array<float, 5> alph{}, beta{};
    int nstage = 0;
};
FfdStages ifd_coeffts(int dipop);

/// How far a reference velocity that stays while the model changes has to lie below all velocities, as a share of the
/// smallest. Where the two are equal the stages are at resonance just beyond the evanescent edge, undamped, and the
/// field changes wildly with every model beside a laterally constant one; where the reference is the greater, they
/// amplify. The single stages above 45 degrees amplify rough models from further down on.
float ffd_reference_share(int dipop);

/// Whether the stages of a dip limit come so near to resonance that single precision loses their derivative: the
/// image's is off by up to 0.5 % at 80, by 1 to 20 % at 87, 89 and 90, and by 0.05 % below.
bool ffd_needs_double(int dipop);

/// Levels that are turned into tables together: the recursions of the factors run along x, and fill the lanes of a
/// SIMD register with depths.
inline constexpr int levels_at_a_time = 8;
template <class Real>
using LevelLanes = Vector<Real, levels_at_a_time>;

/// What the stages of a shot need of its model, one lane per depth.
template <class Real>
struct StageMedium {
    Array<LevelLanes<Real>, 2> alpha_term, beta_term;  ///< (nx, blocks of levels)
    bool empty() const { return alpha_term.n()[1] == 0; }
};

/// Model terms of a level: reference velocity, slowness differences, and lane `lane` of its alpha and beta terms.
/// For float or double.
/// @param vel  (nx) slowness
/// @param vref the reference velocity, whose level then also gets the derivatives; null: the smallest of the level
template <class Real>
void ffd_level(const Parms& par, std::span<const float> vel, const float* vref, MediumLevel& level,
               std::span<LevelLanes<Real>> alpha_term, std::span<LevelLanes<Real>> beta_term, int lane);

/// Factors of one stage for the lanes of a block of levels. For float or double.
/// @param w     angular frequency, not zero
/// @param alpha_term, beta_term (nx) as ffd_level left them
/// @param q     (nx, 2) out: q, real and imaginary
/// @param pivot (nx, 2) out: inverse pivots, real and imaginary: eliminated from the left below nx/2, from the right
///              above, and both ways at nx/2. A pivot of exactly zero is moved off it
template <class Real>
void ffd_factors(float w, float alph, float beta, float trick, std::span<const LevelLanes<Real>> alpha_term,
                 std::span<const LevelLanes<Real>> beta_term, View<Float8, 2> q, View<LevelLanes<Real>, 2> pivot);

/// One stage at one frequency. Views into the tables of a step.
struct FfdStage {
    View<const cf, 1> q;            ///< (nx) right side of the correction
    View<const float, 2> pivot;     ///< (4, nx/2) inverse pivots from the left (re, im) and from the right
    View<const double, 2> fine;     ///< the same of a medium that has the stages in double precision
    std::complex<double> middle{};  ///< inverse pivot where the two eliminations meet
    float alpha_share = 0.0f;       ///< alph/w dz/2 / dx^2, for the derivative
    float beta_share = 0.0f;        ///< beta/w^2 / dx^2
    float trick = 0.0f;
};

/// One per thread.
struct StageScratch {
    Array<cf, 2> correction;                         ///< (2, nx + 1), the last column zero
    Array<float, 2> differences;                     ///< (2 nx, 4), for the derivative
    Array<cf, 2> solution;                           ///< (nx, 2), for its transpose
    std::vector<Vector<float, 8>> eliminated;        ///< nx/2 + 1
    std::vector<Vector<double, 8>> eliminated_fine;  ///< nx/2 + 1
    explicit StageScratch(int nx);
};

/// rhs = S^-1 rhs for two fields at once, by elimination from both ends (direct_step.h of the tests has the plain
/// form), in the precision of the stage's pivots.
/// @param scratch its `correction` holds the right sides of both fields side by side, and receives the result
void ffd_solve(const FfdStage& stage, StageScratch& scratch);

/// One stage of two fields, the first with sign, the second with -sign. May run in place.
void apply_stage(const FfdStage& stage, int sign, View<const cf, 1> field, View<const cf, 1> other, View<cf, 1> out,
                 View<cf, 1> other_out, StageScratch& scratch);

}  // namespace morvane
