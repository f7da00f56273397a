#include "src/areal/wemva/fx2d.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <span>

#include "lib/corelibs/qas/qaserr.h"
#include "src/areal/wemva/ow_fftw_areal.h"

namespace {

using Index = std::ptrdiff_t;

constexpr float diagonal_only = -999.0f;
constexpr const char* filter_tag = "oper-fxdecon.H";

/// The smallest power of two not below n.
int pad2(int n) {
    int power = 1;
    while (power < n) power *= 2;
    return power;
}

// --- patches ---------------------------------------------------------------------------------------------------------

/// First sample of patch j of k along an axis.
int patch_origin(int n, int w, int j, int k) {
    if (k == 1) return 0;
    return static_cast<int>(1.5f + static_cast<float>(n - w) * static_cast<float>(j) / static_cast<float>(k - 1)) - 1;
}

/// The samples of patch j that are kept: all but `margin` at each side that is not an end of the panel.
struct Kept {
    int first, end;
    Kept(int w, int margin, int j, int k) : first(j == 0 ? 0 : margin), end(j == k - 1 ? w : w - margin) {}
};

bool covers(int n, int w, int k, int margin) {
    int reached = 0;
    for (int j = 0; j < k; ++j) {
        const Kept kept(w, margin, j, k);
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
    if (!covers(n, w, k, margin)) {
        if (w == n) {
            k = 1;
        } else {
            while (k <= n && !covers(n, w, k, margin)) ++k;
            if (k > n)
                qas::qaserr("f-x prediction: patches of %d of %d %s keep too little beside margins of %d\n", w, n, what,
                            margin);
        }
    }
    if (w != w_asked)
        notes.push_back(note("f-x prediction: patches of %d %s are cut to the %d there are", w_asked, what, w));
    if (k != k_asked)
        notes.push_back(note("f-x prediction: %d %s of %d %s instead of %d, to cover the panel", k,
                             k == 1 ? "patch" : "patches", w, what, k_asked));
}

// --- prediction ------------------------------------------------------------------------------------------------------

/// Complex numbers of as many frequencies, which all go through the same arithmetic.
constexpr int lane_count = 16;
struct alignas(64) Lanes {
    float re[lane_count], im[lane_count];
};

/// sum += conj(a) b
void add_conj_product(const Lanes& a, const Lanes& b, Lanes& sum) {
    for (int l = 0; l < lane_count; ++l) {
        sum.re[l] += a.re[l] * b.re[l] + a.im[l] * b.im[l];
        sum.im[l] += a.re[l] * b.im[l] - a.im[l] * b.re[l];
    }
}
/// sum += a b
void add_product(const Lanes& a, const Lanes& b, Lanes& sum) {
    for (int l = 0; l < lane_count; ++l) {
        sum.re[l] += a.re[l] * b.re[l] - a.im[l] * b.im[l];
        sum.im[l] += a.re[l] * b.im[l] + a.im[l] * b.re[l];
    }
}
Lanes product(const Lanes& a, const Lanes& b) {
    Lanes result{};
    add_product(a, b, result);
    return result;
}
Lanes negated(Lanes a) {
    for (float& v : a.re) v = -v;
    for (float& v : a.im) v = -v;
    return a;
}
Lanes conjugate(Lanes a) {
    for (float& v : a.im) v = -v;
    return a;
}
/// 1 / a in double precision; 0 for 0.
Lanes reciprocal(const Lanes& a) {
    Lanes result;
    for (int l = 0; l < lane_count; ++l) {
        const double re = a.re[l], im = a.im[l], size = re * re + im * im;
        const double inverse = size == 0.0 ? 0.0 : 1.0 / size;
        result.re[l] = static_cast<float>(re * inverse);
        result.im[l] = static_cast<float>(-im * inverse);
    }
    return result;
}

/// One-step prediction of a line of samples at lane_count frequencies.
class Predictor {
    int m_;
    float lambda_;
    std::vector<Lanes> corr_, a_, b_, inverse_, filter_, forward_;

    Lanes& a(int i, int j) { return a_[static_cast<std::size_t>(i * m_ + j)]; }
    static std::size_t at(int i) { return static_cast<std::size_t>(i); }

    /// Gaussian elimination without pivoting.
    void solve() {
        for (int k = 0; k < m_; ++k) {
            inverse_[at(k)] = reciprocal(a(k, k));
            for (int i = k + 1; i < m_; ++i) {
                const Lanes factor = negated(product(a(i, k), inverse_[at(k)]));
                for (int j = k + 1; j < m_; ++j) add_product(factor, a(k, j), a(i, j));
                add_product(factor, b_[at(k)], b_[at(i)]);
            }
        }
        for (int i = m_; i-- > 0;) {
            Lanes sum = b_[at(i)];
            for (int j = i + 1; j < m_; ++j) add_product(negated(a(i, j)), filter_[at(j)], sum);
            filter_[at(i)] = product(sum, inverse_[at(i)]);
        }
    }

    /// Coefficients f of x(i) = sum over k = 1..m of f(k) x(i-k) in the least-squares sense, samples beyond the ends
    /// zero: a(j,k) = sum over i of conj(x(i-j)) x(i-k), b(j) = sum over i of conj(x(i-j)) x(i).
    void find_filter(std::span<const Lanes> x) {
        const auto n = static_cast<int>(x.size());
        for (int lag = 0; lag <= m_; ++lag) {
            Lanes sum{};
            for (int i = 0; i + lag < n; ++i) add_conj_product(x[at(i)], x[at(i + lag)], sum);
            corr_[at(lag)] = sum;
        }
        for (int j = 0; j < m_; ++j) {
            b_[at(j)] = corr_[at(j + 1)];
            for (int k = 0; k < m_; ++k) a(j, k) = j >= k ? corr_[at(j - k)] : conjugate(corr_[at(k - j)]);
        }
        if (lambda_ == diagonal_only) {
            for (int i = 0; i < m_; ++i) filter_[at(i)] = product(b_[at(i)], reciprocal(a(i, i)));
            return;
        }
        for (int i = 0; i < m_; ++i) {
            for (float& v : a(i, i).re) v *= 1.0f + lambda_ * lambda_;
            for (float& v : a(i, i).im) v *= 1.0f + lambda_ * lambda_;
        }
        solve();
    }

public:
    Predictor(int noper, int n, float lambda)
        : m_(noper - 1),
          lambda_(lambda),
          corr_(at(noper)),
          a_(at(m_ * m_)),
          b_(at(m_)),
          inverse_(at(m_)),
          filter_(at(m_)),
          forward_(at(n)) {}

    /// noper - 1 coefficients of the last line.
    std::span<const Lanes> filter() const { return filter_; }

    /// Replaces the line by the mean of its predictions from below and from above. The filter of the reversed line is
    /// the conjugate of the line's own. The ends have one prediction; a single sample has none.
    void run(std::span<Lanes> x) {
        const auto n = static_cast<int>(x.size());
        find_filter(x);
        for (int i = 0; i < n; ++i) {
            Lanes sum{};
            for (int k = 1; k <= std::min(m_, i); ++k) add_product(filter_[at(k - 1)], x[at(i - k)], sum);
            forward_[at(i)] = sum;
        }
        for (int i = 0; i < n; ++i) {
            Lanes sum{};  // needs samples above i alone: x may be overwritten from below
            for (int k = 1; k <= std::min(m_, n - 1 - i); ++k) add_conj_product(filter_[at(k - 1)], x[at(i + k)], sum);
            if (i == n - 1) {
                sum = forward_[at(i)];
            } else if (i > 0) {
                for (int l = 0; l < lane_count; ++l) {
                    sum.re[l] = (sum.re[l] + forward_[at(i)].re[l]) * 0.5f;
                    sum.im[l] = (sum.im[l] + forward_[at(i)].im[l]) * 0.5f;
                }
            }
            x[at(i)] = sum;
        }
    }
};

/// Unitary transforms of one length along depth.
class DepthFt {
    LateralFft fft_;
    Array<cf, 1> column_;
    float scale_;

public:
    explicit DepthFt(int n) : fft_(n, FFTW_ESTIMATE), column_({n}), scale_(1.0f / std::sqrt(static_cast<float>(n))) {
        if (n != pad2(n)) qas::erexit("ftu: nx not a power of 2");
    }
    std::span<cf> column() { return column_.flat(); }
    void run(int sign) {
        (sign < 0 ? fft_.forward : fft_.inverse).run(column_);
        for (cf& z : column_.flat()) z *= scale_;
    }
};

/// Frequency i of a transformed column, in its block of lanes.
struct Lane {
    std::size_t block;
    int l;
    explicit Lane(std::size_t i) : block(i / lane_count), l(static_cast<int>(i % lane_count)) {}
};

/// Prediction of patches.
class PatchFilter {
    const FxDesign design_;
    std::size_t nfreq_, ncol_;
    DepthFt ft_;
    Predictor predictor_;
    std::vector<std::vector<Lanes>> fdata_;   // by block of frequencies: one entry a column
    std::vector<std::vector<Lanes>> filter_;  // by block: one entry a coefficient
    std::vector<float> rfilter_;

public:
    explicit PatchFilter(const FxDesign& design)
        : design_(design),
          nfreq_(static_cast<std::size_t>(pad2(design.w1))),
          ncol_(static_cast<std::size_t>(design.w2)),
          ft_(static_cast<int>(nfreq_)),
          predictor_(design.noper, design.w2, design.lambda),
          fdata_((nfreq_ + lane_count - 1) / lane_count, std::vector<Lanes>(ncol_)),
          filter_(fdata_.size()),
          rfilter_(nfreq_ * static_cast<std::size_t>(design.noper)) {}

    std::size_t frequencies() const { return nfreq_; }

    /// @param pdata (w1, w2) in place
    void fxdecon(View<float, 2> pdata) {
        const std::span<cf> column = ft_.column();
        for (std::size_t i2 = 0; i2 < ncol_; ++i2) {
            const std::span<float> data = pdata.slice(static_cast<Index>(i2)).flat();
            std::ranges::fill(column, cf(0.0f));
            std::ranges::copy(data, column.begin());
            ft_.run(-1);
            for (std::size_t i = 0; i < nfreq_; ++i) {
                const Lane lane(i);
                fdata_[lane.block][i2].re[lane.l] = column[i].real();
                fdata_[lane.block][i2].im[lane.l] = column[i].imag();
            }
        }
        for (std::size_t block = 0; block < fdata_.size(); ++block) {
            predictor_.run(fdata_[block]);
            filter_[block].assign(predictor_.filter().begin(), predictor_.filter().end());
        }
        for (std::size_t i2 = 0; i2 < ncol_; ++i2) {
            for (std::size_t i = 0; i < nfreq_; ++i) {
                const Lane lane(i);
                column[i] = cf(fdata_[lane.block][i2].re[lane.l], fdata_[lane.block][i2].im[lane.l]);
            }
            ft_.run(+1);
            const std::span<float> data = pdata.slice(static_cast<Index>(i2)).flat();
            for (std::size_t i = 0; i < data.size(); ++i) data[i] = column[i].real();
        }
    }

    /// The prediction-error filter of the last patch: a spike, then minus the coefficients brought back to depth.
    /// @return (frequencies, noper)
    std::span<const float> rfilter() {
        const std::span<cf> column = ft_.column();
        const float scale = std::sqrt(static_cast<float>(nfreq_));  // what the spike would be
        std::ranges::fill(rfilter_, 0.0f);
        rfilter_[0] = 1.0f;
        for (std::size_t k = 1; k < static_cast<std::size_t>(design_.noper); ++k) {
            for (std::size_t i = 0; i < nfreq_; ++i) {
                const Lane lane(i);
                column[i] = cf(filter_[lane.block][k - 1].re[lane.l], filter_[lane.block][k - 1].im[lane.l]);
            }
            ft_.run(+1);
            for (std::size_t i = 0; i < nfreq_; ++i) rfilter_[k * nfreq_ + i] = -column[i].real() / scale;
        }
        return rfilter_;
    }
};

/// 1 / number of patches that keep a sample of the panel; 0 where none does.
Array<float, 2> fxwallwt(const FxDesign& d, int n1, int n2) {
    Array<float, 2> wallwt({n1, n2});
    for (int j2 = 0; j2 < d.k2; ++j2) {
        const Kept kept(d.w2, d.noper, j2, d.k2);
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

/// Predicts one panel. Patches at one place, as a panel no wider than a patch has them, are predicted once.
class Window {
    const FxDesign& d_;
    PatchFilter filter_;
    Array<float, 3> pdata_;        // (w1, w2, k1) the predicted patches of the last origin along offset
    std::vector<float> rfilters_;  // their filters
    int last_origin_ = -1;

    void predict_row(View<const float, 2> data, int o2, bool want_filters) {
        const auto n1 = static_cast<int>(data.n[0]);
        rfilters_.clear();
        for (int j1 = 0; j1 < d_.k1; ++j1) {
            const int o1 = patch_origin(n1, d_.w1, j1, d_.k1);
            const View<float, 2> patch = pdata_.view().slice(j1);
            for (int i2 = 0; i2 < d_.w2; ++i2) std::copy_n(data.slice(o2 + i2).p + o1, d_.w1, patch.slice(i2).p);
            filter_.fxdecon(patch);
            if (!want_filters) continue;
            const std::span<const float> rfilter = filter_.rfilter();
            rfilters_.insert(rfilters_.end(), rfilter.begin(), rfilter.end());
        }
        last_origin_ = o2;
    }

public:
    explicit Window(const FxDesign& design) : d_(design), filter_(design), pdata_({design.w1, design.w2, design.k1}) {}
    std::size_t frequencies() const { return filter_.frequencies(); }

    /// @param data    (n1, n2)
    /// @param resid   (n1, n2) overwritten
    /// @param filters the patches' filters are added here; null: not wanted
    void run(View<const float, 2> data, View<const float, 2> wallwt, View<float, 2> resid,
             std::vector<float>* filters) {
        const auto n1 = static_cast<int>(data.n[0]), n2 = static_cast<int>(data.n[1]);
        std::ranges::fill(resid.flat(), 0.0f);
        last_origin_ = -1;
        for (int j2 = 0; j2 < d_.k2; ++j2) {
            const int o2 = patch_origin(n2, d_.w2, j2, d_.k2);
            if (o2 != last_origin_) predict_row(data, o2, filters != nullptr);
            if (filters) filters->insert(filters->end(), rfilters_.begin(), rfilters_.end());
            const Kept kept(d_.w2, d_.noper, j2, d_.k2);
            for (int j1 = 0; j1 < d_.k1; ++j1) {
                const int o1 = patch_origin(n1, d_.w1, j1, d_.k1);
                for (int i2 = kept.first; i2 < kept.end; ++i2)
                    for (int i1 = 0; i1 < d_.w1; ++i1) resid(o1 + i1, o2 + i2) += pdata_(i1, i2, j1);
            }
        }
        for (std::size_t i = 0; i < resid.flat().size(); ++i) resid.flat()[i] *= wallwt.flat()[i];
    }
};

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

void fx2d_lop(const FxDesign& asked, View<const float, 3> modl, View<float, 3> resi, qas::Session* session) {
    assert(resi.n == modl.n);
    const Index n1 = modl.n[2], n2 = modl.n[1], n3 = modl.n[0];
    const FxDesign design = fx2d_fit(asked, static_cast<int>(n1), static_cast<int>(n2)).design;
    const Array<float, 2> wallwt = fxwallwt(design, static_cast<int>(n1), static_cast<int>(n2));
    Window window(design);
    if (session) {
        session->to_history<int>("n1", static_cast<int>(window.frequencies()), filter_tag);
        session->to_history<int>("n2", design.noper, filter_tag);
        session->to_history<int>("n3", design.k1 * design.k2, filter_tag);
        session->to_history<int>("n4", static_cast<int>(n3), filter_tag);
        session->to_history<int>("esize", 4, filter_tag);
    }
    Array<float, 2> model({n1, n2}), resid({n1, n2});
    std::vector<float> filters;
    for (Index ix = 0; ix < n3; ++ix) {
        for (Index iz = 0; iz < n1; ++iz)
            for (Index ish = 0; ish < n2; ++ish) model(iz, ish) = modl(ix, ish, iz);
        filters.clear();
        window.run(model, wallwt, resid, session ? &filters : nullptr);
        for (Index iz = 0; iz < n1; ++iz)
            for (Index ish = 0; ish < n2; ++ish) resi(ix, ish, iz) = resid(iz, ish);
        if (session)
            session->srite(filter_tag, filters.data(), static_cast<std::int64_t>(filters.size() * sizeof(float)));
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
