#include "src/areal/wemva/inversion/evaluation.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

#include "lib/base/fixed_format.h"
#include "lib/base/warning.h"
#include "lib/class/geodip.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/exec_time.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/run/truncate.h"
#include "src/areal/wemva/step/ffd_stage.h"

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

// --- numbers that are not finite -------------------------------------------------------------------------------------

std::int64_t count_not_finite(std::span<const float> samples) {
    return std::count_if(samples.begin(), samples.end(), [](float s) { return !std::isfinite(s); });
}

void check_data(const char* tag, int ishot, View<const cf, 2> field) {
    const std::span<const float> samples{parts(field.p), 2 * field.flat().size()};
    if (const std::int64_t bad = count_not_finite(samples); bad > 0)
        refuse("%s: shot %d holds %lld of %zu numbers that are not finite", tag, ishot, static_cast<long long>(bad),
               samples.size());
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

// --- shots -----------------------------------------------------------------------------------------------------------

/// Puts both datasets back to their start; with one source function, reads it and sets it at its trace.
void rewind_shots(const Inversion& run, EvaluationArrays& arrays) {
    const Parms& par = run.par;
    for (const char* tag : {"rec", "sou"})
        if (run.session.sseek(tag, 0, 0) != 0) refuse("%s: its data cannot be read again from their start", tag);
    if (par.areal) return;
    Array<cf, 1> source1({par.sou.w.n});
    run.session.sreed("sou", source1.view().p, bytes(source1.flat()));
    check_data("sou", 1, {source1.view().p, {source1.n()[0], 1}});
    for (int iw = 0; iw < par.sou.w.n; ++iw) arrays.source(par.isp - 1, iw) = source1(iw);
}

/// Reads the wavefields of the next shot and cuts its model. Returns the first column of its window, from 1.
int load_shot(const Inversion& run, EvaluationArrays& arrays, int ishot) {
    const Parms& par = run.par;
    int ish = 1;
    if (par.areal) {
        arrays.source.fill({});
        run.session.sreed("sou", arrays.source.view().p, bytes(arrays.source.flat()));
        check_data("sou", ishot, arrays.source);
        std::ranges::copy(arrays.model.flat(), arrays.vel.flat().begin());
    } else {
        ish = owgrab_vel(par, run.session, arrays.model, arrays.vel, false, ishot);
    }
    arrays.recv.fill({});
    run.session.sreed("rec", arrays.recv.view().p, bytes(arrays.recv.flat()));
    check_data("rec", ishot, arrays.recv);
    return ish;
}

/// Adds the columns of a shot's window to those of the image from column ish on, counted from 1.
void stack(View<const float, 2> window, View<float, 2> image, int ish) {
    for (std::ptrdiff_t i = 0; i < window.n[1]; ++i) {
        float* const out = image.slice(i).p + ish - 1;
        const float* const in = window.slice(i).p;
        for (std::ptrdiff_t ix = 0; ix < window.n[0]; ++ix) out[ix] += in[ix];
    }
}
void stack(View<const float, 3> window, View<float, 3> image, int ish, int nodes) {
#pragma omp parallel for schedule(static) num_threads(nodes)
    for (std::ptrdiff_t iz = 0; iz < window.n[2]; ++iz) stack(window.slice(iz), image.slice(iz), ish);
}

void cut_window(View<const float, 2> image, View<float, 2> window, int ish) {
    for (std::ptrdiff_t i = 0; i < window.n[1]; ++i)
        std::copy_n(image.slice(i).p + ish - 1, window.n[0], window.slice(i).p);
}
void cut_window(View<const float, 3> image, View<float, 3> window, int ish) {
    for (std::ptrdiff_t iz = 0; iz < window.n[2]; ++iz) cut_window(image.slice(iz), window.slice(iz), ish);
}

/// Divides by the illumination where there is any.
void compensate(View<float, 3> image, View<const float, 2> illumination) {
    for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
        for (std::ptrdiff_t ih = 0; ih < image.n[1]; ++ih)
            for (std::ptrdiff_t ix = 0; ix < image.n[0]; ++ix)
                image(ix, ih, iz) =
                    image(ix, ih, iz) * illumination(ix, iz) / (illumination(ix, iz) * illumination(ix, iz) + 0.5f);
}

/// Reference velocities of the exact mode, of the window that begins at column ish, counted from 1. Those of the
/// finite-difference form stay below every velocity that a trial can have.
ReferenceTable freeze_references(const Inversion& run, View<const float, 2> start, int ish) {
    ReferenceTable table = references_of(prepare_medium(run.par, start, run.vref, {}));
    if (!run.par.ffd()) return table;
    const View<const float, 2> slowest = run.slowest.p ? run.slowest : run.vel0;
    for (std::size_t iz = 0; iz < table.size(); ++iz) {
        const auto window = slowest.slice(static_cast<std::ptrdiff_t>(iz))
                                .flat()
                                .subspan(static_cast<std::size_t>(ish - 1), static_cast<std::size_t>(start.n[0]));
        table[iz][0] = ffd_reference_share(run.par.dipop) / std::ranges::max(window);
    }
    return table;
}

/// The context of shot ishot, whose window begins at column ish, counted from 1; in the exact mode with the reference
/// velocities of its window of the start model.
WaveContext context_of(const Inversion& run, EvaluationArrays& arrays, int nodes, int ishot, int ish) {
    WaveContext context{run.par, run.fft, nodes, run.taper, run.vref};
    context.memory = &arrays.memory;
    if (run.par.exact()) {
        ReferenceTable& table = arrays.references[run.par.areal ? 0 : static_cast<std::size_t>(ishot - 1)];
        cut_window(run.vel0, arrays.start, ish);
        if (table.empty()) table = freeze_references(run, arrays.start, ish);
        context.frozen = {&table, arrays.start};
        context.clear_margins = true;
    }
    return context;
}

/// Exact mode: zero outside the columns that count in fun.
void keep_columns(const Parms& par, View<float, 3> image) {
    if (!par.exact()) return;
    for (std::ptrdiff_t ix = 0; ix < image.n[0]; ++ix) {
        if (par.counts_in_fun(static_cast<int>(ix))) continue;
        for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
            for (std::ptrdiff_t ih = 0; ih < image.n[1]; ++ih) image(ix, ih, iz) = 0.0f;
    }
}

double energy(std::span<const float> samples) {
    double sum = 0.0;
    for (const float v : samples) sum += static_cast<double>(v) * v;
    return sum;
}

void list_shot(const Inversion& run, int ishot, float start) {
    run.listing.line("EXTRAPOLATED WAVEFIELDS = " + column_int(ishot, 4) + " OUT OF " +
                     column_int(run.par.rec.xd.n, 4) + " IN " + minutes(start, owexec_time(), 6) + " min");
}

// --- outputs ---------------------------------------------------------------------------------------------------------

void write_panel(const Inversion& run, const char* tag, int titer, std::span<const float> samples) {
    if (!run.panels) return;
    run.session.to_history<int>("n4", titer, tag);
    run.session.srite(tag, samples.data(), bytes(samples));
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

/// Warns, once a run, of a model that no physical medium has.
void check_signs(EvaluationArrays& arrays, std::span<const double> x, int titer) {
    const auto wrong = std::ranges::count_if(x, [](double s) { return !(s > 0.0); });
    if (wrong == 0 || arrays.warned_of_signs) return;
    arrays.warned_of_signs = true;
    warn(
        "evaluation %d: %td of %zu samples of the trial model are not positive (least %g): the step has left the range "
        "of physical models. The run goes on, and this is said once; bounds, or firststep=0.03, or both would keep it "
        "within",
        titer, wrong, x.size(), *std::ranges::min_element(x));
}

/// fun of the residual at hand.
double value(const Parms& par, const EvaluationArrays& arrays) {
    const double fun = objective(par, arrays.b_image);
    return par.normalise ? fun / energy(arrays.image.flat()) : fun;
}

}  // namespace

EvaluationArrays::EvaluationArrays(const Parms& par)
    : model({par.img.xm.n, par.img.z.n}),
      b_image({par.img.xm.n, par.nsecdim, par.img.z.n}),
      r_image(par.l1norm || par.nxfilt != not_given ? Array<float, 3>({par.img.xm.n, par.nsecdim, par.img.z.n})
                                                    : Array<float, 3>()),
      deltai({par.kxm.n, par.nsecdim, par.img.z.n}),
      vel({par.kxm.n, par.img.z.n}),
      deltas({par.kxm.n, par.img.z.n}),
      scats({par.img.xm.n, par.img.z.n}),
      illum(par.compensates() ? Array<float, 2>({par.kxm.n, par.img.z.n}) : Array<float, 2>()),
      illumination(par.compensates() ? Array<float, 2>({par.img.xm.n, par.img.z.n}) : Array<float, 2>()),
      recv({par.rec.h.n, par.rec.w.n}),
      source({par.areal ? par.sou.h.n : par.rec.h.n, par.sou.w.n}) {
    if (par.exact()) {
        start = vel;
        references.resize(static_cast<std::size_t>(par.areal ? 1 : par.rec.xd.n));
        if (par.l1norm || par.normalise) image = b_image;
        if (par.l1norm && par.normalise) weighted = b_image;
    }
    if (!par.spline_grad() || par.exact()) return;
    const std::size_t samples = model.flat().size();
    gspl.resize(std::max(samples, static_cast<std::size_t>(par.axk.n) * static_cast<std::size_t>(par.azk.n)));
}

void form_image(const Inversion& run, EvaluationArrays& arrays, int iter) {
    const Parms& par = run.par;
    arrays.b_image.fill(0.0f);
    const float start1 = owexec_time();
    rewind_shots(run, arrays);
    for (int ishot = 1; ishot <= par.rec.xd.n; ++ishot) {
        const float start = owexec_time();
        const int ish = load_shot(run, arrays, ishot);
        arrays.deltai.fill(0.0f);
        arrays.illum.fill(0.0f);
        const int nodes = owwei_init(par);
        owwei(context_of(run, arrays, nodes, ishot, ish), arrays.recv, arrays.source, arrays.vel, arrays.deltai,
              arrays.illum);
        stack(arrays.deltai, arrays.b_image, ish, nodes);
        if (par.compensates()) {
            stack(arrays.illum, arrays.illumination, ish);
            compensate(arrays.b_image, arrays.illumination);
        }
        list_shot(run, ishot, start);
    }
    run.listing.line("COMPUTED BACKGROUND IMAGE IN " + minutes(start1, owexec_time(), 10) + " min OF ITERATION # " +
                     column_int(iter, 4));
}

void form_residual(const Inversion& run, EvaluationArrays& arrays, int titer) {
    const Parms& par = run.par;
    constexpr bool forward = false, adjoint = true;
    keep_columns(par, arrays.b_image);
    if (par.normalise) arrays.image = arrays.b_image;
    owdso(par, forward, arrays.b_image, run.pick1);
    if (par.nxfilt != not_given) {
        const FilterOutput filters{run.session, titer};
        fx2d_lop(fx2d_design(par), arrays.b_image, arrays.r_image, run.panels ? &filters : nullptr);
        std::ranges::copy(arrays.r_image.flat(), arrays.b_image.flat().begin());
    }
    if (par.l1norm) {
        owsmooth(par, arrays.b_image, arrays.r_image);
        if (par.exact()) (par.normalise ? arrays.weighted : arrays.image) = arrays.b_image;
        const auto image = arrays.b_image.flat();
        const auto envelope = arrays.r_image.flat();
        // the envelope to the power of itself, not squared
        for (std::size_t i = 0; i < image.size(); ++i)
            image[i] = image[i] * std::abs(image[i]) / std::pow(envelope[i], envelope[i]);
    }
    owdso(par, adjoint, arrays.b_image, run.pick1);
}

double objective(const Parms& par, View<const float, 3> b_image) {
    const std::ptrdiff_t second = par.exact() ? b_image.n[1] : par.img.sh.n;
    const auto square = [&](float r) { return par.exact() ? static_cast<double>(r) * r : r * r; };
    double fun = 0.0;
    for (std::ptrdiff_t iz = 0; iz < b_image.n[2]; ++iz) {
        for (std::ptrdiff_t ish = 0; ish < second; ++ish) {
            for (const float r : b_image.slice(iz).slice(ish).flat()) fun += par.l1norm ? std::abs(r) : square(r);
        }
    }
    return fun;
}

namespace {

/// From the residual r = W y |y| / e^e and the envelope e = B |y| to the derivative of sum |r| with respect to y,
/// 2 W y / e^e - sign(y) B' (|r| (1 + ln e)), in place of the residual. The envelope is overwritten.
void differentiate_reweighting(const Inversion& run, EvaluationArrays& arrays) {
    const auto y = (run.par.normalise ? arrays.weighted : arrays.image).flat();
    const auto out = arrays.b_image.flat();
    const auto envelope = arrays.r_image.flat();
    for (std::size_t i = 0; i < out.size(); ++i) {
        const float e = envelope[i], size = std::abs(out[i]);
        out[i] = 2.0f * y[i] / std::pow(e, e);
        envelope[i] = size > 0.0f ? size * (1.0f + std::log(e)) : 0.0f;
    }
    owdso(run.par, false, arrays.b_image, run.pick1);
    owsmooth_transpose(run.par, arrays.r_image);
    for (std::size_t i = 0; i < out.size(); ++i) {
        const float sign = y[i] > 0.0f ? 1.0f : y[i] < 0.0f ? -1.0f : 0.0f;
        out[i] -= sign * envelope[i];
    }
}

}  // namespace

void differentiate_objective(const Inversion& run, EvaluationArrays& arrays, double fun) {
    const Parms& par = run.par;
    constexpr bool forward = false, adjoint = true;
    const auto out = arrays.b_image.flat();
    if (par.l1norm) {
        differentiate_reweighting(run, arrays);
    } else {
        for (float& r : out) r *= 2.0f;
        owdso(par, forward, arrays.b_image, run.pick1);
    }
    owdso(par, adjoint, arrays.b_image, run.pick1);
    if (par.normalise) {
        const auto image = arrays.image.flat();
        const double all = energy(image);
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<float>((out[i] - 2.0 * fun * image[i]) / all);
    }
    keep_columns(par, arrays.b_image);
}

void back_project(const Inversion& run, EvaluationArrays& arrays) {
    const Parms& par = run.par;
    constexpr bool adjoint = true;
    rewind_shots(run, arrays);
    arrays.scats.fill(0.0f);
    for (int ishot = 1; ishot <= par.rec.xd.n; ++ishot) {
        const float start = owexec_time();
        const int ish = load_shot(run, arrays, ishot);
        arrays.deltas.fill(0.0f);
        const int nodes = owwemva_init(par, ishot);
        cut_window(arrays.b_image, arrays.deltai, ish);
        const WaveContext context = context_of(run, arrays, nodes, ishot, ish);
        if (par.exact())
            owwei_gradient(context, arrays.recv, arrays.source, arrays.vel, arrays.deltas, arrays.deltai);
        else
            owwemva(context, adjoint, arrays.recv, arrays.source, arrays.vel, arrays.deltas, arrays.deltai,
                    &run.session);
        stack(arrays.deltas, arrays.scats, ish);
        list_shot(run, ishot, start);
    }
}

void condition_gradient(const Inversion& run, EvaluationArrays& arrays, std::span<double> g) {
    float start2 = 0.0f, finish2 = 0.0f;
    if (run.spline && !run.par.exact()) {
        constexpr bool adjoint = true, forward = false, fresh = false;
        start2 = owexec_time();
        base_spln2d_oper(*run.spline, adjoint, fresh, arrays.gspl, g);
        base_spln2d_oper(*run.spline, forward, fresh, arrays.gspl, g);
        finish2 = owexec_time();
    }
    if (run.par.dipflt) {
        const std::vector<float> pick =
            run.pick1.empty() ? std::vector<float>() : owgeodip_init(run.pick1, !run.par.quiet);
        ow_geodip(run.session, run.par.img.z, run.par.img.xm, run.par.frame, pick, {g.data(), arrays.model.n()},
                  !run.par.quiet);
    }
    print_extremes(run.par, g);
    run.listing.line(right_justified("SMOOTHED GRADIENT IN ", 29) + minutes(start2, finish2, 10));
}

double evaluate(const Inversion& run, EvaluationArrays& arrays, std::span<double> x, std::span<double> g, int iter,
                int titer) {
    const Parms& par = run.par;
    const auto samples = arrays.model.flat();
    set_model(run, arrays, x);
    check_signs(arrays, x, titer);
    std::vector<float> panel(samples.size());
    std::ranges::transform(x, panel.begin(), [](double slowness) { return static_cast<float>(1.0 / slowness); });
    write_panel(run, "Velout", titer, panel);

    form_image(run, arrays, iter);
    write_panel(run, "bkgimg", titer, arrays.b_image.flat());
    if (run.panels && par.compensates())  // its n4 stays as it is
        run.session.srite("illum", arrays.illumination.view().p, bytes(arrays.illumination.flat()));
    check_result(par, arrays, "stacked image", titer, arrays.b_image.flat());

    form_residual(run, arrays, titer);
    write_panel(run, "Dimage", titer, arrays.b_image.flat());
    check_result(par, arrays, "image residual", titer, arrays.b_image.flat());

    if (par.normalise && energy(arrays.image.flat()) == 0.0)
        refuse(
            "evaluation %d: normalise=yes divides by the energy of the image, which is 0 where it counts in fun: check "
            "rec, sou, fun_xmin and fun_xmax",
            titer);
    const double fun = value(par, arrays);
    if (titer == 1 && fun == 0.0)
        doubt(par.strict,
              "evaluation 1: fun is 0, and no model lowers it: check rec and sou (weak data have squares of 0: scale "
              "them up), nh and horv0");
    if (par.exact()) differentiate_objective(run, arrays, fun);
    const float start1 = owexec_time();
    back_project(run, arrays);
    const double side = par.exact() ? 1.0 : -1.0;
    std::ranges::transform(arrays.scats.flat(), g.begin(), [&](float s) { return side * static_cast<double>(s); });
    if (par.exact() && !run.pick1.empty()) {  // what the edit overwrites has no influence
        const Array<float, 2> none(arrays.model.n());
        oweditvel(par, run.pick1, {g.data(), arrays.model.n()}, none);
    }
    print_extremes(par, g);
    condition_gradient(run, arrays, g);
    run.listing.line(right_justified("COMPUTED THE GRADIENT IN ", 29) + minutes(start1, owexec_time(), 10) +
                     " min OF ITERATION # " + column_int(iter, 4));
    std::ranges::transform(g, panel.begin(), [](double s) { return static_cast<float>(s); });
    write_panel(run, "grad", titer, panel);
    check_result(par, arrays, "gradient", titer, panel);
    return fun;
}

double evaluate_fun(const Inversion& run, EvaluationArrays& arrays, std::span<double> x) {
    set_model(run, arrays, x);
    form_image(run, arrays, 1);
    form_residual(run, arrays, 1);
    return value(run.par, arrays);
}

}  // namespace morvane
