#include "lib/class/filters_mod.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <numeric>

#include "lib/class/helix/lapfac.h"
#include "lib/class/interp_new.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

constexpr float pi = 3.14159274f;

std::ptrdiff_t product(const std::vector<int>& dims) {
    return std::accumulate(dims.begin(), dims.end(), std::ptrdiff_t{1}, std::multiplies<>());
}

void steep_slope(const FilterChoice& choice, int n1shift, int n1skip, std::span<int> lags, std::span<float> coef) {
    std::ranges::fill(lags, n1shift + n1skip);
    std::ranges::fill(coef, 0.0f);
    lags[0] = n1shift;
    coef[0] = 1.0f;
    if (coef.size() > 1) coef[1] = 1.0f - 1.0f / choice.half_width;
}

}  // namespace

void init_filters(const FilterChoice& choice) {
    if (choice.laplacian_scale + choice.steering_scale >= 1.0f)
        qas::erexit("laplacian scale + steering scale must be < 1.");
    if (choice.laplacian_lags == 0 && choice.laplacian_scale != 0.0f)
        qas::erexit("must supply lapacian lags if lapacian_scale > 0");
    if (choice.steering_lags == 0 && choice.steering_scale != 0.0f)
        qas::erexit("must supply steering lags if steering_scale > 0");
    if (choice.steering_lags == 0 && choice.laplacian_lags == 0) qas::erexit("must specify steering and/or laplacian");
    if (choice.laplacian_lags != 0 && choice.laplacian_lags < 3) qas::erexit("number of lags in the laplacian > 3");
    if (choice.laplacian_lags % 2 != 0) qas::erexit("must have even number of coefficients laplacian lags");
}

void build_steering(const FilterChoice& choice, int n1shift, int n1skip, float angle, std::span<int> lags,
                    std::span<float> coef) {
    const int n = choice.steering_lags, nh = (n - 1) / 2;
    const auto count = static_cast<std::size_t>(n);
    if (lags.size() < count) qas::erexit("steering lags to small");
    if (coef.size() < count) qas::erexit("steering coeficients to small");
    if (angle > 90.0f) qas::erexit("angle must be less than 90");
    if (angle < -90.0f) qas::erexit("angles must be greater than -90.");
    lags = lags.first(count);
    coef = coef.first(count);

    const float slope = angle * pi / 180.0f;
    const float p = std::tan(slope);
    const float whole = std::floor(p);
    const float half = static_cast<float>(n1skip) * 0.5f;
    const bool steep = slope > 0.0f && (p < 0.0f || p > 0.5f * half) && slope > std::atan(half);
    // tan turns positive at -90 in single precision
    const bool backward = angle < 0.0f && (p > 0.0f || (whole - static_cast<float>(nh)) * static_cast<float>(n1shift) +
                                                               static_cast<float>(n1skip) <
                                                           1.0f);
    if (steep || backward) {
        steep_slope(choice, n1shift, n1skip, lags, coef);
    } else {
        const int p0 = static_cast<int>(whole) - nh;
        for (int i = 0; i < n; ++i) lags[static_cast<std::size_t>(i)] = (p0 + i) * n1shift + n1skip;
        if (choice.triangle) {
            for (int i = 0; i < n; ++i)
                coef[static_cast<std::size_t>(i)] = 1.0f - std::abs(static_cast<float>(p0 + i) - p) / choice.half_width;
        } else {
            lg_int(static_cast<float>(nh) + std::abs(p) - std::floor(std::abs(p)), coef);
            if (p < 0.0f) std::ranges::reverse(coef);
        }
    }
    float sum = 0.0f;
    for (float& c : coef) {
        c = std::max(c, 0.0f);
        sum += c;
    }
    if (!(sum > 0.0f))
        qas::qaserr("steering filter: a triangle of half width %g holds no lag (tri_width)\n",
                    static_cast<double>(choice.half_width));
    for (float& c : coef) c = -(c / sum);
}

Filter new_steering(const FilterChoice& choice, const std::vector<int>& datadims, const std::vector<int>& skip,
                    std::span<const float> angle) {
    const std::ptrdiff_t samples = product(datadims), shared = product(skip);
    if (datadims.size() != skip.size() || shared < 1 || samples % shared != 0) qas::erexit("invalid filterJ parameter");
    const std::ptrdiff_t nfilt = samples / shared;
    const bool steering_run = choice.steering_lags != 0;
    if (steering_run && angle.empty()) qas::erexit("must supply angle array when constructing steering filters");
    if (steering_run && std::ssize(angle) != nfilt)
        qas::erexit("size(angle) must be the same size as number of filters ");

    const std::ptrdiff_t nlap = choice.laplacian_lags, nsteer = choice.steering_lags;
    Filter filt = allocatehelix(nlap + nsteer, nfilt);
    filt.datadims = datadims;
    filt.filterdims = skip;
    filt.filterj = shared;
    if (nlap != 0) {
        const Filter laplacian = lapfac2(0.01f, datadims[0], choice.laplacian_lags / 2);
        for (std::ptrdiff_t ifilt = 0; ifilt < nfilt; ++ifilt)
            for (std::ptrdiff_t ia = 0; ia < nlap; ++ia) {
                filt.lags(ia, ifilt) = laplacian.lags(ia, 0);
                filt.coeffs(ia, ifilt) = choice.laplacian_scale * laplacian.coeffs(ia, 0);
            }
    }
    for (std::ptrdiff_t ifilt = 0; steering_run && ifilt < nfilt; ++ifilt) {
        const std::span<float> coef = filt.coeffs.view().slice(ifilt).flat().subspan(static_cast<std::size_t>(nlap));
        const std::span<int> lags = filt.lags.view().slice(ifilt).flat().subspan(static_cast<std::size_t>(nlap));
        const auto at = static_cast<std::size_t>(ifilt);
        if (at > 0 && angle[at] == angle[at - 1]) {  // as in the frames
            std::copy_n(lags.data() - filt.na(), lags.size(), lags.data());
            std::copy_n(coef.data() - filt.na(), coef.size(), coef.data());
            continue;
        }
        build_steering(choice, 1, datadims[0], angle[at], lags, coef);
        for (float& c : coef) c *= choice.steering_scale;
    }
    return filt;
}

}  // namespace morvane
