// morvane_check: does the preparation of a run look right? A verdict a line, before the first iteration.
#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/program/scratch_run.h"
#include "src/areal/wemva/run/denormals.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/muted.h"
#include "src/areal/wemva/run/program_end.h"
#include "src/areal/wemva/start/key_table.h"
#include "src/tools/morvane_check/time_zero.h"
#include "src/tools/morvane_check/verdict.h"

namespace morvane {
namespace {

constexpr const char* usage =
    "morvane_check: does the preparation of a run look right? Takes the parameters of morvane (name=value, par=FILE) "
    "and\n"
    "prints a line for each point: ok, look or wrong, with number, limit and cure. Looks at all records, and migrates "
    "some\n"
    "shots with the start model, with other signs and other time zeros. The outputs that the parameters name are not\n"
    "touched. Ends with status 0 if all is ok, 1 if something should be looked at, 2 if something is wrong; 23: "
    "refused.\n";

qas::KeyTable check_table() {
    using enum qas::KeyType;
    std::vector<qas::KeyGroup> groups = {
        {"morvane_check",
         {{"shots", integer, "", "12", "",
           "neighbouring shots in the middle of the line that are migrated; 0: none"}}}};
    for (qas::KeyGroup& group : run_keys()) groups.push_back(std::move(group));
    return qas::KeyTable(std::move(groups));
}

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The model under the image as velocities.
ModelRange range_of(View<const float, 2> slowness) {
    std::vector<float> sorted(slowness.flat().begin(), slowness.flat().end());
    std::ranges::sort(sorted);
    const auto velocity = [&](std::size_t i) { return 1.0 / static_cast<double>(sorted[i]); };
    return {velocity(sorted.size() - 1), velocity(sorted.size() / 2), velocity(0)};
}

/// Greatest memory of this process so far, MiB; 0 where it cannot be told.
double memory() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:")) return std::atof(line.c_str() + 6) / 1024.0;
    return 0.0;
}

/// Where the panels will go.
std::string data_folder(qas::Session& session) {
    if (const auto given = session.getch<std::string>("datapath")) return given->substr(0, given->find(';'));
    const char* environment = std::getenv("DATAPATH");
    return environment ? environment : ".";
}

std::vector<Verdict> judge_cost(const Parms& par, qas::Session& session, double migration, std::size_t migrated) {
    const double evaluations = 1.2 * std::max(par.niter, 1) + 1.0;
    const double evaluation = migration / static_cast<double>(migrated) * par.rec.xd.n * (par.exact() ? 4.0 : 3.0);
    const double panel = 4.0 * par.img.xm.n * par.img.z.n * (2.0 * par.nsecdim + 2.0);
    std::vector<Verdict> out;
    out.push_back({Level::ok, "time",
                   qas::strprintf("about %.3g s an evaluation on this machine, %.3g h for niter=%d", evaluation,
                                  evaluation * evaluations / 3600.0, par.niter)});
    out.push_back({Level::ok, "memory",
                   qas::strprintf("%.0f MiB here, a window of %.1f MiB for each thread among it", memory(),
                                  4.0 * par.kxm.n * par.nsecdim * par.img.z.n / 1048576.0)});
    struct statvfs disk;
    const double needed = evaluations * panel / 1048576.0;
    if (statvfs(data_folder(session).c_str(), &disk) == 0) {
        const double free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize) / 1048576.0;
        out.push_back({judge(free, 1.5 * needed, needed), "disk",
                       qas::strprintf("%.0f MiB for the panels, %.0f free", needed, free)});
    }
    return out;
}

std::vector<int> middle_shots(int all, int wanted) {
    std::vector<int> used(static_cast<std::size_t>(std::clamp(wanted, 0, all)));
    std::iota(used.begin(), used.end(), (all - static_cast<int>(used.size())) / 2 + 1);
    return used;
}

/// Both estimates of the time at which the records begin.
Verdict look_at_time_zero(const Inversion& run, FewShots& few, const Focus& as_is, const Records& records,
                          const ModelRange& model) {
    constexpr double largest_error = 0.15;  // of the start velocity
    const double period = 1.0 / records.peak;
    const double deepest = 2.0 * (run.par.img.z.n - 1) * static_cast<double>(run.par.v.z.d) / (model.median * period);
    std::vector<double> shifts;
    std::vector<Focus> images;
    for (int k = -10; k <= 10; ++k) {
        shifts.push_back(0.3 * k);
        images.push_back(k == 0 ? as_is : few.focus({false, false, 0.3 * k * period}));
    }
    const double by_focus = time_zero_by_focus(shifts, images, largest_error * deepest);
    return judge_time_zero(by_focus, time_zero_by_fit(few, period, std::clamp(0.5 / deepest, 0.005, 0.05)), period);
}

std::vector<Verdict> judge_focus(const Inversion& run, const std::vector<int>& used, const Records& records,
                                 const ModelRange& model, qas::Session& session) {
    FewShots few(run.par, run.fft, run.taper, run.vref, load_shots(run, used), 1);
    const double start = seconds();
    std::array<Focus, 4> signs;
    signs[0] = few.focus({});
    const double migration = seconds() - start;
    std::array<double, 4> fit{};
    for (std::size_t i = 1; i < 4; ++i) signs[i] = few.focus(sign_variants[i]);
    for (std::size_t i = 0; i < 4; ++i) fit[i] = few.fit(sign_variants[i]);
    std::vector<Verdict> out{judge_signs(signs, judge(records.direct, 1.0, 3.0) != Level::ok),
                             judge_fit(fit, shares_of(signs))};
    constexpr std::size_t enough = 8;  // shots whose images can focus
    if (std::max(out[0].level, out[1].level) != Level::wrong && few.size() >= enough)
        out.push_back(look_at_time_zero(run, few, signs[0], records, model));
    for (Verdict& verdict : judge_cost(run.par, session, migration, few.size())) out.push_back(std::move(verdict));
    return out;
}

/// Everything that is to be said, in order.
std::vector<Verdict> check(qas::Session& session, const qas::KeyTable& keys) {
    const int wanted = session.getch<int>("shots").value_or(12);
    if (wanted < 0) refuse("shots=%d: 0 or more are needed", wanted);
    const Scratch scratch;
    std::vector<std::string> words = scratch.redirected(session.words());
    words.push_back("quiet=y");
    words.push_back("fftplan=estimate");  // planning would take longer than it saves
    qas::Session own(words);
    own.declare(keys);
    const Muted out(stdout);
    InversionSetup setup(own);
    setup.begin_outputs();
    const Muted progress(stderr);
    const Parms& par = setup.par;
    if (par.timeshift || par.nsecdim < 2)
        refuse("nh=%d%s: focus is judged by subsurface offsets, of which 3 or more are needed", par.nsecdim,
               par.timeshift ? " timeshift=y" : "");
    const LateralFft fft(par.kxm.n, setup.planner_flags());
    Shots shots(par, false);
    const Inversion run = setup.inversion(fft);
    const std::vector<int> used = middle_shots(par.rec.xd.n, wanted);
    const Records records = look_at_records(run, shots, setup.vel0, middle_shots(par.rec.xd.n, 12));
    const ModelRange model = range_of(setup.vel0);
    std::vector<Verdict> verdicts{judge_units(par, model, records)};
    const auto add = [&](std::vector<Verdict> more) { verdicts.insert(verdicts.end(), more.begin(), more.end()); };
    if (verdicts[0].level == Level::wrong) return verdicts;
    add(judge_sampling(par, model, records));
    add(judge_records(par, records));
    if (!used.empty()) add(judge_focus(run, used, records, model, session));
    return verdicts;
}

/// Prints the verdicts; returns the status.
int conclude(const std::vector<Verdict>& verdicts) {
    Level worst = Level::ok;
    for (const Verdict& verdict : verdicts) {
        std::printf("%-5s  %-14s  %s\n", level_name(verdict.level), verdict.what.c_str(), verdict.text.c_str());
        worst = std::max(worst, verdict.level);
    }
    const auto count = [&](Level level) { return std::ranges::count(verdicts, level, &Verdict::level); };
    std::printf("%td ok, %td to look at, %td wrong\n", count(Level::ok), count(Level::look), count(Level::wrong));
    return static_cast<int>(worst);
}

}  // namespace
}  // namespace morvane

using namespace morvane;

int main(int argc, char** argv) {
    const qas::KeyTable keys = check_table();
    if (const auto status = qas::answer(argc, argv, "morvane_check", [&] { return usage + keys.help(); }))
        return *status;
    flush_denormals();
    qas::Session session(argc, argv);
    return end_of(session, [&] {
        check_keys(session, keys);
        return conclude(check(session, keys));
    });
}
