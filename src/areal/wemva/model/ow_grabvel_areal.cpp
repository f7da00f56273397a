#include "src/areal/wemva/model/ow_grabvel_areal.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"

namespace morvane {

namespace {

void write_axis(qas::Session& session, const char* tag, int number, int n, float d, float o) {
    const std::string k = std::to_string(number);
    session.to_history<int>("n" + k, n, tag);
    session.to_history<float>("d" + k, d, tag);
    session.to_history<float>("o" + k, o, tag);
}

/// Appends 1/vel to a debug output; a zero sample gives an infinity there.
void write_velocity(const Parms& par, qas::Session& session, const char* tag, View<const float, 2> vel, float o1) {
    write_axis(session, tag, 1, static_cast<int>(vel.n[0]), par.img.xm.d, o1);
    write_axis(session, tag, 2, 1, 1.0f, 0.0f);
    write_axis(session, tag, 3, par.img.z.n, par.img.z.d, par.img.z.o);
    for (const char* k : {"4", "5"}) {
        session.to_history<int>(std::string("n") + k, 1, tag);
        session.to_history<int>(std::string("d") + k, 1, tag);
        session.to_history<int>(std::string("o") + k, 0, tag);
    }
    session.to_history<int>("esize", 4, tag);
    std::vector<float> velocity(vel.flat().size());
    std::transform(vel.flat().begin(), vel.flat().end(), velocity.begin(), [](float s) { return 1.0f / s; });
    session.srite(tag, velocity.data(), static_cast<std::int64_t>(velocity.size() * sizeof(float)));
}

void copy_columns(View<const float, 2> from, std::ptrdiff_t first, View<float, 2> to) {
    assert(first >= 0 && first + to.n[0] <= from.n[0] && to.n[1] <= from.n[1]);
    for (std::ptrdiff_t iz = 0; iz < to.n[1]; ++iz) std::copy_n(from.slice(iz).p + first, to.n[0], to.slice(iz).p);
}

/// Depth of level j, and whether it lies strictly above the pick.
bool above(const Parms& par, float pick, std::ptrdiff_t j) {
    const float zz = static_cast<float>(j) * par.img.z.d + par.zmin;
    return std::trunc(pick) > zz;
}

}  // namespace

int cut_image(const Parms& par, View<const float, 2> velint, View<float, 2> vel) {
    const int ni = truncate(std::floor((par.img.xm.o - par.v.xm.o) / par.v.xm.d)) + 1;
    copy_columns(velint, ni - 1, vel);
    return ni;
}

namespace {

float window_start(const Parms& par, int ixs) {
    return par.rec.xd.o + par.rec.h.o - static_cast<float>(par.padtraces + par.tapertr) * par.rec.h.d +
           static_cast<float>(ixs - 1) * par.rec.xd.d;
}

}  // namespace

int window_column(const Parms& par, int ixs) {
    return truncate((window_start(par, ixs) - par.img.xm.o) / par.img.xm.d + 1.5f);
}

int owgrab_vel(const Parms& par, qas::Session& session, View<const float, 2> velint, View<float, 2> vel, bool imagem,
               int ixs) {
    if (imagem) {
        const int ni = cut_image(par, velint, vel);
        if (session.exist_file("xxx")) write_velocity(par, session, "xxx", vel, par.img.xm.o);
        return ni;
    }
    const float xv = window_start(par, ixs);
    const int ni = window_column(par, ixs);
    if (!par.quiet) list_write({static_cast<double>(xv), static_cast<long long>(ni)});
    copy_columns(velint, ni - 1, vel);
    if (session.exist_file("zzz")) write_velocity(par, session, "zzz", vel, xv);
    return ni;
}

void oweditvel(const Parms& par, std::span<const float> pick1, View<double, 2> vel, View<const float, 2> vel0) {
    const std::ptrdiff_t nx = vel.n[0], nz = vel.n[1];
    if (vel0.p) {
        for (std::ptrdiff_t k = 0; k < nx; ++k)
            for (std::ptrdiff_t j = 0; j < nz; ++j)
                if (above(par, pick1[static_cast<std::size_t>(k)], j)) vel(k, j) = vel0(k, j);
        return;
    }
    const auto column = [&](float x) { return truncate((x - par.img.xm.o) / par.img.xm.d + 1.5f); };
    const int nx_min = column(par.xv_min), nx_max = column(par.xv_max);
    if (!par.quiet) list_write({static_cast<long long>(nx_min), static_cast<long long>(nx_max)});
    const auto inside = [&](int number) { return std::clamp<std::ptrdiff_t>(number - 1, 0, nx - 1); };
    for (std::ptrdiff_t k = 0; k < nx; ++k) {
        for (std::ptrdiff_t j = 0; j < nz; ++j) {
            if (above(par, pick1[static_cast<std::size_t>(k)], j)) {
                vel(k, j) = 0.0;
                continue;
            }
            if (nx_min > k + 1) vel(k, j) = vel(inside(nx_min + 1), j);
            if (nx_max < k + 1) vel(k, j) = vel(inside(nx_max - 1), j);
        }
    }
}

void oweditvel_sngl(const Parms& par, std::span<const float> pick1, View<float, 2> vel, View<const float, 2> vel0) {
    for (std::ptrdiff_t k = 0; k < vel.n[0]; ++k)
        for (std::ptrdiff_t j = 0; j < vel.n[1]; ++j)
            if (above(par, pick1[static_cast<std::size_t>(k)], j)) vel(k, j) = vel0.p ? vel0(k, j) : 0.0f;
}

}  // namespace morvane
