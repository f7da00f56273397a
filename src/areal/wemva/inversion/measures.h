#pragma once
/// What an evaluation measures beside fun.

namespace morvane {

struct Measures {
    double data = 0.0;            ///< what the image residual contributes to fun
    double regularisation = 0.0;  ///< what the roughness of the model contributes; only with regularise
};

}  // namespace morvane
