#pragma once
/// Coefficients of non-stationary filters on a helix: an optional minimum-phase Laplacian in front, then for each
/// sample a few lags into the previous column that follow a dip.
#include <span>
#include <vector>

#include "lib/class/helix/helix.h"

namespace morvane {

/// What the filters are made of.
struct FilterChoice {
    float laplacian_scale = 0.0f;  ///< share of the Laplacian
    float steering_scale = 0.98f;  ///< share of the steering part; both together below 1
    int laplacian_lags = 0;        ///< coefficients of the Laplacian: even, 4 or more, or none
    int steering_lags = 2;         ///< coefficients of the steering part, or 0
    float half_width = 1.25f;      ///< half width of the triangle, in samples
    bool triangle = false;         ///< triangle weights around the dip; otherwise clipped Lagrange weights
};

/// Check a choice; ends the run with the text of the first rule it breaks.
void init_filters(const FilterChoice& choice);

/// Lags and coefficients of one sample; coefficients sum to -1. p = tan(angle) is the dip in samples per column, the
/// event growing deeper with the column; the lags lie around n1skip + p n1shift.
///
/// The Lagrange weights stand one lag low on a dip that is not negative (the position is counted from 0, the nodes from
/// 1) and the mirrored ones of a negative dip one lag high if `steering_lags` is even, so that the filter's own dip is
/// p - 1 or p + 1; with two lags clipping turns that into p cut to a whole number. Triangle weights centre on p.
///
/// A dip above atan(n1skip / 2), and a negative one so steep that a lag would not be positive (-90 among them), takes
/// the steep form: one sample up the column, and the sample before that one in the previous column.
/// @param n1shift step along depth in the vector; n1skip: step to the next column
/// @param angle   degrees, -90 to 90
/// @param lags, coef out: at least steering_lags each
void build_steering(const FilterChoice& choice, int n1shift, int n1skip, float angle, std::span<int> lags,
                    std::span<float> coef);

/// The filter for a panel; init_filters has passed its choice.
/// @param datadims size of the panel on each axis, depth first
/// @param skip     samples on each axis that share one set of coefficients
/// @param angle    dip of each set, degrees; empty without steering part
Filter new_steering(const FilterChoice& choice, const std::vector<int>& datadims, const std::vector<int>& skip,
                    std::span<const float> angle);

}  // namespace morvane
