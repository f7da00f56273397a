#pragma once
/// Fourier finite differences: phase shift at the smallest velocity of a level, thin-lens term, and a cascade of
/// implicit finite-difference stages for what is left of the lateral velocity variation.
///
/// One stage with coefficients alph, beta acts on a field f as M^-1 conj(M) f, M = I + a T, (T f)_i = f_(i-1) - 2 f_i +
/// f_(i+1) with zeros beyond the ends, and a_i = beta (v/w dx)^2 ((c/v)^2 + c/v + 1) + trick - i alph dz/2 (v/w)(1 -
/// c/v) / dx^2. It is computed as f + S^-1 (q T f) with the symmetric S = tridiag(1, 1/a - 2, 1) and q = 2i Im(-a) / a,
/// which leaves f exactly alone where the velocity is the reference.
#include <array>
#include <span>

#include "src/areal/wemva/depth_step.h"

/// Stage coefficients of a dip limit. nstage is 0 for a limit outside the table (15 45 65 79 80 87 89 90).
struct FfdStages {
    std::array<float, 5> alph{}, beta{};
    int nstage = 0;
};
FfdStages ifd_coeffts(int dipop);

/// The dip limits that ifd_coeffts knows, as a text for messages.
inline constexpr const char* dipop_values = "15, 45, 65, 79, 80, 87, 89 or 90";

/// How far a reference velocity that stays while the model changes has to lie below all velocities, as a share of the
/// smallest. Where the two are equal the stages are at resonance just beyond the evanescent edge, undamped, and the
/// field changes wildly with every model beside a laterally constant one; where the reference is the greater, they
/// amplify. The single stages above 45 degrees amplify rough models from further down on.
float ffd_reference_share(int dipop);

/// Whether the stages of a dip limit come so near to resonance that single precision loses their derivative: the
/// image's is off by up to 0.5 % at 80, by 1 to 20 % at 87, 89 and 90, and by 0.05 % below.
bool ffd_needs_double(int dipop);

/// Model terms of a level: reference velocity, slowness differences, and lane `lane` of the drift and curve terms of
/// depth_step.h. For float or double.
/// @param vel  (nx) slowness
/// @param vref the reference velocity, whose level then also gets the derivatives; null: the smallest of the level
template <class Real>
void ffd_level(const Parms& par, std::span<const float> vel, const float* vref, MediumLevel& level,
               std::span<LanesOf<Real>> drift, std::span<LanesOf<Real>> curve, int lane);

/// Factors of one stage for the lanes of a block of levels. For float or double.
/// @param w            angular frequency, not zero
/// @param drift, curve (nx) as ffd_level left them
/// @param gain         (nx, 2) out: q, real and imaginary
/// @param pivot        (nx, 2) out: inverse pivots, real and imaginary: eliminated from the left below nx/2, from the
///                     right above, and both ways at nx/2. A pivot of exactly zero is moved off it
template <class Real>
void ffd_factors(float w, float alph, float beta, float trick, std::span<const LanesOf<Real>> drift,
                 std::span<const LanesOf<Real>> curve, View<Lanes, 2> gain, View<LanesOf<Real>, 2> pivot);

/// rhs = S^-1 rhs for two fields at once, in the precision of the stage's pivots.
/// @param scratch its `correction`, (2, nx + 1), holds the right sides q T f of both fields side by side, the last
///                column zero, and receives the result
void ffd_solve(const DepthStep::Stage& stage, StepScratch& scratch);

/// Carry one wavefield one depth step down (see owpspi for the arguments). Leaves the field alone at zero frequency.
void owffd(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel);
