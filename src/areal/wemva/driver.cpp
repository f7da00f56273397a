#include "src/areal/wemva/driver.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "src/areal/wemva/base_spline_mod.h"
#include "src/areal/wemva/evaluation.h"
#include "src/areal/wemva/horizon_file.h"
#include "src/areal/wemva/lloyd_vel.h"
#include "src/areal/wemva/messages.h"
#include "src/areal/wemva/ow_grabvel_areal.h"
#include "src/areal/wemva/ow_parms_areal.h"
#include "src/areal/wemva/ow_parms_areal/checks.h"
#include "src/areal/wemva/ow_taper_areal.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod.h"
#include "src/areal/wemva/text_log.h"
#include "src/areal/wemva/variables.h"

namespace {

// The solver's own convergence tests practically never end a run; niter does.
constexpr int iprint = 99;
constexpr double smallest_normal = 1.17549435e-38;
constexpr double pgtol = 1.1754943508222875e-38;  // 2^-126

/// Everything the solver keeps between calls. Its variables are those of variables.h; with `scale` it sees scale fun.
struct Solver {
    int n, m;
    std::vector<double> x, g, wa;
    Bounds bounds;
    std::vector<int> iwa;
    double fun = 0.0;
    double factr = smallest_normal / solver::dpmeps();
    solver::Text60 task = "START", csave;
    std::array<int, 4> lsave{};
    std::array<int, 44> isave{};
    std::array<double, 29> dsave{};

    Solver(std::size_t nmax, int mmax)
        : n(static_cast<int>(nmax)),
          m(mmax),
          x(nmax),
          g(nmax),
          wa(solver::wa_size(nmax, static_cast<std::size_t>(std::max(mmax, 0)))),  // it refuses m below 1 itself
          bounds(nmax),
          iwa(solver::iwa_size(nmax)) {}
    void call() {
        solver::setulb(n, m, x, bounds.l, bounds.u, bounds.nbd, fun, g, factr, pgtol, wa, iwa, task, iprint, csave,
                       lsave, isave, dsave);
    }
};

/// What the closing line tells.
struct Course {
    int evaluations = 0, accepted = 0;
    double first_fun = 0.0;
    double last_fun = 0.0;   // of the last evaluation
    int accepted_panel = 1;  // evaluation whose model was accepted last
};

void check_size(const Parms& par, int mmax) {
    const double variables = static_cast<double>(par.img.z.n) * par.img.xm.n;
    const double work = (2.0 * mmax + 4.0) * variables + 12.0 * mmax * mmax + 12.0 * mmax;
    if (work > std::numeric_limits<int>::max())
        refuse("mmax=%d: %.4g correction pairs of %.4g variables are more than the solver can number; fewer are needed",
               mmax, static_cast<double>(mmax), variables);
}

Array<float, 2> read_start_model(qas::Session& session, const Parms& par) {
    Array<float, 2> velint({par.v.xm.n, par.v.z.n});
    session.sreed("vel", velint.view().p, static_cast<std::int64_t>(velint.flat().size_bytes()));
    Array<float, 2> vel0({par.img.xm.n, par.img.z.n});
    owgrab_vel(par, session, velint, vel0, true, 0);
    check_model(par, vel0);
    return vel0;
}

unsigned planner_flags(const Parms& par) {
    if (par.fftplan == "patient") return FFTW_PATIENT;
    if (par.fftplan == "estimate") return FFTW_ESTIMATE;
    return plan_flags(par.node == node_default ? omp_get_max_threads() : par.node);
}

// --- bounds ----------------------------------------------------------------------------------------------------------

float required_real(qas::Session& session, const char* key) {
    const auto value = session.from_param<float>(key);
    if (!std::isfinite(value)) refuse("%s=%g: a finite number is needed", key, value);
    return value;
}

void set_constant_bounds(qas::Session& session, Bounds& bounds) {
    const float vmin = required_real(session, "vmin");
    const float vmax = required_real(session, "vmax");
    if (!(vmin > 0.0f)) refuse("vmin=%g: a velocity greater than 0 is needed", vmin);
    if (!(vmax > 0.0f)) refuse("vmax=%g: a velocity greater than 0 is needed", vmax);
    if (vmin > vmax) warn("vmin=%g is greater than vmax=%g: no model lies within the bounds", vmin, vmax);
    std::ranges::fill(bounds.l, 1.0f / vmax);
    std::ranges::fill(bounds.u, 1.0f / vmin);
}

/// Bounds as factors of the start model; a value of 1 or more is a percentage.
void set_relative_bounds(qas::Session& session, std::span<const double> start, Bounds& bounds) {
    const float given_up = required_real(session, "p_up");
    const float given_lo = required_real(session, "p_lo");
    const float p_up = given_up >= 1.0f ? 1.0f + given_up / 100.0f : given_up;
    const float p_lo = given_lo >= 1.0f ? 1.0f - given_lo / 100.0f : given_lo;
    if (p_up < 1.0f)
        warn("p_up=%g is below 1 and so a factor, not a percentage: the upper bound lies below the start model",
             given_up);
    if (p_lo <= 0.0f) warn("p_lo=%g: the lower bound of slowness is not positive", given_lo);
    if (p_lo > p_up) warn("p_lo=%g is a greater factor than p_up=%g: no model lies within the bounds", p_lo, p_up);
    std::ranges::transform(start, bounds.l.begin(), [&](double x) { return static_cast<double>(p_lo) * x; });
    std::ranges::transform(start, bounds.u.begin(), [&](double x) { return static_cast<double>(p_up) * x; });
}

/// Bounds of slowness: those asked for; or, where the first step is to be scaled or the gradient is exact, a tenth to
/// ten times the start model, which the solver needs to take a first step of the gradient's size and to stay with
/// physical models; or none.
Bounds sample_bounds(qas::Session& session, const Parms& par, std::span<const double> start) {
    constexpr int both = 2;
    Bounds bounds(start.size());
    if (session.from_param<bool>("bounds", false)) {
        if (session.from_param<bool>("cbounds", false))
            set_constant_bounds(session, bounds);
        else
            set_relative_bounds(session, start, bounds);
    } else if (par.exact() || par.firststep > 0.0f) {
        std::ranges::transform(start, bounds.l.begin(), [](double x) { return 0.1 * x; });
        std::ranges::transform(start, bounds.u.begin(), [](double x) { return 10.0 * x; });
    } else {
        return bounds;
    }
    std::ranges::fill(bounds.nbd, both);
    return bounds;
}

// --- loop ------------------------------------------------------------------------------------------------------------

void check_trial_model(std::span<const double> x, int titer) {
    const auto wrong = std::ranges::count_if(x, [](double s) { return !(s > 0.0); });
    if (wrong == 0) return;
    refuse(
        "evaluation %d: %lld of %zu samples of the trial model are not positive (least %g): the step has left the "
        "range of physical models; set bounds, or firststep=0.03, or both",
        titer, static_cast<long long>(wrong), x.size(), *std::ranges::min_element(x));
}

/// What the solver will make of its first gradient without firststep: a step of length one in an unbounded problem, the
/// projection of x - g in a bounded one.
void warn_of_first_step(const Solver& state, std::span<const double> x) {
    const bool bounded = state.bounds.nbd.front() != 0;
    double size = 0.0, largest = 0.0;
    std::size_t moved = 0, at_bound = 0;
    for (const double g : state.g) size += g * g;
    for (std::size_t i = 0; i < state.g.size(); ++i) {
        const double g = state.g[i];
        if (g == 0.0) continue;
        ++moved;
        if (bounded)
            at_bound += state.x[i] - g <= state.bounds.l[i] || state.x[i] - g >= state.bounds.u[i];
        else
            largest = std::max(largest, std::abs(g) / std::sqrt(size) / x[i]);
    }
    if (bounded && moved > 0 && at_bound > moved - moved / 10)
        warn(
            "the first trial will put %zu of %zu variables on a bound; firststep=0.03 would scale it to 3 %% of "
            "slowness",
            at_bound, moved);
    if (!bounded && largest > 0.5)
        warn(
            "the first trial will change slowness by up to %.3g times its value; firststep=0.03 would scale it to 3 %%",
            largest);
}

/// The constant that makes the first trial change no sample by more than firststep of its slowness.
double first_step_scale(const Parms& par, const Variables& variables, const Solver& state, std::span<const double> x) {
    if (!(par.firststep > 0.0f)) {
        warn_of_first_step(state, x);
        return 1.0;
    }
    const double change = variables.largest_change(state.g, x);
    return change > 0.0 ? static_cast<double>(par.firststep) / change : 1.0;
}

/// Until the solver stops or niter iterations are done.
Course iterate(const Inversion& run, const Variables& variables, EvaluationArrays& arrays, Solver& state,
               TextLog& log) {
    Course course;
    double fun1 = 0.0, fun = 0.0, scale = 1.0;
    std::vector<double> newx, newg, x(arrays.model.flat().size()), g(x.size());
    int iter = 1, titer = 1;
    bool cond = true;
    while (cond && iter <= run.par.niter) {
        cond = false;
        state.call();
        if (state.task.starts_with("FG")) {
            variables.model(state.x, x);
            check_trial_model(x, titer);
            fun = evaluate(run, arrays, x, g, iter, titer);
            variables.take_back(x, state.x);
            variables.gradient(g, state.g);
            log.line(iteration_line(iter, titer, state.task.field(), fun, x));
            if (!std::isfinite(fun))
                refuse(
                    "evaluation %d: fun is not finite (%g): squares of the image residual leave the range of single "
                    "precision; scale rec and sou down, or check the units",
                    titer, fun);
            if (titer == 1) {
                course.first_fun = fun;
                scale = first_step_scale(run.par, variables, state, x);
            }
            state.fun = scale * fun;
            for (double& component : state.g) component *= scale;
            course.last_fun = fun;
            course.evaluations = titer;
            ++titer;
            cond = true;
        }
        // fun1 starts at 0, below every fun: the record stays empty, and the last panel of "Velout" is the result
        if (fun1 > state.fun && !state.task.starts_with("START")) {
            fun1 = state.fun;
            newx = state.x;
            newg = state.g;
        }
        if (state.task.starts_with("NEW_X")) {
            variables.model(state.x, x);
            log.line(iteration_line(iter, titer, state.task.field(), state.fun / scale, x));
            course.accepted_panel = titer - 1;
            ++course.accepted;
            ++iter;
            cond = true;
        }
    }
    return course;
}

/// What to try after a run that went nowhere.
std::string advice(const Parms& par) {
    std::string text = ", but no step was accepted: panel 1 is the start model";
    std::string tries;
    if (!par.exact()) tries += " gradient=exact";
    if (!(par.firststep > 0.0f)) tries += tries.empty() ? " firststep=0.03" : ", firststep=0.03";
    return text + "; try" + (tries.empty() ? " a smaller firststep, or other bounds" : tries + ", bounds");
}

void print_closing_line(qas::Session& session, const Parms& par, const Solver& state, const Course& course) {
    std::string reason = "niter=" + std::to_string(par.niter) + " iterations done";
    if (par.niter <= 0)
        reason = "niter=" + std::to_string(par.niter) + " asks for no iteration";
    else if (!state.task.starts_with("NEW_X"))
        reason = std::string(state.task.text());
    std::fprintf(stderr, "%s: %s; %d evaluations, ", session.program().c_str(), reason.c_str(), course.evaluations);
    if (course.evaluations == 0) {
        std::fputs("no result\n", stderr);
        return;
    }
    const std::string velout = session.getch<std::string>("Velout").value_or("Velout");
    std::fprintf(stderr, "fun first %.6E, last %.6E; result: panel %d of Velout (%s)", course.first_fun,
                 course.last_fun, course.evaluations, velout.c_str());
    if (course.accepted == 0)
        std::fputs(advice(par).c_str(), stderr);
    else if (course.accepted_panel != course.evaluations)
        std::fprintf(stderr, ", a line-search trial; the model accepted last is panel %d", course.accepted_panel);
    std::fputc('\n', stderr);
}

}  // namespace

void invert(qas::Session& session) {
    session.begin_prog();
    const Parms par = owparam(session);
    if (par.vspl)
        refuse(
            "vspl: the spline-only path reads the axes of vel and the knots, and then there is nothing to invert; "
            "leave vspl out");
    const int mmax = session.from_param<int>("mmax", 10);
    check_size(par, mmax);
    std::optional<base_spln2d> spline;
    if (par.spline_grad()) spline = base_spln2d_init(par.img.xm, par.img.z, par.axk, par.azk, par.node);
    const std::string log_name = session.from_param<std::string>("log", "log");
    TextLog log("log", log_name);
    const std::string list_name = session.from_param<std::string>("list", "listagem");
    if (list_name == log_name) refuse("list=%s: the progress listing cannot share the file of log", list_name.c_str());
    TextLog listing("list", list_name);

    Array<float, 1> taper({par.kxm.n});
    owtaper(par.tapertr, taper.flat());
    const Array<float, 2> vel0 = read_start_model(session, par);
    Array<float, 3> vref;
    if (par.pspi() && par.lloyd) {
        vref = Array<float, 3>({par.nref, 2, par.img.z.n});
        lloyd_vel1(par, vel0, vref);
    }
    const std::vector<double> start(vel0.flat().begin(), vel0.flat().end());
    const Variables variables(start, par.exact() ? spline : std::nullopt);
    Solver state(variables.count(), mmax);
    state.x = variables.first();
    state.bounds = variables.bounds(sample_bounds(session, par, start));
    std::vector<float> pick1;
    if (session.exist_file("horv0")) pick1 = read_horizon(session.from_param<std::string>("horv0"), par.img.xm.n);

    Course course;
    if (par.niter > 0) {
        const LateralFft fft(par.kxm.n, planner_flags(par));
        EvaluationArrays arrays(par);
        course = iterate({par, session, listing, fft, taper, vel0, vref, pick1, spline}, variables, arrays, state, log);
    }
    print_closing_line(session, par, state, course);
    session.end_prog();
}
