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

namespace {

// The solver's own convergence tests practically never end a run; niter does.
constexpr int iprint = 99;
constexpr double smallest_normal = 1.17549435e-38;
constexpr double pgtol = 1.1754943508222875e-38;  // 2^-126

/// Everything the solver keeps between calls.
struct Solver {
    int n, m;
    std::vector<double> x, l, u, g, wa;
    std::vector<int> nbd, iwa;
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
          l(nmax),
          u(nmax),
          g(nmax),
          wa(solver::wa_size(nmax, static_cast<std::size_t>(std::max(mmax, 0)))),  // it refuses m below 1 itself
          nbd(nmax),
          iwa(solver::iwa_size(nmax)) {}
    void call() {
        solver::setulb(n, m, x, l, u, nbd, fun, g, factr, pgtol, wa, iwa, task, iprint, csave, lsave, isave, dsave);
    }
};

/// What the closing line tells.
struct Course {
    int evaluations = 0, accepted = 0;
    double first_fun = 0.0;
    double last_fun = 0.0;   // of the last evaluation
    int accepted_panel = 1;  // evaluation whose model was accepted last
    bool warned = false;     // of a trial model that is not positive
};

std::size_t count_variables(const Parms& par, int mmax) {
    const double variables = static_cast<double>(par.img.z.n) * par.img.xm.n;
    const double work = (2.0 * mmax + 4.0) * variables + 12.0 * mmax * mmax + 12.0 * mmax;
    if (work > std::numeric_limits<int>::max())
        refuse("mmax=%d: %.4g correction pairs of %.4g variables are more than the solver can number; fewer are needed",
               mmax, static_cast<double>(mmax), variables);
    return static_cast<std::size_t>(par.img.z.n) * static_cast<std::size_t>(par.img.xm.n);
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

void set_constant_bounds(qas::Session& session, Solver& state) {
    const float vmin = required_real(session, "vmin");
    const float vmax = required_real(session, "vmax");
    if (!(vmin > 0.0f)) refuse("vmin=%g: a velocity greater than 0 is needed", vmin);
    if (!(vmax > 0.0f)) refuse("vmax=%g: a velocity greater than 0 is needed", vmax);
    if (vmin > vmax) warn("vmin=%g is greater than vmax=%g: no model lies within the bounds", vmin, vmax);
    std::ranges::fill(state.l, 1.0f / vmax);
    std::ranges::fill(state.u, 1.0f / vmin);
}

/// Bounds as factors of the start model; a value of 1 or more is a percentage.
void set_relative_bounds(qas::Session& session, Solver& state) {
    const float given_up = required_real(session, "p_up");
    const float given_lo = required_real(session, "p_lo");
    const float p_up = given_up >= 1.0f ? 1.0f + given_up / 100.0f : given_up;
    const float p_lo = given_lo >= 1.0f ? 1.0f - given_lo / 100.0f : given_lo;
    if (p_up < 1.0f)
        warn("p_up=%g is below 1 and so a factor, not a percentage: the upper bound lies below the start model",
             given_up);
    if (p_lo <= 0.0f) warn("p_lo=%g: the lower bound of slowness is not positive", given_lo);
    if (p_lo > p_up) warn("p_lo=%g is a greater factor than p_up=%g: no model lies within the bounds", p_lo, p_up);
    std::ranges::transform(state.x, state.l.begin(), [&](double x) { return static_cast<double>(p_lo) * x; });
    std::ranges::transform(state.x, state.u.begin(), [&](double x) { return static_cast<double>(p_up) * x; });
}

void set_bounds(qas::Session& session, Solver& state) {
    if (!session.from_param<bool>("bounds", false)) return;
    if (session.from_param<bool>("cbounds", false))
        set_constant_bounds(session, state);
    else
        set_relative_bounds(session, state);
    constexpr int both = 2;
    std::ranges::fill(state.nbd, both);
}

// --- loop ------------------------------------------------------------------------------------------------------------

void check_trial_model(const Solver& state, int titer, Course& course) {
    if (course.warned) return;
    const auto wrong = std::ranges::count_if(state.x, [](double x) { return !(x > 0.0); });
    if (wrong == 0) return;
    course.warned = true;
    warn(
        "evaluation %d: %lld of %zu samples of the trial model are not positive (least %g): the step has left the "
        "range "
        "of physical models; bounds=yes keeps it there",
        titer, static_cast<long long>(wrong), state.x.size(), *std::ranges::min_element(state.x));
}

/// Until the solver stops or niter iterations are done.
Course iterate(const Inversion& run, EvaluationArrays& arrays, Solver& state, TextLog& log) {
    Course course;
    double fun1 = 0.0;
    std::vector<double> newx, newg;
    int iter = 1, titer = 1;
    bool cond = true;
    while (cond && iter <= run.par.niter) {
        cond = false;
        state.call();
        if (state.task.starts_with("FG")) {
            check_trial_model(state, titer, course);
            state.fun = evaluate(run, arrays, state.x, state.g, iter, titer);
            log.line(iteration_line(iter, titer, state.task.field(), state.fun, state.x));
            if (!std::isfinite(state.fun))
                refuse(
                    "evaluation %d: fun is not finite (%g): squares of the image residual leave the range of single "
                    "precision; scale rec and sou down, or check the units",
                    titer, state.fun);
            if (titer == 1) course.first_fun = state.fun;
            course.last_fun = state.fun;
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
            log.line(iteration_line(iter, titer, state.task.field(), state.fun, state.x));
            course.accepted_panel = titer - 1;
            ++course.accepted;
            ++iter;
            cond = true;
        }
    }
    return course;
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
        std::fputs(", but no step was accepted: panel 1 is the start model", stderr);
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
            "leave "
            "vspl out");
    const int mmax = session.from_param<int>("mmax", 10);
    const std::size_t nmax = count_variables(par, mmax);
    std::optional<base_spln2d> spline;
    if (par.spline_grad()) spline = base_spln2d_init(par.img.xm, par.img.z, par.axk, par.azk, par.node);
    const std::string log_name = session.from_param<std::string>("log", "log");
    TextLog log("log", log_name);
    const std::string list_name = session.from_param<std::string>("list", "listagem");
    if (list_name == log_name) refuse("list=%s: the progress listing cannot share the file of log", list_name.c_str());
    TextLog listing("list", list_name);

    Solver state(nmax, mmax);
    Array<float, 1> taper({par.kxm.n});
    owtaper(par.tapertr, taper.flat());
    const Array<float, 2> vel0 = read_start_model(session, par);
    Array<float, 3> vref;
    if (par.pspi() && par.lloyd) {
        vref = Array<float, 3>({par.nref, 2, par.img.z.n});
        lloyd_vel1(par, vel0, vref);
    }
    std::ranges::copy(vel0.flat(), state.x.begin());
    set_bounds(session, state);
    std::vector<float> pick1;
    if (session.exist_file("horv0")) pick1 = read_horizon(session.from_param<std::string>("horv0"), par.img.xm.n);

    Course course;
    if (par.niter > 0) {
        const LateralFft fft(par.kxm.n, planner_flags(par));
        EvaluationArrays arrays(par);
        course = iterate({par, session, listing, fft, taper, vel0, vref, pick1, spline}, arrays, state, log);
    }
    print_closing_line(session, par, state, course);
    session.end_prog();
}
