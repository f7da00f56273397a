#include "src/tools/morvane_synth/survey_files.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/dataset_output.h"

namespace morvane {

namespace {

using qas::qaserr;

/// A number as short as its single-precision value allows.
std::string text_of(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.7g", value);
    return text;
}

Array<float, 2> read_model(qas::Session& session, const std::string& tag, const SynthOptions& options, const Axis& x,
                           const Axis& z) {
    const std::string file = named(session, tag);
    const auto axis = [&](int k) {
        const std::string number = std::to_string(k);
        return Axis{session.from_aux<int>(tag, "n" + number),
                    session.from_aux<float>(tag, "d" + number),
                    session.from_aux<float>(tag, "o" + number, 0.0f),
                    {}};
    };
    const Axis fx = axis(1), fz = axis(3);
    if (fx.n < 1 || fz.n < 1 || static_cast<double>(fx.n) * fz.n > 1e9)
        qaserr("%s=%s: n1=%d and n3=%d are no size of a model\n", tag.c_str(), file.c_str(), fx.n, fz.n);
    if (fx.d != options.dx || fz.d != options.dz)
        qaserr("%s=%s has the steps d1=%g, d3=%g; the survey's are dx=%g, dz=%g\n", tag.c_str(), file.c_str(),
               static_cast<double>(fx.d), static_cast<double>(fz.d), static_cast<double>(options.dx),
               static_cast<double>(options.dz));
    if (fz.o != 0.0f)
        qaserr("%s=%s starts at the depth o3=%g; it must start at the surface, 0\n", tag.c_str(), file.c_str(),
               static_cast<double>(fz.o));
    const double shift = (x.o - static_cast<double>(fx.o)) / x.d;
    if (std::abs(shift - std::round(shift)) > 1e-3)
        qaserr("%s=%s: its columns (o1=%g) lie between the traces, which start at %g; shift oshot or orec\n",
               tag.c_str(), file.c_str(), static_cast<double>(fx.o), static_cast<double>(x.o));
    if (z.n > fz.n)
        qaserr("zmax=%g is deeper than %s=%s, which ends at %g\n", static_cast<double>(options.zmax), tag.c_str(),
               file.c_str(), (fz.n - 1) * static_cast<double>(fz.d));

    Array<float, 2> all({fx.n, fz.n}), cut({x.n, z.n});
    const std::int64_t bytes = static_cast<std::int64_t>(all.flat().size_bytes());
    if (session.sreed(tag, all.flat().data(), bytes) != bytes)
        qaserr("%s=%s holds fewer than n1*n3 = %lld samples\n", tag.c_str(), file.c_str(),
               static_cast<long long>(all.flat().size()));
    for (std::ptrdiff_t i = 0; i < std::ssize(all.flat()); ++i)
        if (const float s = all.flat()[static_cast<std::size_t>(i)]; !(s > 0) || !std::isfinite(s))
            qaserr("%s=%s: the sample in column %lld, row %lld is %g; slowness must be positive\n", tag.c_str(),
                   file.c_str(), static_cast<long long>(i % fx.n + 1), static_cast<long long>(i / fx.n + 1),
                   static_cast<double>(s));
    const std::ptrdiff_t first = std::lround(shift);
    for (int iz = 0; iz < z.n; ++iz)
        for (int ix = 0; ix < x.n; ++ix) cut(ix, iz) = all(std::clamp<std::ptrdiff_t>(first + ix, 0, fx.n - 1), iz);
    const std::ptrdiff_t left = std::max<std::ptrdiff_t>(0, -first);
    const std::ptrdiff_t right = std::max<std::ptrdiff_t>(0, first + x.n - fx.n);
    if (left + right > 0)
        std::fprintf(stderr, "morvane_synth: %s=%s is continued by %lld columns on the left and %lld on the right\n",
                     tag.c_str(), file.c_str(), static_cast<long long>(left), static_cast<long long>(right));
    return cut;
}

using Axes = std::array<HeaderAxis<float>, 4>;

void write_model(qas::Session& session, const std::string& tag, const EarthModel& model,
                 const Array<float, 2>& slowness) {
    write_header<float>(session, tag,
                        {{{model.x.n, model.x.d, model.x.o}, {1, 1, 0}, {model.z.n, model.z.d, model.z.o}, {1, 1, 0}}},
                        4);
    write_samples<float>(session, tag, slowness.flat());
}

}  // namespace

EarthModel survey_model(qas::Session& session, const SynthOptions& options) {
    const Axis x = options.geometry.image();
    const Axis z{
        static_cast<int>(std::lround(options.zmax / static_cast<double>(options.dz))) + 1, options.dz, 0.0f, {}};
    if (!options.from_file) return build_model(options.spec, x, z);
    EarthModel model{x, z, read_model(session, "model", options, x, z), Array<float, 2>(), Array<float, 2>()};
    model.smooth = model.full;
    if (session.exist_file("start")) {
        model.start = read_model(session, "start", options, x, z);
    } else {
        model.start = smoothed(model.full.view(), options.dx, options.dz, options.smooth);
        for (float& s : model.start.flat()) s /= options.spec.start_scale;
    }
    return model;
}

std::string parameter_file(qas::Session& session, const SynthOptions& options, const EarthModel& model) {
    const Geometry& g = options.geometry;
    const float fastest = 1.0f / value_range(model.start.view()).first;
    std::string text =
        "# A survey of morvane_synth, model=" + options.model + ". Run: morvane par=" + options.parfile + "\n";
    const auto line = [&](const std::string& words) { text += words + "\n"; };
    line("vel=" + named(session, "vel") + " rec=" + named(session, "rec") + " sou=" + named(session, "sou"));
    line("Velout=Velout.H bkgimg=bkgimg.H Dimage=Dimage.H grad=grad.H");
    line(std::string("areal=") + (g.areal ? "y" : "n") + " traces_in_taper=" + std::to_string(g.taper) +
         " padtraces=" + std::to_string(g.pad));
    line("zmin=0 zmax=" + text_of((model.z.n - 1) * static_cast<double>(model.z.d)) +
         " nh=" + std::to_string(options.nh));
    line("# no sample may reach vsal, from which on a body counts as fast");
    line("extrapolator=ffd dipop=45 trick=0.2 vsal=" + text_of(std::ceil(10.0 * fastest)));
    line("inversion=y dso=y expdso=0.15 normalise=y depthdiff=1 niter=" + std::to_string(options.niter) + " mmax=20");
    line("gradient=exact firststep=0.03");
    line("stop=fit stop_rise=0 stop_patience=4 best=best.H course=course.csv");
    if (options.below_shots) {
        const double last = g.shot.o + (g.shot.n - 1) * static_cast<double>(g.shot.d);
        line("fun_xmin=" + text_of(g.shot.o) + " fun_xmax=" + text_of(last));
    }
    if (options.bound > 0) line("bounds=y p_up=" + text_of(options.bound) + " p_lo=" + text_of(options.bound));
    if (options.regx > 0 || options.regz > 0)
        line("regularise=0.5 reg_x=" + text_of(options.regx) + " reg_z=" + text_of(options.regz));
    if (options.dxk > 0 && options.dzk > 0) {
        // one knot beyond each end: the splines then add up to one everywhere
        const double width = (model.x.n - 1) * static_cast<double>(model.x.d);
        const double depth = (model.z.n - 1) * static_cast<double>(model.z.d);
        const auto knots = [](double length, float step) {
            return std::to_string(static_cast<int>(std::ceil(length / step)) + 3);
        };
        line("dxk=" + text_of(options.dxk) + " oxk=" + text_of(model.x.o - static_cast<double>(options.dxk)) +
             " nxk=" + knots(width, options.dxk));
        if (options.hold)
            line("dzk=" + text_of(options.dzk) + " ozk=" + text_of(options.dzk) +
                 " nzk=" + std::to_string(std::max(1, static_cast<int>(depth / options.dzk))));
        else
            line("dzk=" + text_of(options.dzk) + " ozk=" + text_of(-static_cast<double>(options.dzk)) +
                 " nzk=" + knots(depth, options.dzk));
    }
    return text;
}

SurveyFiles open_survey(qas::Session& session, const SynthOptions& options) {
    std::vector<std::string> tags{"vel", "true", "rec", "sou"};
    for (const char* tag : {"full", "dips"})
        if (session.exist_file(tag)) tags.push_back(tag);
    for (const char* tag : {"traces", "wavelet"})
        if (options.acquisition.trace_dt > 0 && session.exist_file(tag)) tags.push_back(tag);
    session.hold_outputs();
    session.open_outputs(tags);
    return {session.claim_output({options.parfile, "parfile=" + options.parfile, "give it another name", true})};
}

void write_survey(qas::Session& session, SurveyFiles& files, const SynthOptions& options, const EarthModel& model,
                  const SurveyData& data) {
    session.begin_outputs();
    const Geometry& g = options.geometry;
    const Axis &shot = g.shot, &trace = g.trace, &freq = options.acquisition.freq;
    write_model(session, "vel", model, model.start);
    float top = 0.0f, bottom = (model.z.n - 1) * model.z.d;
    if (!options.spec.reflectors.empty() && !options.from_file) {
        const auto [low, high] = std::ranges::minmax(options.spec.reflectors, {}, &Reflector::z);
        top = low.z;
        bottom = std::min(bottom, high.z);
    }
    session.to_history("xmin", shot.o, "true");
    session.to_history("xmax", shot.o + (shot.n - 1) * shot.d, "true");
    session.to_history("zmin", top, "true");
    session.to_history("zmax", bottom, "true");
    write_model(session, "true", model, model.smooth);
    if (session.exist_file("full")) write_model(session, "full", model, model.full);
    if (session.exist_file("dips")) {
        write_header<float>(
            session, "dips",
            {{{model.z.n, model.z.d, model.z.o}, {model.x.n, model.x.d, model.x.o}, {1, 1, 0}, {1, 1, 0}}}, 4);
        write_samples<float>(session, "dips", layer_dips(options.spec, model.x, model.z).flat());
    }

    const HeaderAxis<float> none{1, 1, 0}, frequencies{freq.n, freq.d, freq.o}, shots{shot.n, shot.d, shot.o};
    for (const char* tag : {"rec", "sou"}) session.to_history("model", options.model, tag);
    write_header<float>(session, "rec", {{{trace.n, trace.d, trace.o}, none, frequencies, shots}}, 8);
    write_samples<cf>(session, "rec", data.rec.flat());
    write_header<float>(session, "sou",
                        g.areal ? Axes{{{trace.n, trace.d, trace.o}, none, frequencies, shots}}
                                : Axes{{{1, trace.d, 0}, none, frequencies, none}},
                        8);
    write_samples<cf>(session, "sou", data.sou.flat());

    if (options.acquisition.trace_dt > 0) {
        const Axis times = trace_times(options.acquisition);
        const HeaderAxis<float> time{times.n, times.d, 0};
        if (session.exist_file("traces")) {
            write_header<float>(session, "traces", {{time, {trace.n, trace.d, trace.o}, shots, none}}, 4);
            write_samples<float>(session, "traces", data.traces.flat());
        }
        if (session.exist_file("wavelet")) {
            write_header<float>(session, "wavelet", {{time, none, none, none}}, 4);
            write_samples<float>(session, "wavelet", data.wavelet);
        }
    }

    session.finish_outputs();
    files.parameters.write(parameter_file(session, options, model));
    files.parameters.finish();
}

}  // namespace morvane
