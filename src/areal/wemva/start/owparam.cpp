#include "src/areal/wemva/run/ow_parms_areal.h"

#include <errno.h>

#include <cmath>
#include <concepts>
#include <cstdio>
#include <numeric>
#include <string_view>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"
#include "src/areal/wemva/start/checks.h"
#include "src/areal/wemva/start/output_headers.h"

namespace morvane {

namespace {

constexpr float two_pi = 2.0f * pi_f;

/// Takes the value of `key`; without one `value` keeps what it holds, which is the default.
template <qas::ParameterValue T>
void read(qas::Session& session, const char* key, T& value) {
    value = session.from_param<T>(key, value);
    if constexpr (std::same_as<T, float>)
        if (!std::isfinite(value)) refuse("%s=%g: a finite number is needed", key, value);
}

/// A text in a field of `width` characters.
void read_text(qas::Session& session, const char* key, std::size_t width, std::string& value) {
    value = session.from_param_text(key, value, width);
    value.erase(value.find_last_not_of(' ') + 1);
}

void read_name(qas::Session& session, const char* key, std::string& value) {
    read(session, key, value);
    value.erase(value.find_last_not_of(' ') + 1);
}

void read_axis(qas::Session& session, const char* tag, int number, Axis& axis) {
    const std::string k = std::to_string(number);
    axis.n = session.from_aux<int>(tag, "n" + k);
    axis.d = session.from_aux<float>(tag, "d" + k);
    axis.o = session.from_aux<float>(tag, "o" + k);
}

float end_of(const Axis& axis) {
    return static_cast<float>(axis.n - 1) * axis.d + axis.o;
}

/// The run ends with `text`; the numbers behind it go to standard error first.
template <class... Values>
[[noreturn]] void inconsistent(const char* text, const char* detail, Values... values) {
    std::fprintf(stderr, "%s: the values are: ", program_invocation_name);
    std::fprintf(stderr, detail, values...);
    std::fputc('\n', stderr);
    qas::qaserr("%s", text);
}

// --- reading ---------------------------------------------------------------------------------------------------------

void read_knots(qas::Session& session, Parms& par) {
    Axis x = par.axk, y = par.ayk, z = par.azk;
    read(session, "oxk", x.o);
    read(session, "dxk", x.d);
    read(session, "nxk", x.n);
    read(session, "oyk", y.o);
    read(session, "dyk", y.d);
    read(session, "nyk", y.n);
    read(session, "ozk", z.o);
    read(session, "dzk", z.d);
    read(session, "nzk", z.n);
    if (x.n == not_given && z.n == not_given) return;
    par.axk = x;
    par.ayk = y;
    par.azk = z;
}

void read_lateral_limits(qas::Session& session, Parms& par, float least, float most) {
    par.xv_min = least;
    par.xv_max = most;
    read(session, "xv_min", par.xv_min);
    read(session, "xv_max", par.xv_max);
}

void read_spline_only(qas::Session& session, Parms& par) {
    par.vspl = true;
    read_axis(session, "vel", 1, par.v.xm);
    read_axis(session, "vel", 3, par.v.z);
    read(session, "node", par.node);
    read_knots(session, par);
    read_lateral_limits(session, par, par.v.xm.o, end_of(par.v.xm));
}

void read_conditioning(qas::Session& session, Parms& par) {
    read(session, "dipflt", par.dipflt);
    if (par.dipflt) read(session, "frame", par.frame);
    read(session, "epscg", par.epscg);
    read_text(session, "cgsolv", 6, par.cgsolv);
    read_knots(session, par);
    read(session, "smooth", par.smooth);
    if (par.smooth) {
        read(session, "serg_na", par.serg_na);
        read(session, "serg_epsh", par.serg_epsh);
        read(session, "serg_niter", par.serg_niter);
        read(session, "serg_eps1", par.serg_eps1);
        read(session, "serg_eps2", par.serg_eps2);
        read(session, "dip_niter", par.dip_niter);
        read(session, "dip_eps", par.dip_eps);
    }
}

void read_modes(qas::Session& session, Parms& par) {
    read_text(session, "sufx", 12, par.sufx);
    read(session, "dot", par.dot);
    read(session, "adj", par.adj);
    read(session, "inversion", par.inversion);
    read(session, "dso", par.dso);
    read(session, "l1norm", par.l1norm);
    read(session, "windx", par.windx);
    read(session, "windh", par.windh);
    read(session, "windz", par.windz);
    read_text(session, "extrapolator", 6, par.extrap);
    read(session, "zwgt", par.zwgt);
    if (par.ffd()) {
        read(session, "dipop", par.dipop);
        read(session, "trick", par.trick);
    }
    if (par.dso) {
        read(session, "maxvchg", par.maxvchg);
        read(session, "moddso", par.moddso);
        par.expdso = 1.0f;
        read(session, "expdso", par.expdso);
        read(session, "envelope", par.envelope);
        if (par.envelope) {
            read(session, "tc1", par.tc1);
            read(session, "tc2", par.tc2);
            read(session, "freq", par.freq);
        }
    }
    read(session, "born2", par.born2);
    if (par.moddso) read(session, "beta", par.beta);
    read(session, "migration", par.migration);
    read(session, "areal", par.areal);
    read(session, "timeshift", par.timeshift);
    read_text(session, "imgcon", 7, par.imgcon);
    if (!par.quiet) list_write({std::string_view(par.imgcon)});  // whatever it is
    if (par.inversion && !par.dso) {
        read(session, "resmig", par.resmig);
        read(session, "rho", par.rho);
        if (!par.resmig) {
            read(session, "resmig_lin", par.resmig_lin);
            if (!par.resmig_lin) qas::qaserr("How to compute the perturbed image?");
        }
    }
}

/// Keys beyond the classic set are read, and so recorded, only where they were given.
void read_own_keys(qas::Session& session, Parms& par) {
    const auto given = [&](const char* key, auto& value) {
        if (session.exist_file(key)) read(session, key, value);
    };
    if (session.exist_file("fftplan")) read_name(session, "fftplan", par.fftplan);
    if (session.exist_file("gradient")) read_name(session, "gradient", par.gradient);
    given("normalise", par.normalise);
    given("fun_xmin", par.fun_xmin);
    given("fun_xmax", par.fun_xmax);
    given("firststep", par.firststep);
    given("light", par.light);
}

void read_run(qas::Session& session, Parms& par, float& wbott) {
    read(session, "impulse", par.impulse);
    read(session, "ymin", par.ymin);
    read(session, "ymax", par.ymax);
    read(session, "zmin", par.zmin);
    par.zmax = 0.0f;  // the bottom of a model that has not been read yet
    read(session, "zmax", par.zmax);
    read(session, "node", par.node);
    read(session, "niter", par.niter);
    if (!par.quiet) list_write({"****** NITER  = ", static_cast<long long>(par.niter)});
    read(session, "nxfilt", par.nxfilt);
    read(session, "wbott", wbott);
    read(session, "traces_in_taper", par.tapertr);
    par.padtraces = par.tapertr;
    read(session, "padtraces", par.padtraces);
    read(session, "maxang", par.maxang);
    read(session, "damp", par.damp);
    read(session, "zweight", par.zweight);
    if (par.timeshift) {
        read(session, "thresh", par.thresh);
        read(session, "nxw", par.nxw);
        read(session, "nah", par.nah);
        read(session, "dah", par.dah);
        read(session, "oah", par.oah);
        read(session, "nax", par.nax);
        read(session, "dax", par.dax);
        read(session, "oax", par.oax);
    }
    read_own_keys(session, par);
}

void read_data_axes(qas::Session& session, Parms& par) {
    read_axis(session, "rec", 1, par.rec.h);
    read_axis(session, "rec", 3, par.rec.w);
    read_axis(session, "rec", 4, par.rec.xd);
    read_axis(session, "sou", 1, par.sou.h);
    read_axis(session, "sou", 3, par.sou.w);
    read_axis(session, "sou", 4, par.sou.xd);
    read_axis(session, "vel", 1, par.v.xm);
    read_axis(session, "vel", 3, par.v.z);
}

void read_image_grid(qas::Session& session, Parms& par) {
    par.img.xm.n = session.from_aux<int>("deltaI", "n1");
    par.img.xm.o = session.from_aux<float>("deltaI", "o1");
    par.img.z.d = session.from_aux<float>("deltaI", "d1");
    read_axis(session, "deltaI", 2, par.timeshift ? par.img.th : par.img.sh);
    read_axis(session, "deltaI", 3, par.img.z);
    read_lateral_limits(session, par, par.v.xm.o, end_of(par.v.xm));
}

void read_references(qas::Session& session, Parms& par) {
    if (!par.pspi()) return;
    read(session, "nrefvel", par.nref);
    read(session, "lloyd", par.lloyd);
    if (!par.lloyd) {
        par.vsal = session.from_param<float>("vsal");
        if (!std::isfinite(par.vsal)) refuse("vsal=%g: a finite number is needed", par.vsal);
        return;
    }
    float percent = 1.0f, deviation = 9.0f, own = -1.0f;
    read(session, "min_region_pct", percent);
    par.min_r_pct = percent / 100.0f;
    read(session, "min_slow_dev", deviation);
    par.min_s_pct = deviation / 100.0f;
    read(session, "perc_start", par.perc_start);
    read(session, "vel_own", own);
    par.slow_own = 1.0f / own;
    read(session, "niter_lloyd", par.niter_over);
}

void read_wavefield_window(qas::Session& session, Parms& par) {
    read(session, "icwind", par.icwind);
    if (!par.icwind) return;
    float deltat = 0.048f, dt = 0.008f;
    read(session, "deltat", deltat);
    read(session, "dt", dt);
    if (!(dt > 0.0f)) refuse("dt=%g: the time step must be positive", dt);
    int p = 1;
    while (p < par.rec.w.n) p *= 2;
    par.n_sampt = 2 * p;
    par.n_wind = truncate(deltat / dt);
    if (par.n_wind % 2 == 0) ++par.n_wind;
}

void read_second_axis(qas::Session& session, Parms& par) {
    if (par.timeshift) {
        par.img.th = {121, 0.004f, -0.24f, {}};
        read(session, "nth", par.img.th.n);
        read(session, "oth", par.img.th.o);
        read(session, "dth", par.img.th.d);
        return;
    }
    Axis& sh = par.img.sh;
    int jh = 1;
    sh.n = 1;
    read(session, "nh", sh.n);
    read(session, "jh", jh);
    sh.d = static_cast<float>(jh) * par.img.xm.d;
    read(session, "dh", sh.d);
    sh.o = static_cast<float>(-(sh.n / 2)) * sh.d;
    read(session, "oh", sh.o);
    par.nh0 = truncate(static_cast<float>(sh.n) * 0.5f) + 1;
}

// --- consistency -----------------------------------------------------------------------------------------------------

void compare_data_and_source(const Parms& par) {
    const DatGrid &rec = par.rec, &sou = par.sou;
    if (sou.w.n != rec.w.n)
        inconsistent("# source freq. .ne. # receiver freq.", "n3=%d in sou, n3=%d in rec", sou.w.n, rec.w.n);
    if (sou.xd.n != 1) {
        if (sou.xd.n != rec.xd.n)
            inconsistent("# source planes. .ne. # receiver planes", "n4=%d in sou, n4=%d in rec", sou.xd.n, rec.xd.n);
        if (sou.h.n != rec.h.n)
            inconsistent("# source traces. .ne. # receiver traces", "n1=%d in sou, n1=%d in rec", sou.h.n, rec.h.n);
        if (sou.h.d != rec.h.d)
            inconsistent("source trace interval .ne. areal shot trace interval", "d1=%.9g in sou, d1=%.9g in rec",
                         sou.h.d, rec.h.d);
    }
    if (sou.w.d != rec.w.d)
        inconsistent("source freq.interval .ne. receiver freq.interval", "d3=%.9g in sou, d3=%.9g in rec", sou.w.d,
                     rec.w.d);
    if (sou.w.o != rec.w.o)
        inconsistent("source freq.origin .ne. receiver freq.origin", "o3=%.9g in sou, o3=%.9g in rec", sou.w.o,
                     rec.w.o);
}

void compare_perturbation_and_model(const Axis& z, const Axis& x, const Velo& v) {
    if (z.n != v.z.n)
        inconsistent("deltaS # depth samples .ne. velocity  ", "n3=%d in deltaS, n3=%d in vel", z.n, v.z.n);
    if (x.n != v.xm.n)
        inconsistent("deltaS # traces .ne. velocity interval ", "n1=%d in deltaS, n1=%d in vel", x.n, v.xm.n);
    if (z.d != v.z.d)
        inconsistent("deltaS depth interval .ne. velocity interval ", "d3=%.9g in deltaS, d3=%.9g in vel", z.d, v.z.d);
    if (x.d != v.xm.d)
        inconsistent("deltaS trace interval .ne. velocity interval ", "d1=%.9g in deltaS, d1=%.9g in vel", x.d, v.xm.d);
    if (z.o != v.z.o)
        inconsistent("deltaS depth origin .ne. velocity interval ", "o3=%.9g in deltaS, o3=%.9g in vel", z.o, v.z.o);
    if (x.o != v.xm.o)
        inconsistent("deltaS x origin .ne. velocity interval ", "o1=%.9g in deltaS, o1=%.9g in vel", x.o, v.xm.o);
}

void compare_image_and_model(const Parms& par) {
    const Axis &image = par.img.xm, &model = par.v.xm, &depth = par.v.z;
    if (model.o > image.o)
        inconsistent("Min.x-image space < Min.x-velocity",
                     "the image begins at %.9g (traces_in_taper=%d, padtraces=%d), vel at o1=%.9g", image.o,
                     par.tapertr, par.padtraces, model.o);
    if (end_of(image) > end_of(model))
        inconsistent("Max.x-image space > Max.x-velocity",
                     "the image ends at %.9g (traces_in_taper=%d, padtraces=%d), vel at %.9g", end_of(image),
                     par.tapertr, par.padtraces, end_of(model));
    if (depth.o > par.zmin)
        inconsistent("Min.z-image < Min.z-velocity", "zmin=%.9g, vel begins at o3=%.9g", par.zmin, depth.o);
    if (par.zmax > end_of(depth))
        inconsistent("Max.z-image > Max.z-velocity", "zmax=%.9g, vel ends at %.9g", par.zmax, end_of(depth));
}

// --- axes ------------------------------------------------------------------------------------------------------------

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

int count_levels(float distance, float step) {
    return truncate(static_cast<float>(truncate(distance / step)) + 1.5f);
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

// --- output headers --------------------------------------------------------------------------------------------------

void write_headers(qas::Session& session, const Parms& par) {
    constexpr const char* standard_output = "out";
    if (!par.inversion && par.adj) {
        write_model_shape(session, par, standard_output);
        for (const char* tag : {"ddws", "ddwr", "ddwsz", "ddwrz"})
            if (session.exist_file(tag)) write_wavefield_shape(session, par, tag);
    } else if (!par.inversion) {
        write_image_shape(session, par, standard_output);
        if (par.compensates()) write_model_shape(session, par, "illum");
    } else {
        if (par.compensates()) write_model_shape(session, par, "illum");
        for (const char* tag : {"grad", "Velout"})
            if (session.exist_file(tag)) write_model_shape(session, par, tag);
        for (const char* tag : {"Dimage", "bkgimg"})
            if (session.exist_file(tag)) write_image_shape(session, par, tag);
        write_model_shape(session, par, standard_output);
    }
    if (par.migration) write_image_shape(session, par, standard_output);
}

}  // namespace

Parms owparam(qas::Session& session) {
    session.inherit_outputs({"Velout", "grad", "bkgimg", "Dimage", "illum"});
    Parms par;
    if (session.exist_file("quiet")) read(session, "quiet", par.quiet);
    if (session.exist_file("strict")) read(session, "strict", par.strict);
    if (session.exist_file("vspl")) {
        read_spline_only(session, par);
        return par;
    }
    float wbott = 0.0f;
    read_conditioning(session, par);
    read_modes(session, par);
    read_run(session, par, wbott);
    read_data_axes(session, par);
    check_axes(par, session);

    const bool own_grid = par.inversion || par.dot || par.migration;
    Axis perturbation_z, perturbation_x;
    if (!own_grid && par.adj) {
        read_image_grid(session, par);
    } else if (!own_grid) {
        read_axis(session, "deltaS", 3, perturbation_z);
        read_axis(session, "deltaS", 1, perturbation_x);
    }
    read_references(session, par);
    compare_data_and_source(par);
    read_wavefield_window(session, par);
    set_image_line(par);
    if (session.exist_file("deltaI") || par.inversion)
        read_lateral_limits(session, par, par.img.xm.o + 10.0f * par.img.xm.d,
                            par.img.xm.o + static_cast<float>(par.img.xm.n - 1 - 10) * par.img.xm.d);
    par.img.ym = {1, 1.0f, 0.0f, {}};
    // With dot or migration deltaS has not been read, and there is nothing to compare.
    if (!own_grid && !par.adj) compare_perturbation_and_model(perturbation_z, perturbation_x, par.v);
    compare_image_and_model(par);
    set_depth_counts(par);
    check_depths(par);
    wbott = 0.0f;
    read(session, "wbott", wbott);

    if (!par.adj || own_grid) {
        read_second_axis(session, par);
        par.img.z.n = par.nz;
        par.img.z.o = par.zmin;
        par.img.z.d = par.v.z.d;
    }
    par.isp = std::abs(truncate(std::floor(par.rec.h.o / par.rec.h.d))) + 1;
    check_settings(par, session);
    check_input_files(par, session);
    if ((!par.adj || own_grid) && par.migration) write_image_shape(session, par, "bkgimg");
    write_headers(session, par);

    const float levels = static_cast<float>(truncate(wbott / par.v.z.d));
    wbott = levels * par.v.z.d;
    par.nwbott = truncate(wbott / par.v.z.d) + 1;
    par.dwbott = 0.5f * wbott;

    set_coordinates(par.img.z.all, par.nz, par.v.z.d, par.img.z.o);
    set_wavenumbers(par.kz, par.img.z);
    if (!par.timeshift) {
        set_wavenumbers(par.ksh, par.img.sh);
        if (par.ksh.n == 1) par.ksh.d = 1.0f / par.img.sh.d;
    }
    set_lateral_wavenumbers(par);
    const Axis& second = par.timeshift ? par.img.th : par.img.sh;
    par.nsecdim = second.n;
    par.dsecdim = second.d;
    par.osecdim = second.o;
    for (const char* tag : {"ddws", "ddwr", "dws", "dwr", "ddwsz", "ddwrz"})
        if (session.exist_file(tag)) write_wavefield_shape(session, par, tag);

    par.rec.w.o *= two_pi;
    par.rec.w.d *= two_pi;
    set_coordinates(par.rec.w.all, par.rec.w.n, par.rec.w.d, par.rec.w.o);
    if (!par.quiet) print_summary(par);
    return par;
}

}  // namespace morvane
