#include "src/areal/wemva/inversion/evaluation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/fixed_format.h"
#include "lib/base/warning.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/exec_time.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"

namespace morvane {

namespace {

template <class T>
std::int64_t bytes(std::span<T> samples) {
    return static_cast<std::int64_t>(samples.size_bytes());
}

std::string minutes(float start, float finish, int width) {
    return column_fixed((finish - start) / 60.0f, width, 2);
}

std::string right_justified(std::string_view text, std::size_t width) {
    return std::string(width - text.size(), ' ') + std::string(text);
}

/// Ends the run if `samples` hold a number that is not finite.
void check_result(const Parms& par, const EvaluationArrays& arrays, const char* what, int titer,
                  std::span<const float> samples) {
    const std::int64_t bad = count_not_finite(samples);
    if (bad == 0) return;
    const auto model = arrays.model.flat();
    const auto wrong =
        std::count_if(model.begin(), model.end(), [](float s) { return !(s > 0.0f && std::isfinite(s)); });
    std::string cause = "numbers too large for single precision: scale rec and sou down, or check the units";
    if (wrong > 0)
        cause = std::to_string(wrong) +
                " samples of the trial model are not positive: set bounds or firststep, or check the units of vel";
    else if (par.l1norm)
        cause += ", or do without l1norm";
    refuse("evaluation %d: %lld of %zu samples of the %s are not finite; likely cause: %s", titer,
           static_cast<long long>(bad), samples.size(), what, cause.c_str());
}

void write_panel(const Inversion& run, const char* tag, int titer, std::span<const float> samples) {
    if (!run.panels) return;
    run.session.to_history<int>("n4", titer, tag);
    run.session.srite(tag, samples.data(), bytes(samples));
}

/// A panel of gathers. Offsets of the run that the stage leaves out are 0.
void write_gathers(const Inversion& run, const char* tag, int titer, View<const float, 3> image) {
    const std::ptrdiff_t offsets = run.par.limits.panel_offsets;
    if (!run.panels || offsets <= image.n[1]) return write_panel(run, tag, titer, image.flat());
    Array<float, 3> panel({image.n[0], offsets, image.n[2]});
    for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
        std::ranges::copy(image.slice(iz).flat(), panel.view().slice(iz).slice((offsets - image.n[1]) / 2).p);
    write_panel(run, tag, titer, panel.flat());
}

void print_extremes(const Parms& par, std::span<const double> g) {
    if (par.quiet) return;
    const auto [least, most] = std::ranges::minmax(g);
    list_write({"main => ", most, least});
}

/// The trial model in single precision, after the horizon edit: the solver takes the edited point as the one it
/// proposed.
void set_model(const Inversion& run, EvaluationArrays& arrays, std::span<double> x) {
    if (!run.pick1.empty()) oweditvel(run.par, run.pick1, {x.data(), arrays.model.n()}, run.vel0);
    std::ranges::transform(x, arrays.model.flat().begin(),
                           [](double slowness) { return static_cast<float>(slowness); });
}

/// Warns, once per run, of a model that no physical medium has.
void check_signs(EvaluationArrays& arrays, std::span<const double> x, int titer) {
    const auto wrong = std::ranges::count_if(x, [](double s) { return !(s > 0.0); });
    if (wrong == 0 || arrays.warned_of_signs) return;
    arrays.warned_of_signs = true;
    warn(
        "evaluation %d: %td of %zu samples of the trial model are not positive (least %g): the step has left the range "
        "of physical models. The run goes on, and this is said once; bounds, or firststep=0.03, or both would keep it within",
        titer, wrong, x.size(), *std::ranges::min_element(x));
}

/// Energy at zero offset over that at all offsets, in the columns that count in fun; 0 without energy.
double zero_offset_share(const Parms& par, View<const float, 3> image) {
    double at_zero = 0.0, all = 0.0;
    const int zero = zero_sample(par);
    for (std::ptrdiff_t ix = 0; ix < image.n[0]; ++ix) {
        if (!par.counts_in_fun(static_cast<int>(ix))) continue;
        for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
            for (std::ptrdiff_t ih = 0; ih < image.n[1]; ++ih) {
                const double sample = image(ix, ih, iz);
                all += sample * sample;
                if (ih == zero) at_zero += sample * sample;
            }
    }
    return all > 0.0 ? at_zero / all : 0.0;
}

/// What is taken from the stacked image before it becomes the residual.
void measure_image(const Parms& par, EvaluationArrays& arrays) {
    if (par.course) arrays.measures.share = zero_offset_share(par, arrays.b_image);
    if (!par.fit) return;
    const std::ptrdiff_t zero = zero_sample(par);
    for (std::ptrdiff_t iz = 0; iz < par.img.z.n; ++iz)
        std::ranges::copy(arrays.b_image.view().slice(iz).slice(zero).flat(),
                          arrays.zero_offset.view().slice(iz).flat().begin());
}

void write_model(const Inversion& run, EvaluationArrays& arrays, std::span<const double> x, int titer) {
    check_signs(arrays, x, titer);
    std::vector<float> velocity(x.size());
    std::ranges::transform(x, velocity.begin(), [](double slowness) { return static_cast<float>(1.0 / slowness); });
    write_panel(run, "Velout", titer, velocity);
}

void evaluate_image(const Inversion& run, EvaluationArrays& arrays, int iter, int titer) {
    const Parms& par = run.par;
    form_image(run, arrays, iter);
    write_gathers(run, "bkgimg", titer, arrays.b_image);
    if (run.panels && par.compensates())  // its n4 stays as it is
        run.session.srite("illum", arrays.illumination.view().p, bytes(arrays.illumination.flat()));
    check_result(par, arrays, "stacked image", titer, arrays.b_image.flat());
    measure_image(par, arrays);
}

double evaluate_residual(const Inversion& run, EvaluationArrays& arrays, int titer) {
    arrays.objective->form_residual(run, arrays.b_image, titer);
    write_gathers(run, "Dimage", titer, arrays.b_image);
    check_result(run.par, arrays, "image residual", titer, arrays.b_image.flat());
    const double fun = arrays.objective->value(arrays.b_image, titer);
    if (titer == 1 && fun == 0.0)
        doubt(run.par.strict,
              "evaluation 1: fun is 0, and no model lowers it: check rec and sou (weak data have squares of 0: scale "
              "them up), nh and horv0");
    return fun;
}

void evaluate_gradient(const Inversion& run, EvaluationArrays& arrays, std::span<const double> x, std::span<double> g,
                       int iter, int titer) {
    const View<double, 2> samples{g.data(), arrays.model.n()};
    const float start1 = owexec_time();
    back_project(run, arrays);
    if (run.par.fit) arrays.measures.fit = fit_of(arrays.fit_sums);
    arrays.objective->gradient(run, arrays.scats, samples);
    arrays.measures.regularisation = arrays.objective->regularise(run, arrays.measures.data, x, g);
    print_extremes(run.par, g);
    const float on_knots = arrays.objective->condition(run, samples);
    print_extremes(run.par, g);
    run.listing.line(right_justified("SMOOTHED GRADIENT IN ", 29) + minutes(0.0f, on_knots, 10));
    run.listing.line(right_justified("COMPUTED THE GRADIENT IN ", 29) + minutes(start1, owexec_time(), 10) +
                     " min OF ITERATION # " + column_int(iter, 4));
    std::vector<float> panel(g.size());
    std::ranges::transform(g, panel.begin(), [](double s) { return static_cast<float>(s); });
    write_panel(run, "grad", titer, panel);
    check_result(run.par, arrays, "gradient", titer, panel);
}

}  // namespace

double evaluate(const Inversion& run, EvaluationArrays& arrays, std::span<double> x, std::span<double> g, int iter,
                int titer) {
    Measures& measures = arrays.measures;
    set_model(run, arrays, x);
    if (arrays.position.pass == Position::Pass::none) write_model(run, arrays, x, titer);
    if (arrays.position.pass != Position::Pass::gradient) {
        evaluate_image(run, arrays, iter, titer);
        measures.data = evaluate_residual(run, arrays, titer);
        arrays.objective->differentiate(run, arrays.b_image, measures.data);
    }
    evaluate_gradient(run, arrays, x, g, iter, titer);
    arrays.position = {};
    return measures.data + measures.regularisation;
}

double evaluate_fun(const Inversion& run, EvaluationArrays& arrays, std::span<double> x) {
    set_model(run, arrays, x);
    form_image(run, arrays, 1);
    arrays.position = {};
    arrays.objective->form_residual(run, arrays.b_image, 1);
    Measures& measures = arrays.measures;
    measures.data = arrays.objective->value(arrays.b_image, 1);
    measures.regularisation = arrays.objective->regularise(run, measures.data, x, {});
    return measures.data + measures.regularisation;
}

}  // namespace morvane
