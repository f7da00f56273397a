#include "src/areal/wemva/inversion/driver.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/solver/precision.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod.h"

namespace morvane {

namespace {

// The solver's own convergence tests practically never end a run; niter does.
constexpr int iprint = 99, without_file = 0, silent = -1;  // report levels
constexpr double smallest_normal = 1.17549435e-38;
constexpr double pgtol = 1.1754943508222875e-38;  // 2^-126

/// Everything the solver keeps between calls. Its variables are those of variables.h.
struct SolverState {
    int n, m;
    std::vector<double> x, g, wa;
    VariableBounds bounds;
    std::vector<int> iwa;
    double fun = 0.0;
    double factr = smallest_normal / solver::dpmeps();
    solver::Text60 task = "START", csave;
    std::array<int, 4> lsave{};
    std::array<int, 44> isave{};
    std::array<double, 29> dsave{};

    explicit SolverState(const InversionSetup& setup)
        : n(static_cast<int>(setup.variables.count())),
          m(setup.mmax),
          x(setup.variables.first()),
          g(x.size()),
          wa(solver::wa_size(x.size(), static_cast<std::size_t>(std::max(m, 0)))),  // it refuses m below 1 itself
          bounds(setup.bounds),
          iwa(solver::iwa_size(x.size())) {}
    void call(int report_level) {
        solver::setulb(n, m, x, bounds.l, bounds.u, bounds.nbd, fun, g, factr, pgtol, wa, iwa, task, report_level,
                       csave, lsave, isave, dsave);
    }
    /// Whether it will end at once because an argument is wrong.
    bool refuses() {
        const std::vector<double> first = x;
        call(silent);
        const bool refused = task.starts_with("ERROR");
        x = first;
        task = "START";
        return refused;
    }
};

/// What the closing line tells.
struct Outcome {
    int evaluations = 0, accepted = 0;
    double first_fun = 0.0;
    double last_fun = 0.0;   // of the last evaluation
    int accepted_panel = 1;  // evaluation whose model was accepted last
    std::string stopped;     // why, if not by niter or the solver
};

/// Norm of the gradient less the components that point out of a bound on which the variable lies.
double projected_norm(const SolverState& state) {
    double sum = 0.0;
    for (std::size_t i = 0; i < state.g.size(); ++i) {
        const double g = state.g[i], x = state.x[i];
        const bool held = state.bounds.nbd[i] != 0 && (g > 0.0 ? x <= state.bounds.l[i] : x >= state.bounds.u[i]);
        if (!held) sum += g * g;
    }
    return std::sqrt(sum);
}

/// What the solver will make of its first gradient without firststep: a step of length one in an unbounded problem, the
/// projection of x - g in a bounded one.
void warn_of_first_step(const Variables& variables, const SolverState& state, std::span<const double> x) {
    const VariableBounds& bounds = state.bounds;
    const bool bounded = bounds.nbd.front() != 0;
    double size = 0.0;
    std::size_t moved = 0, at_bound = 0;
    for (const double g : state.g) size += g * g;
    std::vector<double> step(state.g.size());
    for (std::size_t i = 0; i < step.size(); ++i) {
        const double g = state.g[i], there = state.x[i] - g;
        if (g == 0.0) continue;
        step[i] = bounded ? std::clamp(there, bounds.l[i], bounds.u[i]) - state.x[i] : g / std::sqrt(size);
        if (step[i] == 0.0) continue;  // held by its bound
        ++moved;
        at_bound += bounded && (there <= bounds.l[i] || there >= bounds.u[i]);
    }
    const double change = variables.largest_change(step, x);
    if (at_bound > moved - moved / 10)
        warn(
            "the first trial will put %zu of %zu variables on a bound; firststep=0.03 would scale it to 3 %% of slowness",
            at_bound, moved);
    else if (change > 0.5)
        warn(
            "the first trial will change slowness by up to %.3g times its value; firststep=0.03 would scale it to 3 %%",
            change);
}

/// The constant that makes the first trial change no sample by more than firststep of its slowness.
double first_step_scale(const Parms& par, const Variables& variables, const SolverState& state,
                        std::span<const double> x) {
    if (!(par.firststep > 0.0f)) {
        warn_of_first_step(variables, state, x);
        return 1.0;
    }
    const double change = variables.largest_change(state.g, x);
    return change > 0.0 ? static_cast<double>(par.firststep) / change : 1.0;
}

/// What a log line shows of the parts of fun, with regularise.
std::string parts_columns(const Parms& par, const Measures& measures) {
    if (!(par.regularise > 0.0f)) return "";
    return " data =" + column_fun(measures.data, 15) + " reg =" + column_fun(measures.regularisation, 15);
}

std::string settled(const Parms& par, const Course& course) {
    char text[200];
    std::snprintf(text, sizeof text, "stop=fit: fit rose by %.5f over the last %d accepted models, stop_rise=%g",
                  course.last_rise(), par.stop_patience, static_cast<double>(par.stop_rise));
    return text;
}

/// Until the solver stops, niter iterations are done, or fit no longer rises with stop=fit.
Outcome minimise(const Inversion& run, const Variables& variables, EvaluationArrays& arrays, SolverState& state,
                 TextLog& log, Course& course) {
    Outcome outcome;
    double fun1 = 0.0, fun = 0.0, scale = 1.0;
    std::vector<double> newx, newg, x(arrays.model.flat().size()), g(x.size());
    int iter = 1, titer = 1;
    bool cond = true;
    while (cond && iter <= run.par.niter) {
        cond = false;
        state.call(iprint);
        course.answered(state.task.starts_with("NEW_X"));
        if (state.task.starts_with("FG")) {
            variables.model(state.x, x);
            fun = evaluate(run, arrays, x, g, iter, titer);
            variables.accept_edit(x, state.x);
            variables.gradient(g, state.g);
            log.line(iteration_line(iter, titer, state.task.field(), fun, x) + parts_columns(run.par, arrays.measures));
            course.evaluated(
                {titer, iter, state.task.starts_with("FG_START"), fun, projected_norm(state), 0.0, arrays.measures}, x);
            if (!std::isfinite(fun))
                refuse(
                    "evaluation %d: fun is not finite (%g): squares of the image residual leave the range of single "
                    "precision; scale rec and sou down, or check the units",
                    titer, fun);
            if (titer == 1) {
                outcome.first_fun = fun;
                scale = first_step_scale(run.par, variables, state, x);
            }
            state.fun = scale * fun;
            for (double& component : state.g) component *= scale;
            outcome.last_fun = fun;
            outcome.evaluations = titer;
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
            log.line(iteration_line(iter, titer, state.task.field(), fun, x) + parts_columns(run.par, arrays.measures));
            outcome.accepted_panel = titer - 1;
            ++outcome.accepted;
            ++iter;
            cond = !course.fit_has_settled();
            if (!cond) outcome.stopped = settled(run.par, course);
        }
    }
    return outcome;
}

/// The file that the solver reports to, so that no other run writes it. Without it the run goes on.
qas::PlainOutput claim_report(qas::Session& session) {
    const std::string name = "iterate.dat";
    if (!std::filesystem::is_regular_file(name) && std::filesystem::exists(name)) return {};
    return session.claim_output({name, name, "start this run in another folder"});
}

/// What to try after a run that went nowhere.
std::string advice(const Parms& par, const SolverState& state) {
    if (state.task.starts_with("CONVERGENCE")) return ", the start model, which already meets the solver's test";
    std::string text = ", but no step was accepted: panel 1 is the start model";
    std::string tries;
    if (!par.exact()) tries += " gradient=exact";
    if (!(par.firststep > 0.0f)) tries += tries.empty() ? " firststep=0.03" : ", firststep=0.03";
    return text + "; try" + (tries.empty() ? " a smaller firststep, or other bounds" : tries + ", bounds");
}

/// Where the model of the greatest fit went.
std::string best_file(qas::Session& session) {
    const auto name = session.getch<std::string>("best");
    return name ? " (best=" + *name + ")" : "";
}

void print_closing_line(qas::Session& session, const Parms& par, const SolverState& state, const Outcome& outcome,
                        const Course& course) {
    std::string reason = "niter=" + std::to_string(par.niter) + " iterations done";
    if (par.niter <= 0)
        reason = "niter=" + std::to_string(par.niter) + " asks for no iteration";
    else if (!outcome.stopped.empty())
        reason = outcome.stopped;
    else if (!state.task.starts_with("NEW_X"))
        reason = std::string(state.task.text());
    std::fprintf(stderr, "%s: %s; %d evaluations, ", session.program().c_str(), reason.c_str(), outcome.evaluations);
    if (outcome.evaluations == 0) {
        std::fputs("no result\n", stderr);
        return;
    }
    const std::string velout = session.getch<std::string>("Velout").value_or("Velout");
    std::fprintf(stderr, "fun first %s, last %s", column_fun(outcome.first_fun, 12).c_str(),
                 column_fun(outcome.last_fun, 12).c_str());
    if (course.best().panel > 0)
        std::fprintf(stderr, ", fit first %.5f, greatest %.5f at panel %d%s", course.first().fit, course.best().fit,
                     course.best().panel, best_file(session).c_str());
    std::fprintf(stderr, "; result: panel %d of Velout (%s)", outcome.evaluations, velout.c_str());
    if (outcome.accepted == 0)
        std::fputs(advice(par, state).c_str(), stderr);
    else if (outcome.accepted_panel != outcome.evaluations)
        std::fprintf(stderr, ", a line-search trial; the model accepted last is panel %d", outcome.accepted_panel);
    std::fputc('\n', stderr);
}

/// What strict=y asks of a run that has come to its end: an accepted step and a fun that is not 0.
void refuse_without_success(const Parms& par, const SolverState& state, const Outcome& outcome) {
    constexpr bool strict = true;
    if (par.niter > 0 && outcome.accepted == 0)
        doubt(strict, "no step was accepted (%s)", std::string(state.task.text()).c_str());
    if (outcome.evaluations > 0 && outcome.last_fun == 0.0) doubt(strict, "fun is 0 after the last step");
}

}  // namespace

void invert(qas::Session& session) {
    session.begin_prog();
    InversionSetup setup(session);
    SolverState state(setup);
    Outcome outcome;
    if (setup.par.niter > 0 && state.refuses()) {
        state.call(without_file);
    } else if (setup.par.niter > 0) {
        const LateralFft fft(setup.par.kxm.n, setup.planner_flags());
        EvaluationArrays arrays(setup.par);
        qas::PlainOutput report = claim_report(session);
        setup.begin_outputs();
        report.begin();
        outcome = minimise(setup.inversion(fft), setup.variables, arrays, state, setup.log, setup.course);
        report.finish();
        setup.finish_outputs();
    } else {
        setup.begin_outputs();
        setup.finish_outputs();
    }
    print_closing_line(session, setup.par, state, outcome, setup.course);
    session.end_prog();
    if (setup.par.strict) refuse_without_success(setup.par, state, outcome);
}

}  // namespace morvane
