#pragma once
/// The overlapping patches of the prediction across offset: their places on the depth-by-offset panel of a midpoint,
/// and what is kept of them.
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

struct FxDesign {
    int w1 = 15, w2 = 150;  ///< size of a patch: depths, offsets
    int noper = 5;          ///< length of the prediction-error filter
    int k1 = 1, k2 = 1;     ///< number of patches along depth and offset, evenly spread
    float lambda = 20.0f;
    int node = node_default;  ///< threads; node_default: the runtime's team size. The result does not depend on them
};

struct FxFit {
    FxDesign design;
    std::vector<std::string> notes;  ///< what was changed, or will surprise: one line each
};

/// The design for panels of n1 depths by n2 offsets: an axis shorter than its patch gets one patch of its own length;
/// otherwise one patch at least, and enough that what they keep covers the axis. A design that fits comes back as it
/// is. Ends the run if patches smaller than the panel keep nothing.
FxFit fx2d_fit(const FxDesign& asked, int n1, int n2);

/// First sample of patch j of k of w samples, evenly spread along an axis of n.
int patch_origin(int n, int w, int j, int k);

/// The samples of patch j of k that are kept: all but `margin` at each side that is not an end of the panel.
struct PatchCore {
    int first, end;
    PatchCore(int w, int margin, int j, int k) : first(j == 0 ? 0 : margin), end(j == k - 1 ? w : w - margin) {}
};

/// (n1, n2): 1 / number of patches that keep a sample of the panel; 0 where none does.
Array<float, 2> fxwallwt(const FxDesign& d, int n1, int n2);

}  // namespace morvane
