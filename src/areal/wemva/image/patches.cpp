#include "src/areal/wemva/image/patches.h"

#include <algorithm>
#include <cstdio>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

int patch_origin(int n, int w, int j, int k) {
    if (k == 1) return 0;
    return static_cast<int>(1.5f + static_cast<float>(n - w) * static_cast<float>(j) / static_cast<float>(k - 1)) - 1;
}

namespace {

bool covers(int n, int w, int k, int margin) {
    int reached = 0;
    for (int j = 0; j < k; ++j) {
        const PatchCore kept(w, margin, j, k);
        const int origin = patch_origin(n, w, j, k);
        if (kept.first < kept.end && origin + kept.first <= reached) reached = std::max(reached, origin + kept.end);
    }
    return reached >= n;
}

template <class... Args>
std::string note(const char* format, Args... args) {
    char text[256];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

void fit_axis(const char* what, int n, int margin, int& w, int& k, std::vector<std::string>& notes) {
    const int w_asked = w, k_asked = k;
    w = std::min(w, n);
    k = std::max(k, 1);
    if (w < w_asked || (w == n && !covers(n, w, k, margin))) k = 1;  // more would stand at the same place
    while (k < n && !covers(n, w, k, margin)) ++k;
    if (!covers(n, w, k, margin))
        qas::qaserr("f-x prediction: patches of %d of %d %s keep too little beside margins of %d\n", w, n, what,
                    margin);
    if (w != w_asked) {
        notes.push_back(note("f-x prediction: patches of %d %s are cut to the %d there are, %d of them to 1", w_asked,
                             what, w, k_asked));
    } else if (k != k_asked) {
        notes.push_back(
            note("f-x prediction: %d of %d %s instead of %d patches, to cover the panel", k, w, what, k_asked));
    }
}

}  // namespace

FxFit fx2d_fit(const FxDesign& asked, int n1, int n2) {
    if (asked.w1 < 1 || asked.w2 < 1 || asked.noper < 1)
        qas::qaserr("f-x prediction: patches of %d by %d with filters of %d: all must be 1 or more\n", asked.w1,
                    asked.w2, asked.noper);
    FxFit fit{asked, {}};
    fit_axis("depths", n1, 0, fit.design.w1, fit.design.k1, fit.notes);
    fit_axis("offsets", n2, asked.noper, fit.design.w2, fit.design.k2, fit.notes);
    if (n2 == 1) fit.notes.push_back("f-x prediction: a single offset cannot be predicted, the result is zero");
    return fit;
}

Array<float, 2> fxwallwt(const FxDesign& d, int n1, int n2) {
    Array<float, 2> wallwt({n1, n2});
    for (int j2 = 0; j2 < d.k2; ++j2) {
        const PatchCore kept(d.w2, d.noper, j2, d.k2);
        const int o2 = patch_origin(n2, d.w2, j2, d.k2);
        for (int j1 = 0; j1 < d.k1; ++j1) {
            const int o1 = patch_origin(n1, d.w1, j1, d.k1);
            for (int i2 = kept.first; i2 < kept.end; ++i2)
                for (int i1 = 0; i1 < d.w1; ++i1) wallwt(o1 + i1, o2 + i2) += 1.0f;
        }
    }
    for (float& weight : wallwt.flat())
        if (weight != 0.0f) weight = 1.0f / weight;
    return wallwt;
}

}  // namespace morvane
