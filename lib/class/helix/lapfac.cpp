#include "lib/class/helix/lapfac.h"

#include <algorithm>
#include <vector>

#include "lib/class/helix/wilson.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

Filter lapfac2(float eps, int n1, int na) {
    if (na < 1 || 2 * na > n1)
        qas::qaserr("laplacian filter: lap_lags must be from 4 to the %d samples of a padded column, not %d\n", n1,
                    2 * na);
    const int nmax = 10 * n1;
    Filter lap = stationary_filter(2 * nmax - 1, {1, n1});
    lap.coeffs.fill(-1.0f);
    std::vector<int> lags;
    for (int i = 1; i <= na; ++i) lags.push_back(i);
    for (int i = 1; i <= na; ++i) lags.push_back(n1 - na + i);
    Filter aa = stationary_filter(2 * nmax - 1, lags);
    wilson_factor(nmax, 20, 4.0f + eps, lap, aa, false);
    return aa;
}

}  // namespace morvane
