#include "src/areal/wemva/ow_image_areal.h"

#include <algorithm>
#include <cmath>

namespace {

/// Real and imaginary parts of a field in two rows of the scratch.
void split(View<const cf, 1> field, float* re, float* im) {
    const auto* const z = reinterpret_cast<const float*>(field.p);
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) {
        re[i] = z[2 * i];
        im[i] = z[2 * i + 1];
    }
}

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

/// out += image spread onto one field; the known field turned by `phase`, a time shift t by exp(i turn 2 w t).
void spread(const ImageCondition& condition, int iw, Spread side, cf phase, float turn, View<const cf, 1> known,
            View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch) {
    using Kind = ImageCondition::Kind;
    const std::ptrdiff_t nx = known.n[0];
    float* const kr = scratch.part.view().p;
    float* const ki = kr + nx;
    float* const gr = ki + nx;
    float* const gi = gr + nx;
    split(known, kr, ki);
    if (phase != cf(1.0f)) rotate(kr, ki, nx, phase);
    std::fill_n(gr, 2 * nx, 0.0f);
    if (condition.kind == Kind::time_shift) {
        for (std::size_t it = 0; it < condition.hto.size(); ++it) {
            const float a = turn * 2.0f * condition.hto[it] * condition.w[static_cast<std::size_t>(iw)];
            const float c = std::cos(a), s = std::sin(a);
            const float* const in = image.slice(static_cast<std::ptrdiff_t>(it)).p;
            for (std::ptrdiff_t i = 0; i < nx; ++i) {
                gr[i] += in[i] * (kr[i] * c - ki[i] * s);
                gi[i] += in[i] * (ki[i] * c + kr[i] * s);
            }
        }
    } else {
        for (std::size_t ih = 0; ih < condition.ihso.size(); ++ih) {
            const std::ptrdiff_t h = condition.ihso[ih];
            const std::ptrdiff_t to = side == Spread::source ? -h : h;  // source partner at x - h, receiver at x + h
            const Range range(nx, h);
            const float* const in = image.slice(static_cast<std::ptrdiff_t>(ih)).p;
            for (std::ptrdiff_t x = range.first; x < range.end; ++x) {
                gr[x + to] += in[x] * kr[x - to];
                gi[x + to] += in[x] * ki[x - to];
            }
        }
    }
    auto* const z = reinterpret_cast<float*>(out.p);
    for (std::ptrdiff_t i = 0; i < nx; ++i) {
        z[2 * i] += gr[i];
        z[2 * i + 1] += gi[i];
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
                     View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch) {
    using Kind = ImageCondition::Kind;
    if (condition.kind != Kind::offset && condition.kind != Kind::time_shift) return;
    spread(condition, iw, side, 1.0f, -1.0f, known, image, out, scratch);
}

void owimage_transpose(const ImageCondition& condition, int iw, Spread side, View<const cf, 1> known,
                       View<const float, 2> image, View<cf, 1> out, ImageScratch& scratch) {
    const bool source = side == Spread::source;
    cf phase = 1.0f;
    if (condition.rotated) phase = migration_phase(condition.w[static_cast<std::size_t>(iw)]);
    spread(condition, iw, side, source ? phase : std::conj(phase), source ? 1.0f : -1.0f, known, image, out, scratch);
}
