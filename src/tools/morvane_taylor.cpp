// morvane_taylor: test on the user's own data whether the gradients predict how the objective changes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
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
#include "src/areal/wemva/start/checks.h"
#include "src/areal/wemva/start/key_table.h"
#include "src/tools/morvane_taylor/taylor.h"

namespace morvane {

namespace {

constexpr const char* usage =
    "morvane_taylor: does the gradient predict how fun changes? Takes the parameters of morvane (name=value, par=FILE)\n"
    "and prints, for random smooth directions d and both gradient modes, fun(x+hd) at h = 1, 1/2, 1/4, ..., the\n"
    "first-order remainder |fun(x+hd) - fun(x)|, the second-order remainder |fun(x+hd) - fun(x) - h<g,d>|, their rates\n"
    "(1 and 2 for a right gradient, until the noise of single precision is reached), and <g,d> against the central\n"
    "difference at a step chosen from that noise. The outputs that the parameters name are not touched.\n"
    "A direction is undecided if three standard deviations of the difference's noise, and twice what the last halving\n"
    "of its step changed, exceed 1 %: another reach, or another seed, may decide it. Ends with status 0 if <g,d> of the\n"
    "exact gradient is within 1 % of the difference along every decided direction, 1 if not, 2 if none is decided.\n";

/// The table of keys: its own, then those of a run.
qas::KeyTable taylor_keys() {
    using enum qas::KeyType;
    std::vector<qas::KeyGroup> groups = {
        {"morvane_taylor",
         {{"ndir", integer, "", "2", "",
           "directions, of the knots where these are the variables; every other one without a lateral mean"},
          {"nstep", integer, "", "6", "", "steps h = 1, 1/2, 1/4, ..."},
          {"reach", real, "", "0.02", "", "largest relative change of slowness at h = 1"},
          {"seed", integer, "", "1", "", "of the directions"}}}};
    for (qas::KeyGroup& group : run_keys()) groups.push_back(std::move(group));
    return qas::KeyTable(std::move(groups));
}

struct Plan {
    int ndir, nstep, seed;
    double reach;
};

Plan read_plan(qas::Session& session) {
    const Plan plan{session.getch<int>("ndir").value_or(2), session.getch<int>("nstep").value_or(6),
                    session.getch<int>("seed").value_or(1),
                    static_cast<double>(session.getch<float>("reach").value_or(0.02f))};
    if (plan.ndir < 1 || plan.ndir > 100) refuse("ndir=%d: permitted are 1 to 100 directions", plan.ndir);
    if (plan.nstep < 3 || plan.nstep > 20) refuse("nstep=%d: permitted are 3 to 20 steps", plan.nstep);
    if (!(plan.reach > 0.0 && plan.reach < 0.5))
        refuse("reach=%g: permitted is more than 0, less than 0.5", plan.reach);
    return plan;
}

/// The user's words with the mode set.
std::vector<std::string> arguments_of(std::vector<std::string> words, const Scratch& scratch, const char* mode) {
    words = scratch.redirected(std::move(words));
    words.push_back(std::string("gradient=") + mode);
    if (std::string_view(mode) == "classic")
        for (const char* key : keys_of_exact_mode) words.push_back(std::string(key) + "=");
    return words;
}

void print_line(const char* mode, int direction, bool with_mean, bool knots, const TaylorLine& line) {
    std::printf("\ngradient=%s, direction %d%s%s\n", mode, direction, knots ? " of the knots" : "",
                with_mean ? "" : ", no lateral mean");
    std::printf("  fun(x) = %.9E, noise of fun %.1E\n", line.fun0, line.noise);
    std::printf("  %10s  %16s  %12s %6s  %12s %6s\n", "h", "fun(x+hd)", "first", "rate", "second", "rate");
    const auto rate = [](double r) { return std::isfinite(r) ? qas::strprintf("%.2f", r) : std::string("-"); };
    for (const TaylorRow& row : taylor_rows(line)) {
        std::printf("  %10.3E  %16.9E  %12.4E %6s  %12.4E %6s%s\n", row.h, row.fun, row.first,
                    rate(row.first_rate).c_str(), row.second, rate(row.second_rate).c_str(),
                    row.second < 3.0 * line.noise ? "  (noise)" : "");
    }
    std::printf("  <g,d> = %.6E, central difference %.6E at h = %.3E", line.slope, line.central, line.central_h);
    std::printf(" (chosen from the noise)\n");
    if (bends_within_steps(line))
        std::printf("  fun bends within the smallest step: a search along d will see another slope than <g,d>\n");
}

/// The solver varies spline coefficients, not samples.
bool varies_knots(const Parms& par) {
    return par.exact() && par.spline_grad();
}

/// A smooth random direction of the solver's variables that changes no sample by more than `reach` of its slowness x.
std::vector<double> direction(const InversionSetup& setup, std::span<const double> x, bool with_mean, double reach,
                              unsigned seed) {
    const Parms& par = setup.par;
    std::vector<double> d = varies_knots(par) ? smooth_direction(par.axk.n, par.azk.n, with_mean, seed)
                                              : smooth_direction(par.img.xm.n, par.img.z.n, with_mean, seed);
    std::vector<double> moved = setup.variables.first(), there(x.size());
    std::ranges::transform(moved, d, moved.begin(), std::plus<>());
    setup.variables.model(moved, there);
    double largest = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) largest = std::max(largest, std::abs(there[i] - x[i]) / x[i]);
    if (largest == 0.0) refuse("nxk=%d nzk=%d: no knot reaches the image", par.axk.n, par.azk.n);
    for (double& component : d) component *= reach / largest;
    return d;
}

/// Tests one mode along every direction.
std::vector<SlopeCheck> test_mode(const std::vector<std::string>& words, const char* mode, const Plan& plan,
                                  const qas::KeyTable& keys) {
    const Scratch scratch;
    qas::Session session(arguments_of(words, scratch, mode));
    session.declare(keys);
    std::vector<TaylorLine> lines;
    std::vector<char> means;
    bool knots = false;
    {
        const Muted out(stdout);
        InversionSetup setup(session);
        setup.begin_outputs();
        const LateralFft fft(setup.par.kxm.n, setup.planner_flags());
        EvaluationArrays arrays(setup.par);
        Inversion run = setup.inversion(fft);
        run.panels = false;
        std::vector<double> x = setup.start, g(x.size());
        const Muted progress(stderr);
        const double fun0 = evaluate(run, arrays, x, g, 1, 1);
        if (setup.par.exact() && !(fun0 > 0.0))
            refuse("fun is %g at the start model: there is nothing to test; check rec and sou", fun0);
        const Variables& variables = setup.variables;
        const std::vector<double> first = variables.first();
        std::vector<double> slope(first.size());
        variables.gradient(g, slope);
        const Value value = [&](std::span<const double> at) {
            std::vector<double> point(at.begin(), at.end()), model(x.size());
            variables.model(point, model);
            return evaluate_fun(run, arrays, model);
        };
        knots = varies_knots(setup.par);
        for (int i = 0; i < plan.ndir; ++i) {
            const bool with_mean = i % 2 == 0;
            const std::vector<double> d =
                direction(setup, x, with_mean, plan.reach, static_cast<unsigned>(plan.seed + i));
            lines.push_back(taylor_line(value, first, d, slope, fun0, plan.nstep, plan.reach));
            means.push_back(with_mean);
        }
    }
    std::vector<SlopeCheck> checks;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        print_line(mode, static_cast<int>(i) + 1, means[i], knots, lines[i]);
        const SlopeCheck check = check_slope(lines[i]);
        std::printf("  <g,d> is off by %.3g %%, noise and bending of fun may make %.3g %%%s\n", 100.0 * check.error,
                    100.0 * check.doubt, check.verdict == SlopeVerdict::undecided ? ": undecided" : "");
        checks.push_back(check);
    }
    std::fflush(stdout);
    return checks;
}

/// Prints the verdict; returns the status.
int conclude(const std::vector<SlopeCheck>& checks) {
    const auto count = [&](SlopeVerdict v) { return std::ranges::count(checks, v, &SlopeCheck::verdict); };
    double worst = 0.0;
    for (const SlopeCheck& check : checks)
        if (check.verdict != SlopeVerdict::undecided) worst = std::max(worst, check.error);
    const auto undecided = count(SlopeVerdict::undecided);
    if (undecided == std::ssize(checks)) {
        std::printf("\nverdict: none, fun is too noisy or too rough along every direction; try another reach\n");
        return 2;
    }
    const bool right = count(SlopeVerdict::wrong) == 0;
    std::printf("\nverdict: the exact gradient %s: <g,d> is off by %.3g %% at most, %g %% is allowed",
                right ? "is right" : "FAILS", 100.0 * worst, 100.0 * slope_limit);
    if (undecided > 0)
        std::printf("; %td of %td directions are undecided, fun being too noisy or too rough", undecided,
                    std::ssize(checks));
    std::printf("\n");
    return right ? 0 : 1;
}

}  // namespace

}  // namespace morvane

using namespace morvane;

int main(int argc, char** argv) {
    const qas::KeyTable keys = taylor_keys();
    if (const auto status = qas::answer(argc, argv, "morvane_taylor", [&] { return usage + keys.help(); }))
        return *status;
    flush_denormals();
    qas::Session session(argc, argv);
    return end_of(session, [&] {
        check_keys(session, keys);
        const Plan plan = read_plan(session);
        const std::vector<SlopeCheck> exact = test_mode(session.words(), "exact", plan, keys);
        test_mode(session.words(), "classic", plan, keys);
        return conclude(exact);
    });
}
