#include "src/areal/wemva/inversion/run_state.h"

#include <algorithm>
#include <cstddef>
#include <span>

namespace morvane {

namespace {

constexpr int silent = -1;  // report level

}  // namespace

SolverState::SolverState(const InversionSetup& setup)
    : n(static_cast<int>(setup.variables.count())),
      m(setup.mmax),
      x(setup.variables.first()),
      g(x.size()),
      wa(solver::wa_size(x.size(), static_cast<std::size_t>(std::max(m, 0)))),  // it refuses m below 1 itself
      bounds(setup.bounds),
      iwa(solver::iwa_size(x.size())) {}

void SolverState::call(int report_level) {
    solver::setulb(n, m, x, bounds.l, bounds.u, bounds.nbd, fun, g, factr, pgtol, wa, iwa, task, report_level, csave,
                   lsave, isave, dsave);
}

bool SolverState::refuses() {
    const std::vector<double> first = x;
    call(silent);
    const bool refused = task.starts_with("ERROR");
    x = first;
    task = "START";
    return refused;
}

bool SolverState::goes_on() const {
    return task.starts_with("START") || task.starts_with("FG") || task.starts_with("NEW_X");
}

void SolverState::archive(Archive& archive) {
    archive.values("x", std::span(x));
    archive.values("g", std::span(g));
    archive.values("l", std::span(bounds.l));
    archive.values("u", std::span(bounds.u));
    archive.values("nbd", std::span(bounds.nbd));
    archive.values("wa", std::span(wa));
    archive.values("iwa", std::span(iwa));
    archive.value("f", fun);
    archive.value("task", task);
    archive.value("csave", csave);
    archive.value("lsave", lsave);
    archive.value("isave", isave);
    archive.value("dsave", dsave);
}

Spent RunState::spent() const {
    const Spent now = spent_so_far();
    return {spent_before.seconds + now.seconds - taken_up.seconds,
            spent_before.processor + now.processor - taken_up.processor};
}

void RunState::archive(Archive& archive) {
    archive.value("iter", iter);
    archive.value("titer", titer);
    archive.value("fun", fun);
    if (!archive.reads()) {
        Spent now = spent();
        archive.value("time of the evaluation", now);
    } else {
        archive.value("time of the evaluation", spent_before);
    }
    archive.value("scale", scale);
    archive.value("evaluations", outcome.evaluations);
    archive.value("accepted", outcome.accepted);
    archive.value("first fun", outcome.first_fun);
    archive.value("last fun", outcome.last_fun);
    archive.value("accepted panel", outcome.accepted_panel);
    archive.sequence("stopped", outcome.stopped);
    solver.archive(archive);
}

}  // namespace morvane
