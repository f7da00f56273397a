#include "src/areal/wemva/program/member.h"

#include <new>
#include <optional>
#include <utility>

#include "src/areal/wemva/inversion/driver.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/program/scratch_run.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/run/muted.h"

namespace morvane {

namespace {

/// A member's view of the run.
struct Membership {
    std::optional<Scratch> scratch{std::in_place};  // its files are opened, and never written
    qas::Session session;
    InversionSetup setup;
    const LateralFft fft;
    std::optional<EvaluationArrays> arrays;
    std::optional<Inversion> run;

    Membership(const std::vector<std::string>& words, Team& team)
        : session(scratch->redirected(words)),
          setup(session),
          fft(setup.par.kxm.n, setup.planner_flags()),
          arrays(std::in_place, setup.par) {
        scratch.reset();  // so that nothing of it is left if this process is killed
        begin(team);
    }
    void begin(Team& team) {
        run.reset();
        run.emplace(setup.inversion(fft));
        run->team = &team;
    }
    void enter_stage(int number, Team& team) {
        std::vector<double> model(setup.start.size());
        share(team, std::span(model));
        setup.enter(setup.stages[static_cast<std::size_t>(number - 1)], model);
        arrays.emplace(setup.par);
        begin(team);
    }
};

void do_tasks(const std::vector<std::string>& words, Team& team) {
    std::optional<Membership> membership;
    while (const auto task = team.await()) {
        if (task->what == task_set_up) {
            membership.emplace(words, team);
            team.meet();
        } else if (task->what == task_enter_stage) {
            membership->enter_stage(task->number, team);
        } else {
            join_pass(*membership->run, *membership->arrays, *task);
        }
    }
}

}  // namespace

void serve(const std::vector<std::string>& words, Team& team) {
    const Muted out(stdout), err(stderr);
    interruption::listen();
    std::string trouble;
    try {
        return do_tasks(words, team);
    } catch (const std::bad_alloc&) {
        trouble = team.place() + ": not enough memory for this run\n";
    } catch (const std::exception& error) {
        trouble = error.what();
        if (!trouble.starts_with("rank ")) trouble = team.place() + ": " + trouble;
    }
    team.fail(trouble);
    while (team.await()) {
    }
}

}  // namespace morvane
