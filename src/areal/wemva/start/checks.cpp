#include "src/areal/wemva/start/checks.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lib/base/warning.h"
#include "lib/class/ow_steer_parms.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"
#include "src/areal/wemva/start/horizon_file.h"
#include "src/areal/wemva/start/memory.h"

namespace morvane {

namespace {

constexpr int most_counted = 1 << 24;  // beyond it a float no longer counts every column, level or shot
constexpr int most_threads = 1024;
constexpr int most_frame = 1 << 20;
constexpr int most_references = 1000;
constexpr int most_differences = 2;
constexpr double most_coefficients = 1e8;
constexpr std::int64_t most_samples = 2147483647;
constexpr int good_factor = 13;  // the transform library has fast code for factors up to this one

double end_of(const Axis& axis) {
    return static_cast<double>(axis.n - 1) * axis.d + axis.o;
}

struct HeaderAxis {
    const char* tag;
    int number;
    const Axis& axis;
    int least;
    bool needs_step;
};

void check_axis(const HeaderAxis& a) {
    if (a.axis.n < a.least)
        refuse("n%d=%d in the header of %s: the number of samples must be %d or more", a.number, a.axis.n, a.tag,
               a.least);
    if (a.axis.n > most_counted)
        refuse("n%d=%d in the header of %s: at most %d samples are permitted", a.number, a.axis.n, a.tag, most_counted);
    if (!std::isfinite(a.axis.d) || !std::isfinite(a.axis.o))
        refuse("d%d=%g o%d=%g in the header of %s: both must be finite numbers", a.number, a.axis.d, a.number, a.axis.o,
               a.tag);
    if (a.needs_step && a.axis.d <= 0.0f)
        refuse("d%d=%g in the header of %s: the interval must be positive", a.number, a.axis.d, a.tag);
}

/// The size of a sample, where the header tells it.
void check_sample_size(qas::Session& session, const char* tag, int esize) {
    const int found = session.from_aux<int>(tag, "esize", esize);
    if (found != esize)
        refuse("esize=%d in the header of %s: its samples must be %s, esize=%d", found, tag,
               esize == 8 ? "complex" : "real", esize);
}

void check_frequencies(const char* tag, const Axis& w) {
    if (w.o < 0.0f || end_of(w) < 0.0)
        refuse("o3=%g d3=%g n3=%d in the header of %s: frequencies must not be negative", w.o, w.d, w.n, tag);
}

// --- spline, references, thread count -------------------------------------------------------------------------------

void check_knots(const char* letter, const Axis& knots, const Axis& image) {
    if (knots.n < 1) refuse("n%sk=%d: the number of knots must be 1 or more", letter, knots.n);
    if (!(knots.d > 0.0f)) refuse("d%sk=%g: the distance of the knots must be positive", letter, knots.d);
    const double reach = 2.0 * knots.d;
    if (knots.o - reach > image.o || end_of(knots) + reach < end_of(image))
        warn(
            "n%sk=%d d%sk=%g o%sk=%g: the knots reach from %g to %g, the image from %g to %g; the gradient is zero "
            "where no knot reaches",
            letter, knots.n, letter, knots.d, letter, knots.o, knots.o - reach, end_of(knots) + reach, image.o,
            end_of(image));
}

void check_spline(const Parms& par) {
    if (!par.spline_grad()) return;
    check_knots("x", par.axk, par.img.xm);
    check_knots("z", par.azk, par.img.z);
    const double coefficients = static_cast<double>(par.axk.n) * par.azk.n;
    if (coefficients > most_coefficients)
        refuse("nxk=%d nzk=%d: %.4g spline coefficients, at most 1e8 are permitted", par.axk.n, par.azk.n,
               coefficients);
    for (const auto& [letter, knots] : {std::pair("x", &par.axk), std::pair("z", &par.azk)})
        if (knots->n == not_given)
            warn("n%sk was not given: %d knots from o%sk=%g every d%sk=%g are taken", letter, knots->n, letter,
                 knots->o, letter, knots->d);
}

void check_extrapolator(const Parms& par) {
    if (par.ffd()) {
        constexpr std::array permitted = {15, 45, 65, 79, 80, 87, 89, 90};
        if (std::find(permitted.begin(), permitted.end(), par.dipop) == permitted.end())
            refuse("dipop=%d: permitted are 15, 45, 65, 79, 80, 87, 89 and 90", par.dipop);
    } else if (par.pspi()) {
        if (par.nref < 1 || par.nref > most_references)
            refuse("nrefvel=%d: permitted are 1 to %d reference slownesses", par.nref, most_references);
    } else {
        doubt(par.strict,
              "extrapolator=%s is not known (ffd and pspi are): the wavefields stay as they are at the surface",
              par.extrap.c_str());
    }
    if (!par.pspi() || !par.lloyd) return;
    if (!(par.min_r_pct >= 0.0f && par.min_r_pct <= 1.0f))
        refuse("min_region_pct=%g: permitted are 0 to 100 percent", 100.0 * par.min_r_pct);
    if (!std::isfinite(par.slow_own)) refuse("vel_own=0: a velocity other than 0 is needed; -1 means none");
}

void check_offsets(const Parms& par) {
    struct Keys {
        const char *n, *d, *o;
    };
    const Keys key = par.timeshift ? Keys{"nth", "dth", "oth"} : Keys{"nh", "dh", "oh"};
    const Axis& axis = par.timeshift ? par.img.th : par.img.sh;
    if (axis.n < 1) refuse("%s=%d: the number of samples must be 1 or more", key.n, axis.n);
    const std::int64_t plane = std::int64_t{par.img.xm.n} * par.nz;
    if (plane * axis.n > most_samples)
        refuse("%s=%d: image gathers of %d x %d x %d samples are too large; at most %lld are permitted for this image",
               key.n, axis.n, par.img.xm.n, axis.n, par.nz, static_cast<long long>(most_samples / plane));
    if (axis.n > 1 && axis.d == 0.0f) warn("%s=0: all %d samples of the second image axis are the same", key.d, axis.n);

    float largest = axis.o, widest = 0.0f;
    bool has_zero = false;
    for (int i = 0; i < axis.n; ++i) {
        const float h = static_cast<float>(i) * axis.d + axis.o;
        largest = std::max(largest, h);
        widest = std::max(widest, std::abs(h));
        has_zero = has_zero || h == 0.0f;
    }
    if (par.expdso == 0.0f) return;
    if (largest == 0.0f)
        refuse(
            "%s=%d %s=%g %s=%g: the largest value of the axis is 0, and expdso=%g divides by it: more samples are "
            "needed, or expdso=0",
            key.n, axis.n, key.d, axis.d, key.o, axis.o, par.expdso);
    if (par.expdso < 0.0f && has_zero)
        refuse("expdso=%g: a negative exponent gives the sample at zero an infinite weight (%s=%d %s=%g %s=%g)",
               par.expdso, key.n, axis.n, key.d, axis.d, key.o, axis.o);
    if (largest < 0.0f)
        warn("%s=%d %s=%g %s=%g: the largest value of the axis is negative (%g); all weights are relative to it", key.n,
             axis.n, key.d, axis.d, key.o, axis.o, largest);
    else if (widest > largest * 1.00001f)
        warn(
            "%s=%d %s=%g %s=%g: the axis is not symmetric and its weights are relative to its largest value %g, so "
            "that they reach %g; an odd %s makes it symmetric",
            key.n, axis.n, key.d, axis.d, key.o, axis.o, largest, std::pow(widest / largest, par.expdso), key.n);
}

// --- geometry --------------------------------------------------------------------------------------------------------

void check_model_window(const Parms& par) {
    const float quotient = (par.img.xm.o - par.v.xm.o) / par.v.xm.d;
    const std::int64_t first = std::int64_t{truncate(std::floor(quotient))} + 1;
    const std::int64_t last = first + par.img.xm.n - 1;
    if (first < 1 || last > par.v.xm.n)
        refuse(
            "the image takes columns %lld to %lld of vel, which has n1=%d: its trace interval d1=%g must be that of rec, d1=%g",
            static_cast<long long>(first), static_cast<long long>(last), par.v.xm.n, par.v.xm.d, par.rec.h.d);
    if (par.v.xm.d != par.img.xm.d)
        warn(
            "d1=%g in the header of vel is not the trace interval of rec, d1=%g: columns are taken one to one, without "
            "interpolation",
            par.v.xm.d, par.img.xm.d);
    if (const float off = quotient - std::floor(quotient); off > 1e-3f)
        warn(
            "the image starts %.6g columns into vel (o1=%.9g of the image, o1=%.9g of vel): column %lld is taken, and "
            "the model moves by the rest",
            quotient, par.img.xm.o, par.v.xm.o, static_cast<long long>(first));
}

void check_shot_windows(const Parms& par, int width) {
    if (par.areal) return;
    for (const int shot : {1, par.rec.xd.n}) {
        const float xv = par.rec.xd.o + par.rec.h.o - static_cast<float>(par.padtraces + par.tapertr) * par.rec.h.d +
                         static_cast<float>(shot - 1) * par.rec.xd.d;
        const std::int64_t first = truncate((xv - par.img.xm.o) / par.img.xm.d + 1.5f);
        const std::int64_t last = first + width - 1;
        if (first < 1 || last > par.img.xm.n)
            refuse(
                "shot %d of %d: its window is columns %lld to %lld of an image of %d columns; d4=%g o4=%g in the "
                "header of rec must be such that the shots move up the line by whole traces of d1=%g",
                shot, par.rec.xd.n, static_cast<long long>(first), static_cast<long long>(last), par.img.xm.n,
                par.rec.xd.d, par.rec.xd.o, par.rec.h.d);
    }
}

void check_sources(const Parms& par) {
    if (par.areal) {
        if (par.sou.h.n < par.rec.h.n)
            refuse(
                "n1=%d in the header of sou: areal=yes needs the %d traces of rec (areal=no takes one source function)",
                par.sou.h.n, par.rec.h.n);
        if (par.sou.xd.n < par.rec.xd.n)
            warn("n4=%d in the header of sou, n4=%d in that of rec: the shots after number %d have no source wavefield",
                 par.sou.xd.n, par.rec.xd.n, par.sou.xd.n);
        return;
    }
    if (par.sou.h.n != 1)
        warn("n1=%d in the header of sou: areal=no takes its first %d samples as the one source function", par.sou.h.n,
             par.sou.w.n);
    if (par.isp > par.rec.h.n)
        refuse(
            "o1=%g d1=%g in the header of rec put the source at trace %d of %d: it must lie within the traces of the shot",
            par.rec.h.o, par.rec.h.d, par.isp, par.rec.h.n);
    const float traces = par.rec.h.o / par.rec.h.d;
    if (traces > 0.0f)
        warn("o1=%g in the header of rec is positive, so the source lies before the first trace; it is put at trace %d",
             par.rec.h.o, par.isp);
    else if (traces - std::floor(traces) > 1e-3f)
        warn("o1=%g in the header of rec is no multiple of d1=%g: the source is put at trace %d", par.rec.h.o,
             par.rec.h.d, par.isp);
}

bool image_within_model(const Parms& par, int margin) {
    const double slack = 1e-3 * par.v.xm.d;
    const double first = (par.areal ? 0.0 : par.rec.xd.o) + par.rec.h.o - static_cast<double>(margin) * par.rec.h.d;
    const double shots = par.areal ? 0.0 : static_cast<double>(par.rec.xd.n - 1) * par.rec.xd.d;
    const double last = first + shots + (par.rec.h.n + 2.0 * margin - 1.0) * par.rec.h.d;
    return first >= par.v.xm.o - slack && last <= end_of(par.v.xm) + slack;
}

void check_transform_length(const Parms& par, int width) {
    const int factor = largest_prime_factor(width);
    if (factor <= good_factor) return;
    for (int step = 1; step <= 256; ++step) {
        for (const int pad : {par.padtraces + step, par.padtraces - step}) {
            if (pad < 0 || largest_prime_factor(par.rec.h.n + 2 * (par.tapertr + pad)) > good_factor ||
                !image_within_model(par, par.tapertr + pad))
                continue;
            warn(
                "padtraces=%d makes the transforms %d samples long, a multiple of the prime %d, which is slow; "
                "padtraces=%d is the nearest good value",
                par.padtraces, width, factor, pad);
            return;
        }
    }
    warn("padtraces=%d makes the transforms %d samples long, a multiple of the prime %d, which is slow", par.padtraces,
         width, factor);
}

void check_imaging(const Parms& par) {
    if (par.imgcon != "imgprim" && par.imgcon != "imgmult")
        doubt(par.strict, "imgcon=%s is not known (imgprim and imgmult are): the image stays zero", par.imgcon.c_str());
    else if (par.imgcon == "imgmult" && par.timeshift)
        doubt(par.strict, "imgcon=imgmult forms no image with timeshift=yes: image, fun and gradient are zero");
    else if (par.imgcon == "imgmult")
        doubt(par.strict,
              "imgcon=imgmult has no adjoint: the gradient is zero, and the run ends after its first evaluation");
    if (par.timeshift && !par.exact())
        doubt(par.strict,
              "timeshift=yes: fun is summed over the offset axis, which is not set with time shifts, so that it is 0");
}

}  // namespace

int largest_prime_factor(int n) {
    int largest = 1;
    for (int p = 2; p <= n / p; ++p) {
        while (n % p == 0) {
            largest = p;
            n /= p;
        }
    }
    return std::max(largest, n);
}

void check_axes(const Parms& par, qas::Session& session) {
    for (const HeaderAxis& a : {
             HeaderAxis{"rec", 1, par.rec.h, 1, true},
             HeaderAxis{"rec", 3, par.rec.w, 1, false},
             HeaderAxis{"rec", 4, par.rec.xd, 1, false},
             HeaderAxis{"sou", 1, par.sou.h, 1, false},
             HeaderAxis{"sou", 3, par.sou.w, 1, false},
             HeaderAxis{"sou", 4, par.sou.xd, 0, false},
             HeaderAxis{"vel", 1, par.v.xm, 1, true},
             HeaderAxis{"vel", 3, par.v.z, 1, true},
         })
        check_axis(a);
    check_frequencies("rec", par.rec.w);
    check_frequencies("sou", par.sou.w);
    check_sample_size(session, "rec", 8);
    check_sample_size(session, "sou", 8);
    check_sample_size(session, "vel", 4);
    session.check_data_size("rec", std::int64_t{8} * par.rec.h.n * par.rec.w.n, "n1*n3");
    if (par.areal) session.check_data_size("sou", std::int64_t{8} * par.sou.h.n * par.sou.w.n, "n1*n3");
    session.check_data_size("vel", std::int64_t{4} * par.v.xm.n * par.v.z.n, "n1*n3");

    if (par.tapertr < 0) refuse("traces_in_taper=%d: 0 or more are permitted", par.tapertr);
    if (par.padtraces < 0) refuse("padtraces=%d: 0 or more are permitted", par.padtraces);
    const std::int64_t width = par.rec.h.n + 2 * (std::int64_t{par.tapertr} + par.padtraces);
    if (width > most_counted)
        refuse("traces_in_taper=%d padtraces=%d: a line of %lld columns, at most %d are permitted", par.tapertr,
               par.padtraces, static_cast<long long>(width), most_counted);
}

void check_depths(const Parms& par) {
    const float top = par.v.z.o, step = par.v.z.d;
    if (par.nz < 1 || par.zmax < par.zmin)
        refuse("zmin=%g zmax=%g: the image needs zmax at or below zmin", par.zmin, par.zmax);
    if (par.nzmin != 1)
        refuse("zmin=%g: the image must begin less than a depth step d3=%g below the top of the model, o3=%g", par.zmin,
               step, top);
    if (par.zmin != top)
        warn(
            "zmin=%g is not the top of the model, o3=%g: depth rows are taken one to one, so that the image is "
            "labelled %g too deep",
            par.zmin, top, static_cast<double>(par.zmin) - top);
    if (par.nzmax != par.nz)
        refuse("zmin=%g zmax=%g: %d levels from zmin and %d from the top of the model, o3=%g: zmin must be the top",
               par.zmin, par.zmax, par.nz, par.nzmax, top);

    const auto levels = [&](float zmax) { return truncate((zmax - par.zmin) / step); };
    const float quotient = (par.zmax - par.zmin) / step;
    const int nearest = truncate(std::floor(quotient + 0.5f));
    const float rounding = 4e-7f * (std::abs(par.zmax) + std::abs(par.zmin)) / step;
    if (nearest > levels(par.zmax) && static_cast<float>(nearest) - quotient < rounding) {
        float better = par.zmax;
        while (levels(better) < nearest) better = std::nextafter(better, INFINITY);
        const float bottom = static_cast<float>(par.v.z.n - 1) * step + top;
        warn("zmax=%.9g is %.9g steps below zmin, of which rounding leaves %d: %s%.9g keeps level %d", par.zmax,
             quotient, levels(par.zmax), better > bottom ? "with a deeper model zmax=" : "zmax=", better, nearest + 1);
    }
    if (par.nz == 1) warn("zmin=%g zmax=%g: one depth level only, so nothing is imaged; give zmax", par.zmin, par.zmax);
}

/// The dip filter's keys and dips against the image; what the prediction's patches were fitted to.
void check_conditioning(const Parms& par, qas::Session& session) {
    if (par.dipflt) {
        if (par.frame < 0 || par.frame > most_frame)
            refuse("frame=%d: permitted are 0 to %d rows", par.frame, most_frame);
        Axis z = par.v.z;
        z.n = par.nz;
        z.o = par.zmin;
        owsteer_check(session, z, par.img.xm, par.frame);
    }
    if (par.nxfilt != not_given) {
        const int second = par.timeshift ? par.img.th.n : par.img.sh.n;
        for (const std::string& note : fx2d_fit(fx2d_design(par), par.nz, second).notes) warn("%s", note.c_str());
    }
}

/// The differences in depth and the regularisation, which the exact gradient alone knows.
void check_added_terms(const Parms& par) {
    if (par.depthdiff < 0 || par.depthdiff > most_differences)
        refuse("depthdiff=%d: permitted are 0 to %d differences", par.depthdiff, most_differences);
    if (par.depthdiff > 0 && par.nz < par.depthdiff + 2)
        refuse("depthdiff=%d: the image has %d levels, at least %d are needed", par.depthdiff, par.nz,
               par.depthdiff + 2);
    if (par.regularise < 0.0f) refuse("regularise=%g: permitted is a weight of 0 or more", par.regularise);
    for (const auto& [key, length] : {std::pair("reg_x", par.reg_x), std::pair("reg_z", par.reg_z)}) {
        if (length < 0.0f) refuse("%s=%g: permitted is a length of 0 or more", key, length);
    }
    if (par.regularise > 0.0f && par.reg_x == 0.0f && par.reg_z == 0.0f)
        refuse("regularise=%g: without knots the lengths reg_x and reg_z are needed, one of them greater than 0",
               par.regularise);
}

void check_stop_rule(const Parms& par) {
    if (!(par.stop_rise >= 0.0f && par.stop_rise < 1.0f))
        refuse("stop_rise=%g: permitted is a rise of fit of 0 or more, and less than 1", par.stop_rise);
    if (par.stop_patience < 1) refuse("stop_patience=%d: permitted are 1 or more accepted models", par.stop_patience);
}

/// The fit of predicted data, and stopping by it.
void check_fit(const Parms& par, qas::Session& session) {
    check_stop_rule(par);
    for (const char* key : {"stop_rise", "stop_patience"})
        if (session.exist_file(key) && !par.stops_by_fit) warn("%s: without effect, since stop=fit is not given", key);
    if (!par.fit) return;
    if (zero_sample(par) < 0) {
        const Axis& axis = par.timeshift ? par.img.th : par.img.sh;
        refuse("fit=yes: the image has no sample at 0, from which to predict data (%d samples, %g apart, from %g)",
               axis.n, axis.d, axis.o);
    }
    if (par.migration) refuse("fit=yes: not with migration=yes, whose image has another phase than the data");
}

/// The keys of the exact gradient and of the first step.
void check_exact(const Parms& par, qas::Session& session) {
    if (par.gradient != "classic" && par.gradient != "exact")
        refuse("gradient=%s: permitted are classic and exact", par.gradient.c_str());
    if (session.exist_file("firststep") && !(par.firststep > 0.0f && par.firststep < 1.0f))
        refuse("firststep=%g: permitted is a fraction of slowness, more than 0 and less than 1", par.firststep);
    if (!par.exact()) {
        for (const char* key : keys_of_exact_mode)
            if (session.exist_file(key)) refuse("%s: takes effect with gradient=exact only", key);
        if (par.reproducible)
            refuse(
                "reproducible=yes: not with gradient=classic, in which a thread carries the margins of its columns from "
                "frequency to frequency, so that the image depends on which thread takes which; gradient=exact clears them");
        if (par.light && par.timeshift) warn("light=yes: without effect with timeshift=yes");
        return;
    }
    if (par.dipflt)
        refuse("dipflt=yes: not with gradient=exact, whose gradient would no longer be the derivative of fun");
    if (par.nxfilt != not_given)
        refuse("nxfilt=%d: not with gradient=exact, since the prediction filters depend on the image", par.nxfilt);
    check_added_terms(par);
    check_fit(par, session);
    if (par.light) refuse("light=yes: not with gradient=exact, which has no derivative of the illumination");
    if (par.imgcon != "imgprim")
        refuse("imgcon=%s: gradient=exact has the derivative of imgprim only", par.imgcon.c_str());
    bool counts = par.img.xm.n < 1;  // refused below
    for (int ix = 0; ix < par.img.xm.n; ++ix) counts |= par.counts_in_fun(ix);
    if (!counts)
        refuse("fun_xmin=%g fun_xmax=%g: no image column lies between them; the columns stand every %g from %g to %g",
               par.fun_xmin, par.fun_xmax, par.img.xm.d, par.img.xm.o, end_of(par.img.xm));
    for (const char* tag : {"ddws", "ddwr", "ddwsz", "ddwrz"})
        if (session.exist_file(tag))
            warn("%s: gradient=exact forms no such wavefield; only its header is written", tag);
}

void check_stage(const Parms& par) {
    if (par.niter < 1) refuse("niter=%d: a stage needs 1 or more iterations", par.niter);
    if (par.firststep < 0.0f || par.firststep >= 1.0f)
        refuse("firststep=%g: permitted is a fraction of slowness, more than 0 and less than 1", par.firststep);
    if (par.spline_grad() && (par.axk.n == not_given || par.azk.n == not_given))
        refuse("stages: knots are needed in the run's own keys, across and in depth, where a stage sets some");
    check_spline(par);
    check_offsets(par);
    check_added_terms(par);
    check_stop_rule(par);
}

void check_settings(const Parms& par, qas::Session& session) {
    check_exact(par, session);
    if (par.node != node_default && (par.node < 1 || par.node > most_threads))
        refuse("node=%d: permitted are 1 to %d threads (and %d: as many as the runtime gives)", par.node, most_threads,
               node_default);
    if (par.fftplan != "auto" && par.fftplan != "patient" && par.fftplan != "estimate")
        refuse("fftplan=%s: permitted are auto, patient and estimate", par.fftplan.c_str());
    static_cast<void>(keep_limit(par.keep));
    if (par.reproducible && par.fftplan == "patient")
        refuse("fftplan=patient: not with reproducible=yes, since plans that are measured differ in their last bits");
    if (par.l1norm)
        for (const auto& [key, value] :
             {std::pair("windx", par.windx), std::pair("windh", par.windh), std::pair("windz", par.windz)})
            if (value < 1) refuse("%s=%d: 1 or more is permitted", key, value);
    if (!par.inversion)
        warn("inversion is not given as yes: Velout, grad, bkgimg and Dimage get no axes in their headers");
    if (par.img.z.n != par.nz || par.img.z.d != par.v.z.d)
        refuse("n3=%d d3=%g in the header of deltaI: the image has %d levels (zmin=%g, zmax=%g) of d3=%g", par.img.z.n,
               par.img.z.d, par.nz, par.zmin, par.zmax, par.v.z.d);

    const int width = par.rec.h.n + 2 * (par.tapertr + par.padtraces);
    if (par.img.xm.n < 1)
        refuse("n4=%d d4=%g in the header of rec: the line they make has no columns", par.rec.xd.n, par.rec.xd.d);
    if (std::int64_t{par.img.xm.n} * par.nz > most_samples / 3)
        refuse("an image of %d columns and %d levels is too large: at most %lld samples are permitted", par.img.xm.n,
               par.nz, static_cast<long long>(most_samples / 3));
    check_model_window(par);
    check_shot_windows(par, width);
    check_sources(par);
    check_offsets(par);
    check_extrapolator(par);
    check_imaging(par);
    check_spline(par);
    check_conditioning(par, session);
    check_transform_length(par, width);
}

std::vector<std::string> outputs_with_data(const Parms& par, qas::Session& session) {
    std::vector<std::string> tags{"Velout", "bkgimg", "Dimage", "grad"};
    const auto add_given = [&](const char* tag, bool written) {
        if (written && session.exist_file(tag)) tags.push_back(tag);
    };
    if (par.compensates()) tags.push_back("illum");
    for (const char* tag : {"ddws", "ddwr", "ddwsz", "ddwrz"}) add_given(tag, !par.exact());
    add_given("best", true);
    add_given("accepted", true);
    add_given("xxx", true);
    add_given("zzz", !par.areal);
    add_given("maskout", par.dipflt);
    if (par.nxfilt != not_given) tags.push_back("oper-fxdecon.H");
    return tags;
}

namespace {

struct Range {
    float least, most;
};

/// Smallest and largest slowness of a model whose samples are all positive and finite; any other is refused.
Range slowness_range(View<const float, 2> vel0) {
    std::int64_t bad = 0, first = 0;
    float least = INFINITY, most = 0.0f;
    const auto samples = vel0.flat();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (!(samples[i] > 0.0f && std::isfinite(samples[i]))) {
            if (bad++ == 0) first = static_cast<std::int64_t>(i);
            continue;
        }
        least = std::min(least, samples[i]);
        most = std::max(most, samples[i]);
    }
    if (bad > 0)
        refuse(
            "vel: %lld of %zu samples within the image are not positive and finite, the first in column %lld, level "
            "%lld (%g): the dataset must hold slowness, greater than 0",
            static_cast<long long>(bad), samples.size(), static_cast<long long>(first % vel0.n[0] + 1),
            static_cast<long long>(first / vel0.n[0] + 1),
            static_cast<double>(samples[static_cast<std::size_t>(first)]));
    return {least, most};
}

/// The dip filter takes the horizon as row numbers of the padded column, and holds the rows above it at zero.
void check_mask(const Parms& par, const std::string& horizon, std::span<const float> picks) {
    const auto last_row = static_cast<float>(par.frame + par.nz);
    if (par.dipflt && std::ranges::all_of(picks, [&](float pick) { return std::trunc(pick) > last_row; }))
        refuse(
            "horv0=%s: dipflt=yes takes its values as row numbers of the padded column, and all of them lie below the "
            "last row of the image, %g (frame=%d): nothing of the gradient would be left",
            horizon.c_str(), last_row, par.frame);
}

}  // namespace

void check_input_files(const Parms& par, qas::Session& session) {
    if (session.exist_file("horv0")) {
        const std::string name = session.getch<std::string>("horv0").value_or("");
        check_mask(par, name, read_horizon(name, par.img.xm.n));
    }
    for (const char* tag : {"vel", "rec", "sou"}) session.make_unpipe(tag);
    Array<float, 2> whole({par.v.xm.n, par.v.z.n}), image({par.img.xm.n, par.img.z.n});
    session.sreed("vel", whole.view().p, static_cast<std::int64_t>(whole.flat().size_bytes()));
    session.sseek("vel", 0, 0);
    cut_image(par, whole, image);
    slowness_range(image);
}

void check_model(const Parms& par, View<const float, 2> vel0) {
    const auto [least, most] = slowness_range(vel0);
    // Cycles of the highest frequency within one depth step: about 0.01 to 0.5 in any consistent set of units.
    const double frequency = std::max<double>(par.sou.w.o, end_of(par.sou.w));
    const double cycles = frequency * most * par.v.z.d;
    if (frequency > 0.0 && (cycles > 2.0 || cycles < 1e-4))
        warn(
            "vel holds values of %g to %g: as slowness they make %.3g cycles per depth step d3=%g at the highest "
            "frequency %g; do the units agree, and is it slowness, not velocity?",
            least, most, cycles, par.v.z.d, frequency);

    if (!par.pspi() || par.lloyd || par.nref < 2) return;
    std::int64_t fast = 0, fast_levels = 0, even_levels = 0;
    for (std::ptrdiff_t iz = 0; iz < vel0.n[1]; ++iz) {
        std::int64_t in_level = 0;
        for (std::ptrdiff_t ix = 0; ix < vel0.n[0]; ++ix) in_level += 1.0f / vel0(ix, iz) >= par.vsal;
        const auto [low, high] = std::ranges::minmax(vel0.slice(iz).flat());
        even_levels += std::trunc(1.0f / low) == std::trunc(1.0f / high);
        fast += in_level;
        fast_levels += in_level == vel0.n[0];
    }
    if (fast_levels > 0)
        warn(
            "vsal=%g: at %lld of %lld levels no velocity lies below it, so that only the last of nrefvel=%d references "
            "is one of the level",
            par.vsal, static_cast<long long>(fast_levels), static_cast<long long>(vel0.n[1]), par.nref);
    else if (fast > 0 && par.nref == 2)
        warn(
            "nrefvel=2: %lld samples lie at or above vsal=%g and take one reference; the other is the smallest "
            "velocity of the level",
            static_cast<long long>(fast), par.vsal);
    if (even_levels > 0 && par.exact())
        warn(
            "nrefvel=%d: %lld of %lld levels of the start model hold one velocity, and so keep one reference for the run",
            par.nref, static_cast<long long>(even_levels), static_cast<long long>(vel0.n[1]));
}

}  // namespace morvane
