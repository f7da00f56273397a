#pragma once
/// Small run parameters and fields for the tests of the wavefield code.
#include <cmath>
#include <random>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

struct WaveCase {
    int nx = 24, nz = 6, nw = 3;
    float dx = 10.0f, dz = 8.0f;
    float f0 = 12.0f, df = 4.0f;  // cycles/s
    const char* extrap = "pspi";
    int nref = 1, dipop = 45;
    float vsal = 9000.0f;
    int nh = 1, tapertr = 0, padtraces = 0;

    Parms parms() const {
        Parms p;
        p.extrap = extrap;
        p.nref = nref;
        p.dipop = dipop;
        p.vsal = vsal;
        p.inversion = p.dso = true;
        p.expdso = 1.0f;
        p.tapertr = tapertr;
        p.padtraces = padtraces;
        p.rec.h = {nx - 2 * (tapertr + padtraces), dx, 0.0f, {}};
        p.rec.xd = {1, dx, 0.0f, {}};
        p.sou.h = p.rec.h;
        p.rec.w.n = p.sou.w.n = nw;
        p.rec.w.d = 2.0f * pi_f * df;
        p.rec.w.o = 2.0f * pi_f * f0;
        for (int i = 0; i < nw; ++i) p.rec.w.all.push_back(static_cast<float>(i) * p.rec.w.d + p.rec.w.o);
        p.v.z = {nz, dz, 0.0f, {}};
        p.v.xm = {nx, dx, 0.0f, {}};
        p.img.z = p.v.z;
        p.img.xm = p.v.xm;
        p.img.sh = {nh, dx, -static_cast<float>(nh / 2) * dx, {}};
        p.nz = p.nzmax = nz;
        p.nzmin = 1;
        p.nsecdim = nh;
        p.dsecdim = p.img.sh.d;
        p.osecdim = p.img.sh.o;
        p.kxm.n = nx;
        p.kxm.d = 1.0f / (static_cast<float>(nx) * dx);
        p.kxm.o = 1.0f / (2.0f * dx) - p.kxm.d;
        for (int i = 0; i < nx; ++i) {
            const float k = std::fmod(static_cast<float>(i) * p.kxm.d + p.kxm.o, 1.0f / dx) - p.kxm.o;
            p.kxm.all.push_back(k * (2.0f * pi_f));
        }
        return p;
    }
};

inline void randomize(std::span<cf> field, unsigned seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<float> normal;
    for (cf& z : field) z = cf(normal(engine), normal(engine));
}
inline void randomize(std::span<float> field, unsigned seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<float> normal;
    for (float& z : field) z = normal(engine);
}

/// Slowness around 1/2000 s/m with a smooth lateral variation of the given share and a trend in depth.
inline Array<float, 2> slowness(int nx, int nz, float variation, float trend = 0.02f) {
    Array<float, 2> s({nx, nz});
    for (int iz = 0; iz < nz; ++iz) {
        for (int ix = 0; ix < nx; ++ix) {
            const float x = static_cast<float>(ix) / static_cast<float>(nx);
            s(ix, iz) = 5e-4f * (1.0f + variation * std::sin(6.0f * x + 0.5f * static_cast<float>(iz)) -
                                 trend * static_cast<float>(iz));
        }
    }
    return s;
}

/// |a - b| / |b|
template <class T>
double relative_difference(std::span<const T> a, std::span<const T> b) {
    double difference = 0.0, size = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference += std::norm(std::complex<double>(a[i]) - std::complex<double>(b[i]));
        size += std::norm(std::complex<double>(b[i]));
    }
    return std::sqrt(difference / (size > 0.0 ? size : 1.0));
}

}  // namespace morvane
