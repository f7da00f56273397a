#pragma once
/// What an evaluation measures beside fun.

namespace morvane {

struct Measures {
    double data = 0.0;            ///< what the image residual contributes to fun
    double regularisation = 0.0;  ///< what the roughness of the model contributes; only with regularise
    double share = 0.0;           ///< zero-offset share of the energy of the columns that count; only with course
    double fit = 0.0;             ///< as passes/fit.h defines it; only with fit
};

}  // namespace morvane
