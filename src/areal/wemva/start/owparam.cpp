#include "src/areal/wemva/start/owparam.h"

#include <cmath>
#include <concepts>
#include <string_view>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"
#include "src/areal/wemva/start/checks.h"
#include "src/areal/wemva/start/consistency.h"
#include "src/areal/wemva/start/output_headers.h"
#include "src/areal/wemva/start/run_axes.h"

namespace morvane {

namespace {

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

// --- reading ---------------------------------------------------------------------------------------------------------

void read_knots(qas::Session& session, Parms& par) {
    Axis x = par.axk, y = par.kept.ayk, z = par.azk;
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
    par.kept.ayk = y;
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
    read(session, "epscg", par.kept.epscg);
    read_text(session, "cgsolv", 6, par.kept.cgsolv);
    read_knots(session, par);
    read(session, "smooth", par.kept.smooth);
    if (par.kept.smooth) {
        read(session, "serg_na", par.kept.serg_na);
        read(session, "serg_epsh", par.kept.serg_epsh);
        read(session, "serg_niter", par.kept.serg_niter);
        read(session, "serg_eps1", par.kept.serg_eps1);
        read(session, "serg_eps2", par.kept.serg_eps2);
        read(session, "dip_niter", par.kept.dip_niter);
        read(session, "dip_eps", par.kept.dip_eps);
    }
}

void read_modes(qas::Session& session, Parms& par) {
    read_text(session, "sufx", 12, par.kept.sufx);
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
        read(session, "maxvchg", par.kept.maxvchg);
        read(session, "moddso", par.kept.moddso);
        par.expdso = 1.0f;
        read(session, "expdso", par.expdso);
        read(session, "envelope", par.kept.envelope);
        if (par.kept.envelope) {
            read(session, "tc1", par.tc1);
            read(session, "tc2", par.tc2);
            read(session, "freq", par.kept.freq);
        }
    }
    read(session, "born2", par.kept.born2);
    if (par.kept.moddso) read(session, "beta", par.kept.beta);
    read(session, "migration", par.migration);
    read(session, "areal", par.areal);
    read(session, "timeshift", par.timeshift);
    read_text(session, "imgcon", 7, par.imgcon);
    if (!par.quiet) list_write({std::string_view(par.imgcon)});  // whatever it is
    if (par.inversion && !par.dso) {
        read(session, "resmig", par.kept.resmig);
        read(session, "rho", par.kept.rho);
        if (!par.kept.resmig) {
            read(session, "resmig_lin", par.kept.resmig_lin);
            if (!par.kept.resmig_lin) qas::qaserr("How to compute the perturbed image?");
        }
    }
}

/// What follows the fit of predicted data, and stops by it.
void read_fit_keys(qas::Session& session, Parms& par) {
    par.course = session.exist_file("course");
    if (session.exist_file("stop")) {
        std::string stop;
        read_name(session, "stop", stop);
        if (stop != "fit") refuse("stop=%s: permitted is fit", stop.c_str());
        par.stops_by_fit = true;
    }
    const bool needed = par.stops_by_fit || session.exist_file("best");
    par.fit = needed;
    if (session.exist_file("fit")) read(session, "fit", par.fit);
    if (needed && !par.fit) refuse("fit=no: %s needs the fit", par.stops_by_fit ? "stop=fit" : "best");
    if (session.exist_file("stop_rise")) read(session, "stop_rise", par.stop_rise);
    if (session.exist_file("stop_patience")) read(session, "stop_patience", par.stop_patience);
}

void read_restart_keys(qas::Session& session, Parms& par) {
    if (session.exist_file("checkpoint")) read_name(session, "checkpoint", par.checkpoint);
    if (session.exist_file("checkpoint_minutes")) read(session, "checkpoint_minutes", par.checkpoint_minutes);
    if (session.exist_file("resume")) read_name(session, "resume", par.resume);
    if (session.exist_file("progress")) read(session, "progress", par.progress);
    if (par.checkpoint_minutes < 0.0f)
        refuse("checkpoint_minutes=%g: 0 (before each shot) or more is needed", par.checkpoint_minutes);
    if (par.resume == "yes") par.resume = "y";
    if (par.resume == "no") par.resume = "n";
    if (par.resume != "n" && par.resume != "y" && par.resume != "auto")
        refuse("resume=%s: n, y or auto is needed", par.resume.c_str());
    if (par.resume != "n" && par.checkpoint.empty())
        refuse("resume=%s: checkpoint=FILE is needed too, the file to go on from", par.resume.c_str());
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
    given("depthdiff", par.depthdiff);
    given("regularise", par.regularise);
    if (par.spline_grad()) {
        par.reg_x = par.axk.d;
        par.reg_z = par.azk.d;
    }
    given("reg_x", par.reg_x);
    given("reg_z", par.reg_z);
    read_fit_keys(session, par);
    read_restart_keys(session, par);
    given("light", par.light);
    given("reproducible", par.reproducible);
    if (session.exist_file("keep")) read_name(session, "keep", par.keep);
}

void read_run(qas::Session& session, Parms& par) {
    read(session, "impulse", par.kept.impulse);
    read(session, "ymin", par.kept.ymin);
    read(session, "ymax", par.kept.ymax);
    read(session, "zmin", par.zmin);
    par.zmax = 0.0f;  // the bottom of a model that has not been read yet
    read(session, "zmax", par.zmax);
    read(session, "node", par.node);
    read(session, "niter", par.niter);
    if (!par.quiet) list_write({"****** NITER  = ", static_cast<long long>(par.niter)});
    read(session, "nxfilt", par.nxfilt);
    float wbott = 0.0f;
    read(session, "wbott", wbott);  // recorded here; read again where it counts
    read(session, "traces_in_taper", par.tapertr);
    par.padtraces = par.tapertr;
    read(session, "padtraces", par.padtraces);
    read(session, "maxang", par.kept.maxang);
    read(session, "damp", par.kept.damp);
    read(session, "zweight", par.kept.zweight);
    if (par.timeshift) {
        read(session, "thresh", par.kept.thresh);
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
    read(session, "icwind", par.kept.icwind);
    if (!par.kept.icwind) return;
    float deltat = 0.048f, dt = 0.008f;
    read(session, "deltat", deltat);
    read(session, "dt", dt);
    if (!(dt > 0.0f)) refuse("dt=%g: the time step must be positive", dt);
    int p = 1;
    while (p < par.rec.w.n) p *= 2;
    par.kept.n_sampt = 2 * p;
    par.kept.n_wind = truncate(deltat / dt);
    if (par.kept.n_wind % 2 == 0) ++par.kept.n_wind;
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
    const int below_zero = sh.n / 2;
    sh.o = static_cast<float>(-below_zero) * sh.d;
    read(session, "oh", sh.o);
    par.kept.nh0 = truncate(static_cast<float>(sh.n) * 0.5f) + 1;
}

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
        for (const char* tag : {"best", "accepted"})
            if (session.exist_file(tag)) write_model_shape(session, par, tag);
        for (const char* tag : {"Dimage", "bkgimg"})
            if (session.exist_file(tag)) write_image_shape(session, par, tag);
        write_model_shape(session, par, standard_output);
    }
    if (par.migration) write_image_shape(session, par, standard_output);
}

/// Whether the image's grid follows from data and model; else it is read.
bool has_own_grid(const Parms& par) {
    return par.inversion || par.dot || par.migration;
}

/// The axes of the inputs, and whether they agree.
void read_grids(qas::Session& session, Parms& par) {
    read_data_axes(session, par);
    check_axes(par, session);
    const bool perturbed = !has_own_grid(par) && !par.adj;
    Axis perturbation_z, perturbation_x;
    if (!has_own_grid(par) && par.adj) {
        read_image_grid(session, par);
    } else if (perturbed) {
        read_axis(session, "deltaS", 3, perturbation_z);
        read_axis(session, "deltaS", 1, perturbation_x);
    }
    read_references(session, par);
    compare_data_and_source(par);
    read_wavefield_window(session, par);
    set_image_line(par);
    const Axis& x = par.img.xm;
    if (session.exist_file("deltaI") || par.inversion)
        read_lateral_limits(session, par, x.o + 10.0f * x.d, x.o + static_cast<float>(x.n - 1 - 10) * x.d);
    par.img.ym = {1, 1.0f, 0.0f, {}};
    if (perturbed) compare_perturbation_and_model(perturbation_z, perturbation_x, par.v);
    compare_image_and_model(par);
    set_depth_counts(par);
    check_depths(par);
}

/// The thickness of water, in whole levels.
void set_water_bottom(Parms& par, float wbott) {
    const float depth = static_cast<float>(truncate(wbott / par.v.z.d)) * par.v.z.d;
    par.kept.nwbott = truncate(depth / par.v.z.d) + 1;
    par.kept.dwbott = 0.5f * depth;
}

}  // namespace

Parms owparam(qas::Session& session) {
    session.inherit_outputs({"Velout", "grad", "bkgimg", "Dimage", "illum"});
    Parms par;
    if (session.exist_file("quiet")) read(session, "quiet", par.quiet);
    if (session.exist_file("strict")) read(session, "strict", par.strict);
    if (session.exist_file("check_signs")) read(session, "check_signs", par.check_signs);
    if (session.exist_file("vspl")) {
        read_spline_only(session, par);
        return par;
    }
    read_conditioning(session, par);
    read_modes(session, par);
    read_run(session, par);
    read_grids(session, par);
    float wbott = 0.0f;
    read(session, "wbott", wbott);
    const bool own_axes = !par.adj || has_own_grid(par);
    if (own_axes) {
        read_second_axis(session, par);
        par.img.z.n = par.nz;
        par.img.z.o = par.zmin;
        par.img.z.d = par.v.z.d;
    }
    par.isp = std::abs(truncate(std::floor(par.rec.h.o / par.rec.h.d))) + 1;
    check_settings(par, session);
    check_input_files(par, session);
    if (own_axes && par.migration) write_image_shape(session, par, "bkgimg");
    write_headers(session, par);
    set_water_bottom(par, wbott);
    set_image_axes(par);
    for (const char* tag : {"ddws", "ddwr", "dws", "dwr", "ddwsz", "ddwrz"})
        if (session.exist_file(tag)) write_wavefield_shape(session, par, tag);
    set_frequencies(par);
    if (!par.quiet) print_summary(par);
    return par;
}

}  // namespace morvane
