#include "src/areal/wemva/image/offset_band.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "lib/base/index.h"
#include "lib/base/simd.h"

namespace morvane {

namespace {

constexpr std::ptrdiff_t fewest_offsets = 8;  // below, a pass over the line for each offset is faster

std::ptrdiff_t round_up(std::ptrdiff_t n, std::ptrdiff_t unit) {
    return (n + unit - 1) / unit * unit;
}

Float8 load8(const float* p) {
    Float8 x;
    std::memcpy(&x, p, sizeof x);
    return x;
}

/// One row of offsets, some vectors of it: row += sum over the frequencies of Re(conj(s) r).
/// @param source   (lane_count, 2) of the row's u
/// @param receiver first partner of the first frequency
template <std::size_t n>
void add_row(const float* source, const float* receiver, std::ptrdiff_t imaginary, std::ptrdiff_t stride, int count,
             float* row) {
    Float8 sum[n];
    std::memcpy(sum, row, sizeof sum);
    for (int b = 0; b < count; ++b, receiver += stride) {
        const float re = source[b], im = source[lane_count + b];
        for (std::size_t k = 0; k < n; ++k)
            sum[k] +=
                re * load8(receiver + 8 * k) + im * load8(receiver + imaginary + 8 * static_cast<std::ptrdiff_t>(k));
    }
    std::memcpy(row, sum, sizeof sum);
}

using AddRow = void (*)(const float*, const float*, std::ptrdiff_t, std::ptrdiff_t, int, float*);
constexpr std::size_t most_vectors = 11;  // of a row at a time: what 16 registers hold beside the factors
template <std::size_t... n>
constexpr std::array<AddRow, most_vectors + 1> add_rows(std::index_sequence<n...>) {
    return {nullptr, add_row<n + 1>...};
}
constexpr auto add_row_of = add_rows(std::make_index_sequence<most_vectors>());

#ifdef __AVX512F__
constexpr int spread_lanes = 16, spread_samples = 8;
#else
constexpr int spread_lanes = 8, spread_samples = 4;
#endif
using SpreadLanes = Vector<float, spread_lanes>;

/// Brings a stretch of samples into the cache, part by part between other work.
class Fetch {
public:
    Fetch(const float* first, std::ptrdiff_t n, std::ptrdiff_t parts) : at_(first), end_(first + n) {
        each_ = round_up(n / std::max<std::ptrdiff_t>(parts, 1), 16);
    }
    void part() {
        for (const float* const to = std::min(at_ + each_, end_); at_ < to; at_ += 16) __builtin_prefetch(at_, 0, 2);
    }

private:
    const float *at_, *end_;
    std::ptrdiff_t each_;
};

}  // namespace

/// A few samples y_k = y_0 + k m of one class that are summed together, so that each known sample p is read once for
/// all of them. It meets y_k at offset i - k, on the receiver side at i + k, i counting along the p.
struct BandKernels::Tile {
    SpreadLanes re[spread_samples]{}, im[spread_samples]{};

    /// The samples first..end-1 of the tile, for one p.
    /// @param image image(k) is the sample of the slice that y_k and p share
    template <class Image>
    void add(const float* known, std::ptrdiff_t first, std::ptrdiff_t end, Image image) {
        SpreadLanes a, b;
        std::memcpy(&a, known, sizeof a);
        std::memcpy(&b, known + lane_count, sizeof b);
        for (std::ptrdiff_t k = first; k < end; ++k) {
            const float s = image(k);
            re[k] += s * a;
            im[k] += s * b;
        }
    }
    /// All samples of the tile, for all p of a run; the sums stay in registers.
    /// @param image image(i, k)
    template <class Image>
    void add_all(const float* known, std::ptrdiff_t stride, std::ptrdiff_t first, std::ptrdiff_t end, Image image) {
        SpreadLanes x[spread_samples], y[spread_samples];
        std::memcpy(x, re, sizeof x);
        std::memcpy(y, im, sizeof y);
        for (std::ptrdiff_t i = first; i < end; ++i, known += stride) {
            SpreadLanes a, b;
            std::memcpy(&a, known, sizeof a);
            std::memcpy(&b, known + lane_count, sizeof b);
#pragma GCC unroll 8
            for (std::ptrdiff_t k = 0; k < spread_samples; ++k) {
                const float s = image(i, k);
                x[k] += s * a;
                y[k] += s * b;
            }
        }
        std::memcpy(re, x, sizeof x);
        std::memcpy(im, y, sizeof y);
    }
    void store(float* out, std::ptrdiff_t stride, std::ptrdiff_t samples) const {
        for (std::ptrdiff_t k = 0; k < samples; ++k, out += stride) {
            std::memcpy(out, &re[k], sizeof(SpreadLanes));
            std::memcpy(out + lane_count, &im[k], sizeof(SpreadLanes));
        }
    }
};

OffsetBand::OffsetBand(const ImageCondition& condition, int nx) : nx_(nx) {
    using Kind = ImageCondition::Kind;
    const auto n = static_cast<std::ptrdiff_t>(condition.ihso.size());
    if (condition.kind != Kind::offset || n < fewest_offsets) return;
    const int between = condition.ihso[1] - condition.ihso[0];
    for (std::size_t i = 1; i < condition.ihso.size(); ++i)
        if (condition.ihso[i] - condition.ihso[i - 1] != between) return;
    if (between < 1) return;
    nh_ = n;
    first_offset_ = condition.ihso[0];
    step_ = 2 * between;
    row_ = round_up(nh_ + vector - 1, vector);
    pad_ = round_up(nh_, vector);
}

std::ptrdiff_t OffsetBand::class_of(std::ptrdiff_t u) const {
    const std::ptrdiff_t r = (u + 2 * first_offset_) % step_;
    return r < 0 ? r + step_ : r;
}

/// copy(sample of the slice, x, offset) for those with both partners on the line, a few u at a time.
template <class Copy>
void OffsetBand::for_all(Copy copy) const {
    constexpr std::ptrdiff_t some = 16;
    for (std::ptrdiff_t begin = 0; begin < nx_; begin += some) {
        const std::ptrdiff_t end = std::min(begin + some, nx_);
        std::ptrdiff_t starts[some];
        for (std::ptrdiff_t u = begin; u < end; ++u) starts[u - begin] = start(u);
        for (std::ptrdiff_t j = 0; j < nh_; ++j) {
            const std::ptrdiff_t h = first_offset_ + j * step_ / 2;
            const std::ptrdiff_t first = std::max(begin, -2 * h), last = std::min(end, nx_ - 2 * h);
            for (std::ptrdiff_t u = first; u < last; ++u) copy(starts[u - begin] + j, u + h, j);
        }
    }
}

void OffsetBand::add_to(const float* slice, View<float, 2> image) const {
    for_all([&](std::ptrdiff_t i, std::ptrdiff_t x, std::ptrdiff_t j) { image.p[j * nx_ + x] += slice[i]; });
}

void OffsetBand::take(View<const float, 2> image, float* slice) const {
    std::fill_n(slice, size(), 0.0f);
    for_all([&](std::ptrdiff_t i, std::ptrdiff_t x, std::ptrdiff_t j) { slice[i] = image.p[j * nx_ + x]; });
}

BandKernels::BandKernels(const OffsetBand& band, Arena& arena) : band_(band), length_(0) {
    if (!band.serves()) return;
    length_ = round_up(band.pad_ + band.nx_ / band.step_ + 1 + band.row_, OffsetBand::vector);
    starts_.reserve(at(band.nx_));
    for (std::ptrdiff_t u = 0; u < band.nx_; ++u) starts_.push_back(band.start(u));
    source_ = arena.take<float>(lane_count, 2, band.nx_);
    receiver_ = arena.take<float>(length_, band.step_, 2, lane_count);
    std::ranges::fill(receiver_.flat(), 0.0f);
}

void BandKernels::load(View<const cf, 2> ws, View<const cf, 2> wr, const cf* phase) {
    count_ = static_cast<int>(ws.n[1]);
    to_lanes(ws, source_);
    const std::ptrdiff_t nx = band_.nx_, m = band_.step_;
    for (int b = 0; b < count_; ++b) {
        const float* const z = parts(wr.slice(b).p);
        const float c = phase[b].real(), s = phase[b].imag();
        const bool turned = phase[b] != cf(1.0f);
        for (std::ptrdiff_t r = 0; r < m; ++r) {
            float* const re = receiver_.slice(b).slice(0).slice(r).p + band_.pad_;
            float* const im = receiver_.slice(b).slice(1).slice(r).p + band_.pad_;
            const std::ptrdiff_t n = (nx - r + m - 1) / m;
            const float* const in = z + 2 * r;
            const auto deinterleave = [&](std::ptrdiff_t stride) {
#pragma GCC ivdep
                for (std::ptrdiff_t i = 0; i < n; ++i) {
                    re[i] = in[stride * i];
                    im[i] = in[stride * i + 1];
                }
            };
            if (m == 2)
                deinterleave(4);  // a constant that the compiler turns into shuffles
            else
                deinterleave(2 * m);
            if (!turned) continue;
#pragma GCC ivdep
            for (std::ptrdiff_t i = 0; i < n; ++i) {
                const float x = re[i] * c - im[i] * s;
                im[i] = re[i] * s + im[i] * c;
                re[i] = x;
            }
        }
    }
}

void BandKernels::add(float* slice, const float* next) const {
    const std::ptrdiff_t nx = band_.nx_, vectors = band_.row_ / OffsetBand::vector;
    const std::ptrdiff_t imaginary = length_ * band_.step_, stride = 2 * imaginary;
    constexpr auto most = static_cast<std::ptrdiff_t>(most_vectors);
    const std::ptrdiff_t tiles = (vectors + most - 1) / most;
    for (std::ptrdiff_t u = 0; u < nx; ++u) {
        const std::ptrdiff_t first = u + 2 * band_.first_offset_;
        if (first >= nx || first + (band_.nh_ - 1) * band_.step_ < 0) continue;  // no partner on the line
        const std::ptrdiff_t partner = band_.first_partner(u) / OffsetBand::vector * OffsetBand::vector;
        const float* const receiver = receiver_.p + band_.class_of(u) * length_ + partner;
        float* const row = slice + u * band_.row_;
        if (next)
            for (std::ptrdiff_t i = 0; i < band_.row_; i += 16) __builtin_prefetch(next + u * band_.row_ + i, 1, 2);
        for (std::ptrdiff_t t = 0; t < tiles; ++t) {
            const std::ptrdiff_t begin = t * vectors / tiles, end = (t + 1) * vectors / tiles;
            add_row_of[at(end - begin)](source_.p + u * 2 * lane_count, receiver + 8 * begin, imaginary, stride, count_,
                                        row + 8 * begin);
        }
    }
}

/// The tile of y_0 on the source side: known samples p = p_0 + i m.
void BandKernels::sum_source(Tile& tile, std::ptrdiff_t y0, std::ptrdiff_t samples, const float* known,
                             const float* slice) const {
    const std::ptrdiff_t nx = band_.nx_, m = band_.step_, nh = band_.nh_, p0 = y0 + 2 * band_.first_offset_;
    const std::ptrdiff_t lo = p0 < 0 ? (-p0 + m - 1) / m : 0;
    const std::ptrdiff_t hi = std::min(nh + samples - 1, p0 < nx ? (nx - p0 + m - 1) / m : 0);
    const float* rows[spread_samples] = {};
    for (std::ptrdiff_t k = 0; k < samples; ++k) rows[k] = slice + starts_[at(y0 + k * m)] - k;
    const auto at_partner = [&](std::ptrdiff_t i) { return known + (p0 + i * m) * 2 * lane_count; };
    const auto some = [&](std::ptrdiff_t i) {
        tile.add(at_partner(i), std::max<std::ptrdiff_t>(0, i - nh + 1), std::min(samples, i + 1),
                 [&](std::ptrdiff_t k) { return rows[k][i]; });
    };
    const std::ptrdiff_t inner = std::clamp(samples == spread_samples ? samples - 1 : hi, lo, std::max(lo, hi));
    const std::ptrdiff_t outer = std::clamp(nh, inner, std::max(inner, hi));
    for (std::ptrdiff_t i = lo; i < inner; ++i) some(i);
    tile.add_all(at_partner(inner), m * 2 * lane_count, inner, outer,
                 [&](std::ptrdiff_t i, std::ptrdiff_t k) { return rows[k][i]; });
    for (std::ptrdiff_t i = outer; i < hi; ++i) some(i);
}

/// The tile of y_0 on the receiver side: known samples p = p_0 - i m.
void BandKernels::sum_receiver(Tile& tile, std::ptrdiff_t y0, std::ptrdiff_t samples, const float* known,
                               const float* slice) const {
    const std::ptrdiff_t nx = band_.nx_, m = band_.step_, nh = band_.nh_, p0 = y0 - 2 * band_.first_offset_;
    const std::ptrdiff_t lo = std::max(-(samples - 1), p0 >= nx ? (p0 - nx) / m + 1 : 1 - (nx - p0 + m - 1) / m);
    const std::ptrdiff_t hi = std::min(nh, p0 >= 0 ? p0 / m + 1 : -((-p0 + m - 1) / m) + 1);
    const auto at_partner = [&](std::ptrdiff_t i) { return known + (p0 - i * m) * 2 * lane_count; };
    const auto row = [&](std::ptrdiff_t i) { return slice + starts_[at(p0 - i * m)] + i; };
    const auto some = [&](std::ptrdiff_t i) {
        tile.add(at_partner(i), std::max<std::ptrdiff_t>(0, -i), std::min(samples, nh - i),
                 [in = row(i)](std::ptrdiff_t k) { return in[k]; });
    };
    const std::ptrdiff_t inner = std::clamp(samples == spread_samples ? std::ptrdiff_t{0} : hi, lo, std::max(lo, hi));
    const std::ptrdiff_t outer = std::clamp(nh - spread_samples + 1, inner, std::max(inner, hi));
    for (std::ptrdiff_t i = lo; i < inner; ++i) some(i);
    tile.add_all(at_partner(inner), -m * 2 * lane_count, inner, outer,
                 [&](std::ptrdiff_t i, std::ptrdiff_t k) { return row(i)[k]; });
    for (std::ptrdiff_t i = outer; i < hi; ++i) some(i);
}

void BandKernels::spread(Spread side, ConstLaneField known, int count, const float* slice, LaneField out,
                         const float* next) const {
    const std::ptrdiff_t nx = band_.nx_, m = band_.step_, half = band_.size() / 2;
    const bool to_source = side == Spread::source;
    // the other side's call brings the other half of the slice that comes next
    Fetch fetch(to_source ? next : next + half, next ? half : 0, nx / spread_samples);
    for (std::ptrdiff_t r = 0; r < std::min(m, nx); ++r) {
        for (std::ptrdiff_t y0 = r; y0 < nx; y0 += m * spread_samples) {
            const std::ptrdiff_t samples = std::min<std::ptrdiff_t>(spread_samples, (nx - y0 + m - 1) / m);
            fetch.part();
            for (int lane = 0; lane < count; lane += spread_lanes) {
                Tile tile;
                if (to_source)
                    sum_source(tile, y0, samples, known.p + lane, slice);
                else
                    sum_receiver(tile, y0, samples, known.p + lane, slice);
                tile.store(out.p + y0 * 2 * lane_count + lane, m * 2 * lane_count, samples);
            }
        }
    }
}

}  // namespace morvane
