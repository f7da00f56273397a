#include "src/areal/wemva/start/run_axes.h"

#include <cmath>
#include <cstddef>

#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"

namespace morvane {

namespace {

constexpr float two_pi = 2.0f * pi_f;

int count_levels(float distance, float step) {
    return truncate(static_cast<float>(truncate(distance / step)) + 1.5f);
}

/// Wavenumbers of an axis in the order of a discrete Fourier transform, in rad/length. One sample: the value 0.
void set_wavenumbers(Axis& k, const Axis& axis) {
    k.n = axis.n;
    k.all.assign(static_cast<std::size_t>(k.n), 0.0f);
    if (k.n == 1) return;
    const int half = k.n / 2;
    const float length = static_cast<float>(k.n) * axis.d;
    for (int i = 0; i < k.n; ++i)
        k.all[static_cast<std::size_t>(i)] = static_cast<float>(i <= half ? i : i - k.n) / length * two_pi;
    k.d = k.all[1] - k.all[0];
}

void set_lateral_wavenumbers(Parms& par) {
    const float d = par.rec.h.d;
    Axis& k = par.kxm;
    k.n = par.rec.h.n + 2 * (par.padtraces + par.tapertr);
    k.d = 1.0f / (static_cast<float>(k.n) * d);
    k.o = 1.0f / (2.0f * d) - k.d;
    k.all.resize(static_cast<std::size_t>(k.n));
    for (int i = 0; i < k.n; ++i) {
        const float wrapped = std::fmod(static_cast<float>(i) * k.d + k.o, 1.0f / d) - k.o;
        k.all[static_cast<std::size_t>(i)] = wrapped * two_pi;
    }
}

void set_coordinates(std::vector<float>& all, int n, float d, float o) {
    all.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) all[static_cast<std::size_t>(i)] = static_cast<float>(i) * d + o;
}

}  // namespace

float end_of(const Axis& axis) {
    return static_cast<float>(axis.n - 1) * axis.d + axis.o;
}

void set_image_line(Parms& par) {
    const int margin = par.padtraces + par.tapertr;
    const Axis &h = par.rec.h, &xd = par.rec.xd;
    const int width = h.n + 2 * margin;
    par.img.xm.d = h.d;
    if (par.areal) {
        par.img.xm.n = width;
        par.img.xm.o = h.o - static_cast<float>(margin) * h.d;
    } else {
        par.img.xm.n = truncate(static_cast<float>(width) + static_cast<float>(xd.n - 1) * xd.d / h.d);
        par.img.xm.o = xd.o - static_cast<float>(margin) * h.d + h.o;
    }
}

void set_depth_counts(Parms& par) {
    const Axis& z = par.v.z;
    par.nz = count_levels(par.zmax - par.zmin, z.d);
    par.nzmax = count_levels(par.zmax - z.o, z.d);
    par.nzmin = count_levels(par.zmin - z.o, z.d);
    par.img.z.o = par.zmin;
    if (par.quiet) return;
    list_write({"*************************"});
    list_write({"* ", static_cast<long long>(par.nz), static_cast<long long>(par.nzmax),
                static_cast<long long>(par.nzmin), " *"});
    list_write({"*************************"});
}

void set_image_axes(Parms& par) {
    set_coordinates(par.img.z.all, par.nz, par.v.z.d, par.img.z.o);
    set_wavenumbers(par.kz, par.img.z);
    Axis& ksh = par.kept.ksh;
    if (!par.timeshift) {
        set_wavenumbers(ksh, par.img.sh);
        if (ksh.n == 1) ksh.d = 1.0f / par.img.sh.d;
    }
    set_lateral_wavenumbers(par);
    const Axis& second = par.timeshift ? par.img.th : par.img.sh;
    par.nsecdim = second.n;
    par.dsecdim = second.d;
    par.osecdim = second.o;
}

void set_frequencies(Parms& par) {
    par.rec.w.o *= two_pi;
    par.rec.w.d *= two_pi;
    set_coordinates(par.rec.w.all, par.rec.w.n, par.rec.w.d, par.rec.w.o);
}

}  // namespace morvane
