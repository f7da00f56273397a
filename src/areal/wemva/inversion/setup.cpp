#include "src/areal/wemva/inversion/setup.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/model/lloyd_vel.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/checks.h"
#include "src/areal/wemva/start/horizon_file.h"
#include "src/areal/wemva/start/owparam.h"
#include "src/areal/wemva/step/ffd_stage.h"
#include "src/areal/wemva/step/ow_taper_areal.h"

namespace morvane {

namespace {

/// From here to begin_outputs, what earlier runs left stays; and no output is the file of the horizon.
qas::Session& hold(qas::Session& session) {
    session.hold_outputs();
    if (const auto horizon = session.getch<std::string>("horv0")) session.claim_input({*horizon, "horv0=" + *horizon});
    return session;
}

Parms read_parms(qas::Session& session) {
    Parms par = owparam(session);
    if (par.vspl)
        refuse(
            "vspl: the spline-only path reads the axes of vel and the knots, and then there is nothing to invert; leave vspl out");
    return par;
}

/// The stages; from here on the parameters are those of the first.
std::vector<Stage> read_first_stage(qas::Session& session, Parms& par) {
    std::vector<Stage> stages = read_stages(session, par);
    if (!stages.empty()) par = stages.front().par;
    return stages;
}

int read_pairs(qas::Session& session, const Parms& par) {
    const int mmax = session.from_param<int>("mmax", 10);
    const bool knots = par.exact() && par.spline_grad();
    const double variables =
        knots ? static_cast<double>(par.axk.n) * par.azk.n : static_cast<double>(par.img.z.n) * par.img.xm.n;
    const double work = (2.0 * mmax + 4.0) * variables + 12.0 * mmax * mmax + 12.0 * mmax;
    if (work > std::numeric_limits<int>::max())
        refuse("mmax=%d: %.4g correction pairs of %.4g variables are more than the solver can number; fewer are needed",
               mmax, static_cast<double>(mmax), variables);
    return mmax;
}

Array<float, 2> read_start_model(qas::Session& session, const Parms& par) {
    Array<float, 2> velint({par.v.xm.n, par.v.z.n});
    session.sreed("vel", velint.view().p, static_cast<std::int64_t>(velint.flat().size_bytes()));
    Array<float, 2> vel0({par.img.xm.n, par.img.z.n});
    owgrab_vel(par, session, velint, vel0, true, 0);
    check_model(par, vel0);
    return vel0;
}

std::optional<base_spln2d> make_spline(const Parms& par) {
    if (!par.spline_grad()) return std::nullopt;
    return base_spln2d_init(par.img.xm, par.img.z, par.axk, par.azk, par.node);
}

Array<float, 1> make_taper(const Parms& par) {
    Array<float, 1> taper({par.kxm.n});
    owtaper(par.tapertr, taper.flat());
    return taper;
}

Array<float, 3> cluster(const Parms& par, const Array<float, 2>& vel0) {
    if (!par.pspi() || !par.lloyd) return Array<float, 3>();
    Array<float, 3> vref({par.nref, 2, par.img.z.n});
    lloyd_vel1(par, vel0, vref);
    return vref;
}

float required_real(qas::Session& session, const char* key) {
    const auto value = session.from_param<float>(key);
    if (!std::isfinite(value)) refuse("%s=%g: a finite number is needed", key, value);
    return value;
}

void set_constant_bounds(qas::Session& session, std::span<const double> start, VariableBounds& bounds) {
    const float vmin = required_real(session, "vmin");
    const float vmax = required_real(session, "vmax");
    if (!(vmin > 0.0f)) refuse("vmin=%g: a velocity greater than 0 is needed", vmin);
    if (!(vmax > 0.0f)) refuse("vmax=%g: a velocity greater than 0 is needed", vmax);
    if (vmin > vmax) warn("vmin=%g is greater than vmax=%g: no model lies within the bounds", vmin, vmax);
    std::ranges::fill(bounds.l, 1.0f / vmax);
    std::ranges::fill(bounds.u, 1.0f / vmin);
    const auto outside = std::ranges::count_if(
        start, [&](double s) { return vmin <= vmax && (s < bounds.l.front() || s > bounds.u.front()); });
    if (outside > 0)
        warn(
            "vmin=%g vmax=%g: %td of %td samples of the start model lie outside; the run begins with these at the bound "
            "(with knots: within the room of their coefficients)",
            vmin, vmax, outside, std::ssize(start));
}

/// Bounds as factors of the start model; a value of 1 or more is a percentage.
void set_relative_bounds(float given_up, float given_lo, const Parms& par, std::span<const double> start,
                         VariableBounds& bounds) {
    const float p_up = given_up >= 1.0f ? 1.0f + given_up / 100.0f : given_up;
    const float p_lo = given_lo >= 1.0f ? 1.0f - given_lo / 100.0f : given_lo;
    if (p_up < 1.0f)
        warn("p_up=%g is below 1 and so a factor, not a percentage: the upper bound lies below the start model",
             given_up);
    if (p_lo <= 0.0f && par.exact())
        refuse("p_lo=%g: gradient=exact needs a lower bound of slowness that is positive", given_lo);
    if (p_lo <= 0.0f) warn("p_lo=%g: the lower bound of slowness is not positive", given_lo);
    if (p_lo > p_up) warn("p_lo=%g is a greater factor than p_up=%g: no model lies within the bounds", p_lo, p_up);
    std::ranges::transform(start, bounds.l.begin(), [&](double x) { return static_cast<double>(p_lo) * x; });
    std::ranges::transform(start, bounds.u.begin(), [&](double x) { return static_cast<double>(p_up) * x; });
}

/// Bounds of slowness: those asked for; or, where the first step is to be scaled or the gradient is exact, natural
/// ones, which the solver needs to take a first step of the gradient's size and to stay with physical models: a tenth
/// to ten times the start model, or, where a reference velocity has to stay below all that they allow, seven to
/// fourteen tenths; or none.
VariableBounds read_bounds(qas::Session& session, const Parms& par, std::span<const double> start) {
    constexpr int both = 2;
    VariableBounds bounds(start.size());
    if (session.from_param<bool>("bounds", false)) {
        if (session.from_param<bool>("cbounds", false))
            set_constant_bounds(session, start, bounds);
        else
            set_relative_bounds(required_real(session, "p_up"), required_real(session, "p_lo"), par, start, bounds);
    } else if (par.exact() || par.firststep > 0.0f) {
        const bool narrow = par.exact() && par.ffd();
        const double least = narrow ? 0.7 : 0.1, most = narrow ? 1.4 : 10.0;
        std::ranges::transform(start, bounds.l.begin(), [&](double x) { return least * x; });
        std::ranges::transform(start, bounds.u.begin(), [&](double x) { return most * x; });
    } else {
        return bounds;
    }
    std::ranges::fill(bounds.nbd, both);
    return bounds;
}

/// Bounds of a stage that begins at `start`, wide enough for that: its own, relative to that or to the start model of
/// the run, or those of the run.
VariableBounds stage_bounds(const Parms& par, const VariableBounds& of_run, View<const float, 2> origin,
                            std::span<const double> start) {
    constexpr int both = 2;
    if (par.limits.p_up == 0.0f) return of_run;
    VariableBounds bounds(start.size());
    const std::vector<double> first(origin.flat().begin(), origin.flat().end());
    set_relative_bounds(par.limits.p_up, par.limits.p_lo, par, par.limits.bounds_of_stage ? start : first, bounds);
    for (std::size_t i = 0; i < start.size(); ++i) {
        bounds.l[i] = std::min(bounds.l[i], start[i]);
        bounds.u[i] = std::max(bounds.u[i], start[i]);
    }
    std::ranges::fill(bounds.nbd, both);
    return bounds;
}

/// The slowest model that the bounds allow, for the finite-difference form of the exact mode, which keeps its reference
/// velocities below it. Warns if that takes them so far down that the image suffers.
Array<float, 2> slowest_model(const Parms& par, const Variables& variables, const VariableBounds& bounds,
                              const Array<float, 2>& vel0) {
    if (!par.exact() || !par.ffd()) return Array<float, 2>();
    constexpr float good = 0.55f;
    const float share = ffd_reference_share(par.dipop);
    Array<float, 2> slowest(vel0.n());
    std::ranges::transform(variables.slowest(bounds), slowest.flat().begin(),
                           [](double s) { return static_cast<float>(s); });
    float least = 1.0f;
    int at = 0;
    for (int iz = 0; iz < par.img.z.n; ++iz) {
        const float here =
            share * std::ranges::max(vel0.view().slice(iz).flat()) / std::ranges::max(slowest.view().slice(iz).flat());
        if (here < least) {
            least = here;
            at = iz;
        }
    }
    if (least < good)
        warn(
            "bounds: with gradient=exact the reference velocity of extrapolator=ffd lies below all that they allow, at "
            "depth %g at %.2g of the smallest velocity of the start model; below %g the image loses accuracy: a "
            "slowness bound of at most %.2g times the start model, or extrapolator=pspi, is better",
            static_cast<float>(at) * par.img.z.d + par.img.z.o, least, good, share / good);
    return slowest;
}

std::vector<float> read_picks(qas::Session& session, const Parms& par) {
    if (!session.exist_file("horv0")) return {};
    return read_horizon(session.from_param<std::string>("horv0"), par.img.xm.n);
}

}  // namespace

InversionSetup::InversionSetup(qas::Session& s)
    : session(hold(s)),
      par(read_parms(session)),
      stages(read_first_stage(session, par)),
      mmax(read_pairs(session, par)),
      spline(make_spline(par)),
      log(session, "log", session.from_param<std::string>("log", "log")),
      listing(session, "list", session.from_param<std::string>("list", "listagem")),
      course(session, par),
      taper(make_taper(par)),
      vel0(read_start_model(session, par)),
      origin(vel0),
      vref(cluster(par, vel0)),
      start(vel0.flat().begin(), vel0.flat().end()),
      variables(start, par.exact() ? spline : std::nullopt),
      sample_bounds(read_bounds(session, par, start)),
      bounds(variables.bounds(stage_bounds(par, sample_bounds, origin, start))),
      slowest(slowest_model(par, variables, bounds, vel0)),
      pick1(read_picks(session, par)) {}

void InversionSetup::enter(const Stage& stage, std::span<const double> model) {
    par = stage.par;
    spline = make_spline(par);
    start.assign(model.begin(), model.end());
    std::ranges::transform(start, vel0.flat().begin(), [](double s) { return static_cast<float>(s); });
    vref = cluster(par, vel0);
    variables = Variables(start, spline);
    bounds = variables.bounds(stage_bounds(par, sample_bounds, origin, start));
    slowest = slowest_model(par, variables, bounds, vel0);
}

void InversionSetup::begin_outputs() {
    if (par.niter > 0) session.open_outputs(outputs_with_data(par, session));
    session.begin_outputs();
    log.begin();
    listing.begin();
    course.begin();
}

void InversionSetup::archive(Archive& archive) {
    std::int64_t log_bytes = 0, list_bytes = 0;
    if (!archive.reads()) {
        extents = session.sync_outputs();
        log_bytes = log.sync();
        list_bytes = listing.sync();
    }
    archive.value("length of log", log_bytes);
    archive.value("length of list", list_bytes);
    lengths = {log_bytes, list_bytes};
    std::size_t outputs = extents.size();
    archive.value("outputs", outputs);
    extents.resize(outputs);
    for (qas::OutputExtent& extent : extents) {
        archive.sequence("tag", extent.tag);
        archive.sequence("header of " + extent.tag, extent.header);
        archive.sequence("data of " + extent.tag, extent.data);
        archive.value("length of the header of " + extent.tag, extent.header_bytes);
        archive.value("length of the data of " + extent.tag, extent.data_bytes);
        archive.sequence("end of the header of " + extent.tag, extent.tail);
        archive.value("title of " + extent.tag, extent.has_title);
        archive.value("data named by " + extent.tag, extent.names_data);
        archive.value("format named by " + extent.tag, extent.has_format);
    }
    course.archive(archive);
}

void InversionSetup::resume_outputs() {
    session.open_outputs(outputs_with_data(par, session));
    session.resume_outputs(extents);
    log.resume(lengths.first);
    listing.resume(lengths.second);
    course.resume();
}

void InversionSetup::finish_outputs() {
    course.finish();
    session.finish_outputs();
    log.finish();
    listing.finish();
}

unsigned InversionSetup::planner_flags() const {
    if (par.fftplan == "patient") return FFTW_PATIENT;
    if (par.fftplan == "estimate" || par.reproducible) return FFTW_ESTIMATE;
    return plan_flags(par.node == node_default ? omp_get_max_threads() : par.node);
}

Inversion InversionSetup::inversion(const LateralFft& fft) {
    Inversion run{par, session, listing, fft, taper, vel0, vref, pick1, spline};
    run.slowest = slowest;
    run.origin = origin;
    return run;
}

}  // namespace morvane
