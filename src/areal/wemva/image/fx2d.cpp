#include "src/areal/wemva/image/fx2d.h"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <span>
#include <utility>

#include "lib/base/simd.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/areal/wemva/run/truncate.h"

namespace morvane {

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

// --- prediction ------------------------------------------------------------------------------------------------------

/// The same sample of neighbouring midpoints, which all go through the same arithmetic.
constexpr int midpoints_at_a_time = 16;
struct ComplexLanes {
    Float16 re{}, im{};
};

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

/// sum += a b
void add_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re += a.re * b.re - a.im * b.im;
    sum.im += a.re * b.im + a.im * b.re;
}
/// sum -= a b
void subtract_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re -= a.re * b.re - a.im * b.im;
    sum.im -= a.re * b.im + a.im * b.re;
}
/// sum += conj(a) b
void add_conj_product(const ComplexLanes& a, const ComplexLanes& b, ComplexLanes& sum) {
    sum.re += a.re * b.re + a.im * b.im;
    sum.im += a.re * b.im - a.im * b.re;
}
/// 1 / a, formed in double precision; 0 for 0.
void reciprocal(const ComplexLanes& a, ComplexLanes& result) {
    float re[midpoints_at_a_time], im[midpoints_at_a_time];
    std::memcpy(re, &a.re, sizeof re);
    std::memcpy(im, &a.im, sizeof im);
    for (int l = 0; l < midpoints_at_a_time; ++l) {
        const double size = double{re[l]} * re[l] + double{im[l]} * im[l];
        const double inverse = size == 0.0 ? 0.0 : 1.0 / size;
        re[l] = static_cast<float>(re[l] * inverse);
        im[l] = static_cast<float>(-im[l] * inverse);
    }
    std::memcpy(&result.re, re, sizeof re);
    std::memcpy(&result.im, im, sizeof im);
}

/// One-step prediction along a line of samples.
class Predictor {
    int m_;
    float lambda_;
    std::vector<ComplexLanes> corr_, a_, b_, inverse_, filter_;

    ComplexLanes& a(int i, int j) { return a_[static_cast<std::size_t>(i * m_ + j)]; }
    static std::size_t at(int i) { return static_cast<std::size_t>(i); }

    /// Gaussian elimination without pivoting.
    void ngauss() {
        for (int k = 0; k < m_; ++k) {
            reciprocal(a(k, k), inverse_[at(k)]);
            for (int i = k + 1; i < m_; ++i) {
                ComplexLanes factor;
                add_product(a(i, k), inverse_[at(k)], factor);
                for (int j = k + 1; j < m_; ++j) subtract_product(factor, a(k, j), a(i, j));
                subtract_product(factor, b_[at(k)], b_[at(i)]);
            }
        }
        for (int i = m_; i-- > 0;) {
            for (int j = i + 1; j < m_; ++j) subtract_product(a(i, j), filter_[at(j)], b_[at(i)]);
            filter_[at(i)] = {};
            add_product(b_[at(i)], inverse_[at(i)], filter_[at(i)]);
        }
    }

    /// Coefficients f of x(i) = sum over k = 1..m of f(k) x(i-k) in the least-squares sense, samples beyond the ends
    /// zero: a(j,k) = sum over i of conj(x(i-j)) x(i-k), b(j) = sum over i of conj(x(i-j)) x(i).
    void find_filter(const ComplexLanes* x, int n) {
        for (int lag = 0; lag <= m_; lag += 2) {  // two sums at a time hide the latency of each other
            const int next = std::min(lag + 1, m_);
            ComplexLanes sum, next_sum;
            for (int i = 0; i + lag < n; ++i) {
                add_conj_product(x[i], x[i + lag], sum);
                add_conj_product(x[i], x[i + next], next_sum);
            }
            corr_[at(lag)] = sum;
            corr_[at(next)] = next_sum;
        }
        for (int j = 0; j < m_; ++j) {
            b_[at(j)] = corr_[at(j + 1)];
            for (int k = 0; k < m_; ++k) {
                a(j, k) = corr_[at(std::abs(j - k))];
                if (j < k) a(j, k).im = -a(j, k).im;
            }
        }
        if (lambda_ == diagonal_only) {
            for (int i = 0; i < m_; ++i) {
                reciprocal(a(i, i), inverse_[at(i)]);
                filter_[at(i)] = {};
                add_product(b_[at(i)], inverse_[at(i)], filter_[at(i)]);
            }
            return;
        }
        for (int i = 0; i < m_; ++i) a(i, i).re *= 1.0f + lambda_ * lambda_;
        ngauss();
    }

public:
    Predictor(int noper, float lambda)
        : m_(noper - 1),
          lambda_(lambda),
          corr_(at(noper)),
          a_(at(m_ * m_)),
          b_(at(m_)),
          inverse_(at(m_)),
          filter_(at(m_)) {}

    /// noper - 1 coefficients of the last line.
    const std::vector<ComplexLanes>& filter() const { return filter_; }

    /// The mean of the predictions from below and from above: f(k) x(i-k) and, since the filter of the reversed line is
    /// the conjugate of the line's own, conj(f(k)) x(i+k). The ends have one prediction; a single sample has none.
    /// @param x n samples, and noper - 1 zeros before the first and after the last
    void predict(const ComplexLanes* x, int n, ComplexLanes* predicted) {
        find_filter(x, n);
        for (int i = 0; i < n; ++i) {
            ComplexLanes sum;
            for (int k = 1; k <= m_; ++k) {
                const ComplexLanes &f = filter_[at(k - 1)], &below = x[i - k], &above = x[i + k];
                sum.re += f.re * (below.re + above.re) - f.im * (below.im - above.im);
                sum.im += f.re * (below.im + above.im) + f.im * (below.re - above.re);
            }
            const float share = i == 0 || i == n - 1 ? 1.0f : 0.5f;
            predicted[i].re = sum.re * share;
            predicted[i].im = sum.im * share;
        }
    }
};

/// Unitary Fourier transform of real columns, frequencies 0 to n/2. By tables: for the few samples of a patch, and all
/// lanes at once, that is faster than a library's transform of one column after the other. Sample j and its mirror n -
/// j share a cosine, and a sine up to its sign. Two sums are formed at a time to hide the latency of each other.
class Ftu {
    int n_, half_;
    // (half + 1, half + 1) [k][j]; with the scale 1/sqrt(n); for the inverse [j][k], counting conjugate frequencies
    std::vector<float> cos_, sin_, inverse_cos_, inverse_sin_;
    std::vector<Float16> even_, odd_;

    const float* row(const std::vector<float>& table, int i) const { return table.data() + i * (half_ + 1); }
    static std::size_t at(int i) { return static_cast<std::size_t>(i); }

public:
    explicit Ftu(int n) : n_(n), half_(n / 2), even_(at(half_ + 1)), odd_(at(half_ + 1)) {
        if (n != pad2(n)) qas::erexit("ftu: nx not a power of 2");
        const double scale = 1.0 / std::sqrt(double(n));
        for (int row = 0; row <= half_; ++row)
            for (int i = 0; i <= half_; ++i) {
                const double phase = 2.0 * std::numbers::pi * (row * i % n) / n;
                const double share = i == 0 || 2 * i == n ? 1.0 : 2.0;
                cos_.push_back(static_cast<float>(scale * std::cos(phase)));
                sin_.push_back(static_cast<float>(-scale * std::sin(phase)));
                inverse_cos_.push_back(static_cast<float>(share * scale * std::cos(phase)));
                inverse_sin_.push_back(static_cast<float>(share * scale * std::sin(phase)));
            }
    }
    int frequencies() const { return half_ + 1; }

    /// Sign -1.
    /// @param x      count samples, zeros to n
    /// @param stride from one frequency of the spectrum to the next
    void forward(const Float16* x, int count, ComplexLanes* spectrum, std::size_t stride) {
        for (int j = 0; j <= half_; ++j) {
            even_[at(j)] = odd_[at(j)] = j < count ? x[j] : Float16{};
            const int mirror = n_ - j;
            if (mirror <= j || mirror >= count) continue;
            even_[at(j)] += x[mirror];
            odd_[at(j)] -= x[mirror];
        }
        for (int k = 0; k <= half_; k += 2) {
            const int next = std::min(k + 1, half_);
            const float *c0 = row(cos_, k), *s0 = row(sin_, k), *c1 = row(cos_, next), *s1 = row(sin_, next);
            Float16 re0{}, im0{}, re1{}, im1{};
            for (int j = 0; j <= half_; ++j) {
                re0 += even_[at(j)] * c0[j];
                im0 += odd_[at(j)] * s0[j];
                re1 += even_[at(j)] * c1[j];
                im1 += odd_[at(j)] * s1[j];
            }
            spectrum[at(k) * stride].re = re0;
            spectrum[at(k) * stride].im = im0;
            spectrum[at(next) * stride].re = re1;
            spectrum[at(next) * stride].im = im1;
        }
    }

    /// Sign +1, from the spectrum of a real column.
    void inverse(const ComplexLanes* spectrum, std::size_t stride, int count, Float16* x) {
        const auto keep = [&](int j, const Float16& even, const Float16& odd) {
            if (j < count) x[j] = even - odd;
            if (j > 0 && n_ - j > j && n_ - j < count) x[n_ - j] = even + odd;
        };
        for (int j = 0; j <= half_; j += 2) {
            const int next = std::min(j + 1, half_);
            const float *c0 = row(inverse_cos_, j), *s0 = row(inverse_sin_, j);
            const float *c1 = row(inverse_cos_, next), *s1 = row(inverse_sin_, next);
            Float16 even0{}, odd0{}, even1{}, odd1{};
            for (int k = 0; k <= half_; ++k) {
                const ComplexLanes& z = spectrum[at(k) * stride];
                even0 += z.re * c0[k];
                odd0 += z.im * s0[k];
                even1 += z.re * c1[k];
                odd1 += z.im * s1[k];
            }
            keep(j, even0, odd0);
            keep(next, even1, odd1);
        }
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
            const Kept kept(d_.w2, d_.noper, j2, d_.k2);
            const int o2 = patch_origin(n2_, d_.w2, j2, d_.k2);
            for (int j1 = 0; j1 < d_.k1; ++j1) {
                const int o1 = patch_origin(n1_, d_.w1, j1, d_.k1);
                fxdecon(o1, o2);
                if (filters) {
                    error_filters(filters, filter_size(d_), count);
                    filters += pad2(d_.w1) * d_.noper;
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

void fx2d_lop(const FxDesign& asked, View<const float, 3> modl, View<float, 3> resi, const FilterOutput* output) {
    assert(resi.n == modl.n);
    const auto n1 = static_cast<int>(modl.n[2]), n2 = static_cast<int>(modl.n[1]), n3 = static_cast<int>(modl.n[0]);
    const FxDesign design = fx2d_fit(asked, n1, n2).design;
    if (output) write_filter_header(*output, design, n3);
    const int nodes = design.node == node_default ? omp_get_max_threads() : std::max(design.node, 1);
    const Array<float, 2> wallwt = fxwallwt(design, n1, n2);
    std::vector<Window> windows(static_cast<std::size_t>(nodes), Window(design, n1, n2));
    const std::size_t filter_size = Window::filter_size(design);
    // midpoints whose filters are held at a time: a group a thread, more while they stay small
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
