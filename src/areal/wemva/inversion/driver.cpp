#include "src/areal/wemva/inversion/driver.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/focus/signs.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/run_state.h"
#include "src/areal/wemva/inversion/run_watch.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/start/memory.h"

namespace morvane {

namespace {

constexpr int iprint = 99, without_file = 0;  // report levels

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

/// Warns if a few shots focus better with another sign of the records. Data that cannot be read are the evaluation's
/// to refuse.
void look_at_signs(const Inversion& run) {
    const SignPlan plan = plan_signs(run.par);
    if (plan.shots.empty()) return;
    try {
        FewShots few(run.par, run.fft, run.taper, run.vref, load_shots(run, plan.shots), plan.every);
        if (const std::string doubt = doubt_of_signs(few); !doubt.empty()) warn("%s", doubt.c_str());
    } catch (const qas::Fatal&) {
        return;
    }
}

/// The evaluation that the solver asked for; what was evaluated, scaled by firststep, is its answer.
void evaluate_trial(const Inversion& run, InversionSetup& setup, EvaluationArrays& arrays, RunState& state) {
    SolverState& solver = state.solver;
    const Variables& variables = setup.variables;
    std::vector<double> x(arrays.model.flat().size()), g(x.size());
    variables.model(solver.x, x);
    const int titer = state.titer;
    const bool starts = solver.task.starts_with("FG_START");
    if (arrays.position.pass == Position::Pass::none) state.spent_before = {};
    state.taken_up = spent_so_far();
    if (titer == 1 && arrays.position.pass == Position::Pass::none) look_at_signs(run);
    const double fun = state.fun = evaluate(run, arrays, x, g, state.iter, titer);
    variables.accept_edit(x, solver.x);
    variables.gradient(g, solver.g);
    setup.log.line(iteration_line(state.iter, titer, solver.task.field(), fun, x) +
                   parts_columns(run.par, arrays.measures));
    setup.course.evaluated(
        {titer, state.iter, state.stage, starts, fun, projected_norm(solver), 0.0, arrays.measures, state.spent()}, x);
    if (!std::isfinite(fun))
        refuse(
            "evaluation %d: fun is not finite (%g): squares of the image residual leave the range of single "
            "precision; scale rec and sou down, or check the units",
            titer, fun);
    if (titer == 1) state.outcome.first_fun = fun;
    if (starts) {
        state.outcome.accepted_panel = titer;
        state.scale = first_step_scale(run.par, variables, solver, x);
    }
    solver.fun = state.scale * fun;
    for (double& component : solver.g) component *= state.scale;
    state.outcome.last_fun = fun;
    state.outcome.evaluations = titer;
    ++state.titer;
}

void write_accepted(const Inversion& run, std::span<const double> x, int count) {
    if (!run.session.exist_file("accepted")) return;
    std::vector<float> velocity(x.size());
    std::ranges::transform(x, velocity.begin(), [](double slowness) { return static_cast<float>(1.0 / slowness); });
    run.session.to_history<int>("n4", count, "accepted");
    run.session.srite("accepted", velocity.data(), std::ssize(velocity) * static_cast<std::int64_t>(sizeof(float)));
}

/// One stage of the run: until the solver stops, niter iterations are done, or fit no longer rises with stop=fit. A
/// state that was interrupted in an evaluation goes on with that.
void minimise(const Inversion& run, InversionSetup& setup, EvaluationArrays& arrays, RunState& state) {
    SolverState& solver = state.solver;
    Course& course = setup.course;
    const int end = state.first_iter + run.par.niter;
    while (solver.goes_on() && state.iter < end && state.outcome.stopped.empty()) {
        if (arrays.position.pass == Position::Pass::none) {
            solver.call(iprint);
            course.answered(solver.task.starts_with("NEW_X"));
        }
        if (solver.task.starts_with("FG")) {
            evaluate_trial(run, setup, arrays, state);
        } else if (solver.task.starts_with("NEW_X")) {
            std::vector<double> x(arrays.model.flat().size());
            setup.variables.model(solver.x, x);
            setup.log.line(iteration_line(state.iter, state.titer, solver.task.field(), state.fun, x) +
                           parts_columns(run.par, arrays.measures));
            state.outcome.accepted_panel = state.titer - 1;
            ++state.outcome.accepted;
            ++state.iter;
            write_accepted(run, x, state.outcome.accepted);
            if (course.fit_has_settled()) state.outcome.stopped = settled(run.par, course);
        }
    }
}

/// A log line that tells of a stage.
std::string stage_line(const InversionSetup& setup, int stage) {
    const std::string& words = setup.stages[static_cast<std::size_t>(stage - 1)].words;
    return " stage = " + std::to_string(stage) + " of " + std::to_string(setup.stages.size()) + ":" +
           (words.starts_with(' ') ? "" : " ") + words;
}

/// The members of the team enter the stage too.
void tell_stage(InversionSetup& setup, Team& team, int stage) {
    team.begin({task_enter_stage, stage});
    share(team, std::span(setup.start));
}

/// All stages of the run, each from the model that the one before accepted last; a run that goes on does so in one that
/// has begun.
void minimise_in_stages(InversionSetup& setup, const LateralFft& fft, RunWatch* watch, Team& team,
                        std::optional<EvaluationArrays>& arrays, RunState& state) {
    if (state.stage > 1) tell_stage(setup, team, state.stage);
    for (bool goes_on = watch->resumes();; goes_on = false) {
        if (!setup.stages.empty() && !goes_on) setup.log.line(stage_line(setup, state.stage));
        Inversion run = setup.inversion(fft);
        run.watch = watch;
        run.team = &team;
        minimise(run, setup, *arrays, state);
        if (state.stage >= static_cast<int>(setup.stages.size())) return;
        setup.enter(setup.stages[static_cast<std::size_t>(state.stage)], setup.course.accepted_model());
        setup.course.begin_stage();
        ++state.stage;
        tell_stage(setup, team, state.stage);
        state.first_iter = state.iter;
        state.outcome.stopped.clear();
        state.solver = SolverState(setup);
        arrays.emplace(setup.par);
    }
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

namespace {

/// Several processes read the inputs, each its own shots, and one alone writes.
void check_team(qas::Session& session) {
    for (const char* tag : {"vel", "rec", "sou"}) {
        const std::string header = session.getch<std::string>(tag).value_or(tag);
        const bool is_stream = header.find_first_of("|:") != std::string::npos ||
                               (std::filesystem::exists(header) && !std::filesystem::is_regular_file(header));
        if (is_stream || (std::filesystem::exists(header) && session.data_size(tag) < 0))
            refuse("%s: its header or data are a pipe or socket, which one rank alone could read; put them into files",
                   tag);
    }
    for (const char* tag : {"ddws", "ddwr", "ddwsz", "ddwrz", "zzz"})
        if (session.exist_file(tag)) refuse("%s: is written by a run of one rank only", tag);
}

/// Ends as the signal would have ended it.
[[noreturn]] void end_by(int signal) {
    std::fflush(nullptr);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::abort();
}

/// Before anything large is allocated.
void tell_memory(const InversionSetup& setup, int ranks) {
    const Parms& par = setup.par;
    const int threads = par.node == node_default ? omp_get_max_threads() : par.node;
    const auto text = [&](bool leads) { return memory_text(memory_of_process(par, threads, true, leads)); };
    std::fprintf(stderr, "%s: %d ranks of %d threads take about %s of memory each, rank 0 %s\n",
                 setup.session.program().c_str(), ranks, threads, text(false).c_str(), text(true).c_str());
}

/// The run from its first evaluation, or from its checkpoint, to its end. Returns the signal that ended it; none: 0.
std::optional<Interrupted> run_to_the_end(InversionSetup& setup, RunState& state, Team& team) {
    const LateralFft fft(setup.par.kxm.n, setup.planner_flags());
    if (team.size() > 1 && !setup.par.quiet) tell_memory(setup, team.size());
    std::optional<EvaluationArrays> arrays(std::in_place, setup.par);
    qas::PlainOutput report = claim_report(setup.session);
    RunWatch watch(setup, state, *arrays, team);
    watch.check_outputs();
    team.begin({task_set_up, 0});
    team.meet();
    if (watch.resumes()) {
        watch.read();
        watch.resume_outputs(report);
    } else {
        setup.begin_outputs();
        report.begin();
    }
    watch.begin(report);
    std::optional<Interrupted> interrupted;
    try {
        minimise_in_stages(setup, fft, &watch, team, arrays, state);
        watch.finish();
    } catch (const Interrupted& reason) {
        interrupted = reason;
        state.outcome.stopped = "ended by signal " + std::to_string(reason.signal);
    }
    report.finish();
    setup.finish_outputs();
    return interrupted;
}

}  // namespace

void invert(qas::Session& session, Team& team) {
    if (team.size() > 1) check_team(session);
    session.begin_prog();
    InversionSetup setup(session);
    RunState state(setup);
    std::optional<Interrupted> interrupted;
    if (setup.par.niter > 0 && state.solver.refuses()) {
        state.solver.call(without_file);
    } else if (setup.par.niter > 0) {
        interrupted = run_to_the_end(setup, state, team);
    } else {
        setup.begin_outputs();
        setup.finish_outputs();
    }
    print_closing_line(session, setup.par, state.solver, state.outcome, setup.course);
    if (interrupted && interrupted->can_go_on) {
        std::fprintf(stderr, "to go on%s: %s\n", team.size() > 1 ? ", under mpirun as before" : "",
                     line_to_go_on(session).c_str());
        throw qas::Exit(exit_to_be_resumed);
    }
    if (interrupted) end_by(interrupted->signal);
    session.end_prog();
    if (setup.par.strict) refuse_without_success(setup.par, state.solver, state.outcome);
}

}  // namespace morvane
