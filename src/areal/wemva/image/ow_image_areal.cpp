#include "src/areal/wemva/image/ow_image_areal.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "lib/base/simd.h"

namespace morvane {

namespace {

/// Real and imaginary parts of a field in two rows of the scratch.
void split(View<const cf, 1> field, float* re, float* im) {
    const float* const z = parts(field.p);
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) {
        re[i] = z[2 * i];
        im[i] = z[2 * i + 1];
    }
}

Float8 load(const float* p) {
    Float8 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
void store(Float8 v, float* p) {
    std::memcpy(p, &v, sizeof v);
}

/// Brings a stretch of samples into the cache, one line at a time between other work. An image is larger than the
/// cache, and what the processor fetches by itself ends with each row of offsets.
class Fetch {
public:
    Fetch(const float* first, std::ptrdiff_t n) : first_(first), n_(n) {}
    void line() {
        if (at_ < n_) __builtin_prefetch(first_ + at_, 0, 2);  // for the second level: the first has work in hand
        at_ += 16;
    }

private:
    const float* first_;
    std::ptrdiff_t n_, at_ = 0;
};

void rotate(float* re, float* im, std::ptrdiff_t n, cf phase) {
    const float c = phase.real(), s = phase.imag();
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const float turned = re[i] * c - im[i] * s;
        im[i] = re[i] * s + im[i] * c;
        re[i] = turned;
    }
}

/// sqrt(w) exp(-i pi/4)
cf migration_phase(float w) {
    const float size = std::sqrt(w);
    return {size * std::cos(pi_f * 0.25f), -size * std::sin(pi_f * 0.25f)};
}

/// The samples x whose partners x-h and x+h both lie on a line of n.
struct Range {
    std::ptrdiff_t first, end;
    Range(std::ptrdiff_t n, std::ptrdiff_t h) : first(std::abs(h)), end(n - std::abs(h)) {}
};

/// out(y) += sum_h image(y + d, h) known(y + 2d), d = h onto the source side and -h onto the receiver side: sums of a
/// few samples at a time stay in registers while the offsets pass by. What is read beyond the ends of an image row
/// meets the zeros around the known field.
/// @param kr, ki parts of the known field, with a block of zeros on either side
/// @param gr, gi parts of the sum, as many whole blocks as hold the line
void spread_offsets(const std::vector<int>& ihso, Spread side, const float* kr, const float* ki,
                    View<const float, 2> image, float* gr, float* gi, Fetch next) {
    constexpr std::ptrdiff_t lanes = 8, rows = 4, block = lanes * rows;
    static_assert(block == ImageScratch::block);
    const std::ptrdiff_t nx = image.n[0], size = image.size();
    for (std::ptrdiff_t y = 0; y < nx; y += block) {
        Float8 re[rows] = {}, im[rows] = {};
        for (std::size_t ih = 0; ih < ihso.size(); ++ih) {
            const std::ptrdiff_t d = side == Spread::source ? ihso[ih] : -ihso[ih];
            const std::ptrdiff_t k = y + 2 * d;
            next.line();
            if (k >= nx || k + block <= 0) continue;
            const std::ptrdiff_t first = static_cast<std::ptrdiff_t>(ih) * nx + y + d;
            const float* in = image.p + first;
            float inside[block];
            if (first < 0 || first + block > size) {
                for (std::ptrdiff_t j = 0; j < block; ++j)
                    inside[j] = first + j < 0 || first + j >= size ? 0.0f : in[j];
                in = inside;
            }
            for (std::ptrdiff_t j = 0; j < rows; ++j) {
                const Float8 s = load(in + j * lanes);
                re[j] += s * load(kr + k + j * lanes);
                im[j] += s * load(ki + k + j * lanes);
            }
        }
        for (std::ptrdiff_t j = 0; j < rows; ++j) {
            store(re[j], gr + y + j * lanes);
            store(im[j], gi + y + j * lanes);
        }
    }
}

/// Parts of a field in the scratch: the known one between zeros, and the sums.
struct Rows {
    float *kr, *ki, *gr, *gi;
    explicit Rows(ImageScratch& scratch)
        : kr(scratch.padded.view().slice(0).p + ImageScratch::block),
          ki(scratch.padded.view().slice(1).p + ImageScratch::block),
          gr(scratch.sum.view().slice(0).p),
          gi(scratch.sum.view().slice(1).p) {}
};

/// gr, gi = image spread onto one field; the known field, in kr and ki, is turned by `phase`, a time shift t by
/// exp(i turn 2 w t).
void spread(const ImageCondition& condition, int iw, Spread side, cf phase, float turn, View<const float, 2> image,
            View<const float, 2> next, const Rows& rows) {
    using Kind = ImageCondition::Kind;
    const std::ptrdiff_t nx = image.n[0];
    const auto [kr, ki, gr, gi] = rows;
    if (phase != cf(1.0f)) rotate(kr, ki, nx, phase);
    if (condition.kind == Kind::offset) {
        const std::ptrdiff_t half = next.size() / 2;  // the other side's call brings the other half
        const Fetch part = side == Spread::source ? Fetch(next.p, half) : Fetch(next.p + half, next.size() - half);
        spread_offsets(condition.ihso, side, kr, ki, image, gr, gi, part);
    } else {
        std::fill_n(gr, nx, 0.0f);
        std::fill_n(gi, nx, 0.0f);
        for (std::size_t it = 0; it < condition.hto.size(); ++it) {
            const float a = turn * 2.0f * condition.hto[it] * condition.w[static_cast<std::size_t>(iw)];
            const float c = std::cos(a), s = std::sin(a);
            const float* const in = image.slice(static_cast<std::ptrdiff_t>(it)).p;
            for (std::ptrdiff_t i = 0; i < nx; ++i) {
                gr[i] += in[i] * (kr[i] * c - ki[i] * s);
                gi[i] += in[i] * (ki[i] * c + kr[i] * s);
            }
        }
    }
}

}  // namespace

ImageCondition::ImageCondition(const Parms& par) : w(par.rec.w.all) {
    if (par.imgcon == "imgprim" && par.timeshift) {
        kind = Kind::time_shift;
        for (int i = 0; i < par.img.th.n; ++i) hto.push_back(static_cast<float>(i) * par.img.th.d + par.img.th.o);
    } else if (!par.timeshift && (par.imgcon == "imgprim" || par.imgcon == "imgmult")) {
        kind = par.imgcon == "imgprim" ? Kind::offset : Kind::multiples;
        for (int i = 0; i < par.img.sh.n; ++i) {
            const float h = (static_cast<float>(i) * par.img.sh.d + par.img.sh.o) / par.img.xm.d;
            ihso.push_back(static_cast<int>(std::lround(h)));
        }
    }
    rotated = kind == Kind::offset && par.migration;
}

cf ImageCondition::receiver_phase(int iw) const {
    return rotated ? migration_phase(w[static_cast<std::size_t>(iw)]) : cf(1.0f);
}

void owimage_forward(const ImageCondition& condition, int iw, View<const cf, 1> ws, View<const cf, 1> wr,
                     View<float, 2> image, ImageScratch& scratch) {
    using Kind = ImageCondition::Kind;
    if (condition.kind == Kind::none) return;
    const std::ptrdiff_t nx = ws.n[0];
    float* const sr = scratch.part.view().p;
    float* const si = sr + nx;
    float* const rr = si + nx;
    float* const ri = rr + nx;
    const float w = condition.w[static_cast<std::size_t>(iw)];
    split(wr, rr, ri);
    if (condition.kind == Kind::multiples) {
        std::copy_n(rr, nx, sr);
        for (std::ptrdiff_t i = 0; i < nx; ++i) si[i] = -ri[i];
    } else {
        split(ws, sr, si);
    }
    if (condition.rotated) rotate(rr, ri, nx, migration_phase(w));
    if (condition.kind == Kind::time_shift) {
        for (std::ptrdiff_t i = 0; i < nx; ++i) {  // wr conj(ws) into the receiver rows
            const float re = rr[i] * sr[i] + ri[i] * si[i];
            ri[i] = ri[i] * sr[i] - rr[i] * si[i];
            rr[i] = re;
        }
        for (std::size_t it = 0; it < condition.hto.size(); ++it) {
            const float a = 2.0f * condition.hto[it] * w;
            const float c = std::cos(a), s = std::sin(a);
            float* const out = image.slice(static_cast<std::ptrdiff_t>(it)).p;
            for (std::ptrdiff_t i = 0; i < nx; ++i) out[i] += rr[i] * c - ri[i] * s;
        }
        return;
    }
    for (std::size_t ih = 0; ih < condition.ihso.size(); ++ih) {
        const std::ptrdiff_t h = condition.ihso[ih];
        const Range range(nx, h);
        float* const out = image.slice(static_cast<std::ptrdiff_t>(ih)).p;
        for (std::ptrdiff_t x = range.first; x < range.end; ++x) {
            out[x] += sr[x - h] * rr[x + h] + si[x - h] * ri[x + h];
        }
    }
}

void owimage_adjoint(const ImageCondition& condition, int iw, Spread side, View<const cf, 1> known,
                     View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch, View<const float, 2> next) {
    using Kind = ImageCondition::Kind;
    if (condition.kind != Kind::offset && condition.kind != Kind::time_shift) return;
    const Rows rows(scratch);
    split(known, rows.kr, rows.ki);
    spread(condition, iw, side, 1.0f, -1.0f, image, next, rows);
    float* const z = parts(out.p);
    for (std::ptrdiff_t i = 0; i < known.n[0]; ++i) {
        z[2 * i] += rows.gr[i];
        z[2 * i + 1] += rows.gi[i];
    }
}

void owimage_transpose(const ImageCondition& condition, int iw, Spread side, View<const float, 1> taper,
                       View<const cf, 1> known, View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch,
                       View<const float, 2> next) {
    const bool source = side == Spread::source;
    const cf phase = condition.receiver_phase(iw);
    const Rows rows(scratch);
    const float* const k = parts(known.p);
    for (std::ptrdiff_t i = 0; i < known.n[0]; ++i) {
        rows.kr[i] = taper.p[i] * k[2 * i];
        rows.ki[i] = taper.p[i] * k[2 * i + 1];
    }
    spread(condition, iw, side, source ? phase : std::conj(phase), source ? 1.0f : -1.0f, image, next, rows);
    float* const z = parts(out.p);
    for (std::ptrdiff_t i = 0; i < known.n[0]; ++i) {
        z[2 * i] = taper.p[i] * (z[2 * i] + rows.gr[i]);
        z[2 * i + 1] = taper.p[i] * (z[2 * i + 1] + rows.gi[i]);
    }
}

}  // namespace morvane
