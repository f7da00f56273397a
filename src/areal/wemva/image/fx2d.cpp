#include "src/areal/wemva/image/fx2d.h"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "lib/base/simd.h"
#include "src/areal/wemva/image/prediction.h"
#include "src/areal/wemva/run/truncate.h"

namespace morvane {

namespace {

using Index = std::ptrdiff_t;

constexpr const char* filter_tag = "oper-fxdecon.H";

void load(const float* from, int count, Float16& lanes) {
    if (count == midpoints_at_a_time) {
        std::memcpy(&lanes, from, sizeof lanes);  // the common case, of constant size
    } else {
        lanes = Float16{};
        std::memcpy(&lanes, from, sizeof(float) * static_cast<std::size_t>(count));
    }
}
void store(const Float16& lanes, int count, float* to) {
    if (count == midpoints_at_a_time) {
        std::memcpy(to, &lanes, sizeof lanes);
    } else {
        std::memcpy(to, &lanes, sizeof(float) * static_cast<std::size_t>(count));
    }
}

/// Prediction of the panels of midpoints_at_a_time midpoints.
class Window {
    FxDesign d_;
    int n1_, n2_, nfreq_;
    Ftu ft_;
    Predictor predictor_;
    std::size_t padded_;                                     // columns of a patch and the zeros around them
    std::vector<Float16> panel_, resid_, column_;            // (n1, n2), (n1, n2), one column
    std::vector<ComplexLanes> fdata_, predicted_, filters_;  // (padded, nfreq), (w2, nfreq), (noper - 1, nfreq)

    std::size_t at(int iz, int ish) const {
        return static_cast<std::size_t>(ish) * static_cast<std::size_t>(n1_) + static_cast<std::size_t>(iz);
    }

    /// The patch at an origin, predicted into predicted_.
    void fxdecon(int o1, int o2) {
        const auto margin = static_cast<std::size_t>(d_.noper - 1), w2 = static_cast<std::size_t>(d_.w2);
        for (int i2 = 0; i2 < d_.w2; ++i2)
            ft_.forward(&panel_[at(o1, o2 + i2)], d_.w1, &fdata_[margin + static_cast<std::size_t>(i2)], padded_);
        for (std::size_t k = 0; k < static_cast<std::size_t>(nfreq_); ++k) {
            predictor_.predict(&fdata_[k * padded_ + margin], d_.w2, &predicted_[k * w2]);
            std::ranges::copy(predictor_.filter(), filters_.begin() + static_cast<Index>(k * margin));
        }
    }

    /// The prediction-error filters of the last patch: a spike, then minus the coefficients brought back to depth.
    /// @param out of the first midpoint; those of the next stand `apart` further on
    void error_filters(float* out, std::size_t apart, int count) {
        const int n = pad2(d_.w1);
        const float scale = std::sqrt(static_cast<float>(n));  // what the spike would be
        for (int l = 0; l < count; ++l) {
            float* const filter = out + static_cast<std::size_t>(l) * apart;
            std::fill_n(filter, n, 0.0f);
            filter[0] = 1.0f;
        }
        for (int k = 1; k < d_.noper; ++k) {
            ft_.inverse(&filters_[static_cast<std::size_t>(k - 1)], static_cast<std::size_t>(d_.noper - 1), n,
                        column_.data());
            for (int i = 0; i < n; ++i)
                for (int l = 0; l < count; ++l)
                    out[static_cast<std::size_t>(l) * apart + static_cast<std::size_t>(k * n + i)] =
                        -column_[static_cast<std::size_t>(i)][l] / scale;
        }
    }

public:
    Window(const FxDesign& design, int n1, int n2)
        : d_(design),
          n1_(n1),
          n2_(n2),
          nfreq_(Ftu(pad2(design.w1)).frequencies()),
          ft_(pad2(design.w1)),
          predictor_(design.noper, design.lambda),
          padded_(static_cast<std::size_t>(design.w2 + 2 * (design.noper - 1))),
          panel_(at(0, n2)),
          resid_(at(0, n2)),
          column_(static_cast<std::size_t>(pad2(design.w1))),
          fdata_(padded_ * static_cast<std::size_t>(nfreq_)),
          predicted_(static_cast<std::size_t>(design.w2 * nfreq_)),
          filters_(static_cast<std::size_t>((design.noper - 1) * nfreq_)) {}

    /// Samples of the filters of one midpoint.
    static std::size_t filter_size(const FxDesign& d) {
        return static_cast<std::size_t>(d.k1) * static_cast<std::size_t>(d.k2) * static_cast<std::size_t>(pad2(d.w1)) *
               static_cast<std::size_t>(d.noper);
    }

    /// @param first   first of up to midpoints_at_a_time midpoints
    /// @param filters (filter_size, midpoints) of these; null: not wanted
    void run(View<const float, 3> modl, Index first, View<const float, 2> wallwt, View<float, 3> resi, float* filters) {
        const auto count = static_cast<int>(std::min<Index>(midpoints_at_a_time, modl.n[0] - first));
        for (int iz = 0; iz < n1_; ++iz)
            for (int ish = 0; ish < n2_; ++ish) load(&modl(first, ish, iz), count, panel_[at(iz, ish)]);
        std::ranges::fill(resid_, Float16{});
        for (int j2 = 0; j2 < d_.k2; ++j2) {
            const PatchCore kept(d_.w2, d_.noper, j2, d_.k2);
            const int o2 = patch_origin(n2_, d_.w2, j2, d_.k2);
            for (int j1 = 0; j1 < d_.k1; ++j1) {
                const int o1 = patch_origin(n1_, d_.w1, j1, d_.k1);
                fxdecon(o1, o2);
                if (filters) {
                    error_filters(filters, filter_size(d_), count);
                    filters += std::ptrdiff_t{pad2(d_.w1)} * d_.noper;
                }
                for (int i2 = kept.first; i2 < kept.end; ++i2) {
                    ft_.inverse(&predicted_[static_cast<std::size_t>(i2)], static_cast<std::size_t>(d_.w2), d_.w1,
                                column_.data());
                    for (int i1 = 0; i1 < d_.w1; ++i1)
                        resid_[at(o1 + i1, o2 + i2)] += column_[static_cast<std::size_t>(i1)];
                }
            }
        }
        for (int iz = 0; iz < n1_; ++iz)
            for (int ish = 0; ish < n2_; ++ish) {
                resid_[at(iz, ish)] *= wallwt(iz, ish);
                store(resid_[at(iz, ish)], count, &resi(first, ish, iz));
            }
    }
};

void write_filter_header(const FilterOutput& output, const FxDesign& design, int midpoints) {
    const std::pair<const char*, int> values[] = {
        {"n1", pad2(design.w1)}, {"n2", design.noper}, {"n3", design.k1 * design.k2},
        {"n4", midpoints},       {"n5", output.set},   {"esize", 4}};
    for (const auto& [key, value] : values) output.session.to_history<int>(key, value, filter_tag);
}

}  // namespace

FxDesign fx2d_design(const Parms& par) {
    FxDesign design;
    design.node = par.node;
    design.k1 = truncate(static_cast<float>(par.nz) * 1.5f / 6.0f);
    design.k2 = truncate(static_cast<float>(par.img.xm.n) * 1.5f / 46.0f);
    return design;
}

void fx2d_lop(const FxDesign& asked, View<const float, 3> modl, View<float, 3> resi, const FilterOutput* output) {
    assert(resi.n == modl.n);
    const auto n1 = static_cast<int>(modl.n[2]), n2 = static_cast<int>(modl.n[1]), n3 = static_cast<int>(modl.n[0]);
    const FxDesign design = fx2d_fit(asked, n1, n2).design;
    if (output) write_filter_header(*output, design, n3);
    const int nodes = design.node == node_default ? omp_get_max_threads() : std::max(design.node, 1);
    const Array<float, 2> wallwt = fxwallwt(design, n1, n2);
    std::vector<Window> windows(static_cast<std::size_t>(nodes), Window(design, n1, n2));
    const std::size_t filter_size = Window::filter_size(design);
    // midpoints whose filters are held at a time: one group per thread, more while they stay small
    constexpr std::size_t small = std::size_t{1} << 23;
    const int groups =
        std::max(nodes, static_cast<int>(std::min<std::size_t>(small / (filter_size * midpoints_at_a_time), 1000)));
    const int batch = output ? groups * midpoints_at_a_time : n3;
    std::vector<float> filters(output ? filter_size * static_cast<std::size_t>(batch) : 0);
    for (int start = 0; start < n3; start += batch) {
        const int end = std::min(start + batch, n3);
#pragma omp parallel for schedule(dynamic, 1) num_threads(nodes)
        for (int first = start; first < end; first += midpoints_at_a_time) {
            float* const own =
                output ? filters.data() + filter_size * static_cast<std::size_t>(first - start) : nullptr;
            windows[static_cast<std::size_t>(omp_get_thread_num())].run(modl, first, wallwt, resi, own);
        }
        if (output) {
            const std::size_t samples = filter_size * static_cast<std::size_t>(end - start);
            output->session.srite(filter_tag, filters.data(), static_cast<std::int64_t>(samples * sizeof(float)));
        }
    }
}

void owscale(View<float, 3> data) {
    for (Index iz = 0; iz < data.n[2]; ++iz) {
        const std::span<float> slice = data.slice(iz).flat();
        float largest = -9999.0f;
        for (const float sample : slice) largest = std::max(largest, std::abs(sample));
        if (largest == 0.0f) continue;
        for (float& sample : slice) sample /= largest;
    }
}

}  // namespace morvane
