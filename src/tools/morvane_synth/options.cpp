#include "src/tools/morvane_synth/options.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

#include "lib/corelibs/qas/session.h"

namespace morvane {

namespace {

using qas::qaserr;

constexpr double tiny = 1e-6, huge = 1e9;

std::string number_text(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

/// Switches of the survey that are not numbers, as they are typed.
struct Words {
    std::string direct = "smooth";
    bool padding_given = false, spread_given = false, delay_given = false, rotation_given = false, zmax_given = false;
    bool trace_dt_given = false;
    std::vector<float> depths, dips, strengths, folds;
};

/// Every parameter once, in the order of the help. `v` reads or prints; a value that it changes is already checked.
template <class Visitor>
void visit(Visitor& v, SynthOptions& o, Words& w) {
    Geometry& g = o.geometry;
    Acquisition& a = o.acquisition;
    v.group("Model");
    v.text("model", o.model,
           "lens | layers | fast | random: models of its own; anything else: header of a dataset of slowness");
    v.whole("seed", o.seed, 0, std::numeric_limits<int>::max(), "", "model=random: which of them");
    v.real("dx", o.dx, tiny, huge, "m", "lateral step of model, traces and image");
    v.real("dz", o.dz, tiny, huge, "m", "depth step");
    v.real("zmax", o.zmax, tiny, huge, "m", "depth of the model", &w.zmax_given);
    v.real("v0", o.spec.v0, tiny, huge, "m/s", "background: velocity at the surface");
    v.real("gradient", o.spec.gradient, -huge, huge, "1/s", "background: increase of velocity with depth");
    v.real("tilt", o.spec.tilt, -60, 60, "degrees", "background: dip of the surfaces of equal velocity");
    v.real("dv", o.spec.dv, -huge, huge, "m/s", "Gaussian body 2^(-(x/wx)^2-(z/wz)^2): velocity added in its centre");
    v.real("xc", o.spec.xc, -huge, huge, "m", "Gaussian body: position; default: middle of the shots");
    v.real("zc", o.spec.zc, -huge, huge, "m", "Gaussian body: depth");
    v.real("wx", o.spec.wx, tiny, huge, "m", "Gaussian body: half-width, where it has fallen to half");
    v.real("wz", o.spec.wz, tiny, huge, "m", "Gaussian body: half-height");
    v.list("zref", w.depths, "m", "thin reflectors: depths in the middle of the shots (up to 100)");
    v.list("dip", w.dips, "degrees", "thin reflectors: dips, positive down with x; missing ones as the last given");
    v.list("strength", w.strengths, "", "thin reflectors: relative velocity changes; missing ones as the last given");
    v.real("startscale", o.spec.start_scale, 0.1, 10, "",
           "start model: factor on the velocity (0.95: 5 % slow); it has no body and no anomalies");
    v.real("smooth", o.smooth, 0, huge, "m", "model=FILE: length of the Gaussian average for the start model");
    v.input("start", "model=FILE: start model (slowness) on the same grid, instead of the average");
    v.group("Survey");
    v.logical("areal", g.areal,
              "n: traces move with the shot, one source function; y: whole-line fields for every shot");
    v.whole("nshot", g.shot.n, 1, 100000, "", "shots");
    v.real("oshot", g.shot.o, -huge, huge, "m", "position of the first shot");
    v.real("dshot", g.shot.d, tiny, huge, "m", "distance of shots, a multiple of dx");
    v.whole("nrec", g.trace.n, 1, 1000000, "", "traces of a shot, dx apart");
    v.real("orec", g.trace.o, -huge, huge, "m", "first trace relative to the shot; default: -(nrec/2) dx",
           &w.spread_given);
    v.whole("taper", g.taper, 0, 100000, "traces", "morvane's traces_in_taper");
    v.whole("padtraces", g.pad, 0, 100000, "traces", "morvane's padtraces; default: at least 10, for a fast transform",
            &w.padding_given);
    v.group("Wavelet and frequencies");
    v.real("fpeak", a.fpeak, tiny, huge, "Hz", "peak frequency of the Ricker wavelet");
    v.real("delay", a.delay, 0, huge, "s", "time of its centre; default: 1.5/fpeak", &w.delay_given);
    v.real("of", a.freq.o, tiny, huge, "Hz", "first frequency");
    v.real("df", a.freq.d, tiny, huge, "Hz", "frequency step; times beyond 1/df fold back");
    v.whole("nf", a.freq.n, 1, 100000, "", "frequencies");
    v.real("tmax", a.tmax, tiny, huge, "s", "length of the record");
    v.real("whiten", a.whiten, 0, 1, "", "flatten the spectrum with this water level (part of the peak); 0: leave it");
    v.real("bandtaper", a.band_taper, 0, huge, "Hz", "width of the tapered band ends");
    v.real("rotate", a.rotate, -360, 360, "degrees",
           "added to the phase of the source; default: -90 for own models, whose thin fast layers then image as "
           "peaks; 0 for model=FILE, where an interface to higher velocity does",
           &w.rotation_given);
    v.real("amp", a.amplitude, tiny, huge, "", "largest amplitude of the wavelet's spectrum in the band");
    v.group("What is taken out of the traces");
    v.text("direct", w.direct,
           "the direct wave: smooth | start | constant: subtract the waves of the model without reflectors (of "
           "the average for model=FILE), of the start model, of the velocity at the surface in the middle of the "
           "shots; mute: zero what comes before it has passed; none");
    v.real("mute", a.angle, 0, 89, "degrees", "mute reflections wider than this from the vertical; 0: none");
    v.real("mutetaper", a.angle_taper, 0, huge, "m", "offset over which that mute sets in");
    v.group("Finite differences");
    v.real("dt", o.grid.dt, 0, huge, "s", "time step; 0: nine tenths of the largest stable one");
    v.whole("absorb", o.grid.absorb, 5, 1000, "samples", "absorbing layer on each side");
    v.real("margin", o.margin, 0, huge, "m", "model on both sides of the traces that the waves see");
    v.group("Output");
    v.output("vel", "start model, slowness");
    v.output("true", "true model, slowness, without the thin reflectors");
    v.output("full", "model that the waves saw, slowness; written only if named");
    v.output("dips",
             "dips of the layers for morvane's dipflt, degrees between depth samples and columns; only if named");
    v.output("rec", "receiver wavefields");
    v.output("sou", "source function, or source wavefields with areal=y");
    v.output("traces", "the shots in time, (times, traces, shots), as a field record would hold them; only if named");
    v.output("wavelet", "the wavelet in time that goes with them; only if named");
    v.real("tracedt", a.trace_dt, 0, huge, "s", "interval of traces and wavelet; default: a tenth of 1/fpeak or less",
           &w.trace_dt_given);
    v.text("parfile", o.parfile, "parameter file for morvane");
    v.group("What goes into the parameter file");
    v.whole("nh", o.nh, 1, 100000, "", "subsurface offsets, dx apart");
    v.real("dxk", o.dxk, 0, huge, "m", "lateral step of the spline knots; 0: no splines");
    v.real("dzk", o.dzk, 0, huge, "m", "depth step of the spline knots; 0: no splines");
    v.logical("hold", o.hold,
              "n: knots reach beyond surface and bottom; y: they end before, and the start model holds there");
    v.real("regx", o.regx, 0, huge, "m", "morvane's reg_x; 0, and regz too: no regularisation");
    v.real("regz", o.regz, 0, huge, "m", "morvane's reg_z");
    v.real("bound", o.bound, 0, 99, "percent", "bounds around the start model; 0: none");
    v.logical("belowshots", o.below_shots,
              "count only the columns below the shots in fun (morvane's fun_xmin, fun_xmax)");
    v.whole("niter", o.niter, 0, 100000, "", "iterations");
}

/// Their table.
class Table {
    void add(const char* key, qas::KeyType type, const char* unit, const std::string& standard, const char* what) {
        groups.back().keys.push_back({key, type, unit, standard, "", what});
    }

public:
    std::vector<qas::KeyGroup> groups;

    void group(const char* title) { groups.push_back({title, {}}); }
    void text(const char* key, const std::string& value, const char* what) {
        add(key, qas::KeyType::text, "", value, what);
    }
    void real(const char* key, float value, double, double, const char* unit, const char* what,
              const bool* given = nullptr) {
        const bool computed = given || std::string_view(key) == "xc";
        const bool shown = !computed || std::string_view(key) == "zmax";
        add(key, qas::KeyType::real, unit, shown ? number_text(static_cast<double>(value)) : "", what);
    }
    void whole(const char* key, int value, int, int, const char* unit, const char* what, const bool* given = nullptr) {
        add(key, qas::KeyType::integer, unit, given ? "" : std::to_string(value), what);
    }
    void logical(const char* key, bool value, const char* what) {
        add(key, qas::KeyType::logical, "", value ? "y" : "n", what);
    }
    void list(const char* key, const std::vector<float>&, const char* unit, const char* what) {
        add(key, qas::KeyType::real, unit, "a,b,...", what);
    }
    void input(const char* key, const char* what) { add(key, qas::KeyType::input, "", "", what); }
    void output(const char* key, const char* what) { add(key, qas::KeyType::output, "", "", what); }
};

class Reader {
    qas::Session& session_;

    double number(const char* key, const std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !std::isfinite(value)) qaserr("%s=%s is not a number\n", key, text.c_str());
        return value;
    }

    std::optional<double> within(const char* key, double low, double high, bool* given) {
        const std::optional<std::string> text = session_.getch<std::string>(key);
        if (given) *given = text.has_value();
        if (!text) return {};
        const double value = number(key, *text);
        if (value < low || value > high)
            qaserr("%s=%s is outside the permitted range %g to %g\n", key, text->c_str(), low, high);
        return value;
    }

public:
    explicit Reader(qas::Session& session) : session_(session) {}
    void group(const char*) {}
    void text(const char* key, std::string& value, const char*) {
        value = session_.getch<std::string>(key).value_or(value);
        if (value.empty()) qaserr("%s= needs a value\n", key);
    }
    void real(const char* key, float& value, double low, double high, const char*, const char*, bool* given = nullptr) {
        if (const auto found = within(key, low, high, given)) value = static_cast<float>(*found);
    }
    void whole(const char* key, int& value, int low, int high, const char*, const char*, bool* given = nullptr) {
        const auto found = within(key, low, high, given);
        if (!found) return;
        if (*found != std::floor(*found)) qaserr("%s=%g is not a whole number\n", key, *found);
        value = static_cast<int>(*found);
    }
    void logical(const char* key, bool& value, const char*) {
        const std::optional<std::string> text = session_.getch<std::string>(key);
        if (!text) return;
        if (text->empty() || std::string("yY1nN0").find((*text)[0]) == std::string::npos)
            qaserr("%s=%s is neither y nor n\n", key, text->c_str());
        value = std::string("yY1").find((*text)[0]) != std::string::npos;
    }
    void list(const char* key, std::vector<float>& values, const char*, const char*) {
        const std::optional<std::string> text = session_.getch<std::string>(key);
        if (!text) return;
        values.clear();
        for (std::size_t start = 0; start <= text->size();) {
            const std::size_t end = std::min(text->find(',', start), text->size());
            values.push_back(static_cast<float>(number(key, text->substr(start, end - start))));
            start = end + 1;
        }
        if (values.size() > 100) qaserr("%s= has %zu values; permitted are 100\n", key, values.size());
    }
    void input(const char*, const char*) {}
    void output(const char*, const char*) {}
    /// Ahead of the others, which it decides.
    bool seed(int& value) {
        bool given = false;
        whole("seed", value, 0, std::numeric_limits<int>::max(), "", "", &given);
        return given;
    }
};

/// Layers and anomalies of a seed, and a survey of up to 24 Hz on steps of 15 m: many can be modelled and inverted.
void preset_random(SynthOptions& o, Words& w) {
    const RandomModel model(static_cast<std::uint64_t>(o.seed));
    for (auto* list : {&w.depths, &w.dips, &w.strengths}) list->clear();
    for (const RandomLayer& layer : model.layers) {
        w.depths.push_back(static_cast<float>(layer.z));
        w.dips.push_back(static_cast<float>(layer.dip));
        w.strengths.push_back(static_cast<float>(layer.strength));
        w.folds.push_back(static_cast<float>(layer.fold));
    }
    o.spec.fold_length = model.fold_length;
    o.spec.fold_phase = model.fold_phase;
    o.spec.anomaly = model.anomaly;
    o.dx = o.dz = 15.0f;
    o.zmax = 1395.0f;
    o.geometry.shot = {29, 75.0f, 0.0f, {}};
    o.geometry.trace.n = 200;
    o.acquisition.freq = {34, 0.6f, 4.0f, {}};
    o.acquisition.fpeak = 13.0f;
    o.acquisition.angle = 50;
    o.nh = 23;
    o.dzk = o.regz = 200.0f;
    o.hold = true;
    o.bound = 15.0f;
    o.niter = 18;
    o.below_shots = true;
}

/// What the built-in models differ in.
void preset(SynthOptions& o, Words& w) {
    w.depths = {230, 720, 860, 1000, 1140, 1280};
    w.dips = {0};
    w.strengths = {0.05f};
    if (o.model == "lens") {
        o.spec.dv = -600;
        w.strengths = {0.01f, 0.03f, 0.035f, 0.04f, 0.045f, 0.05f};  // about equally loud at the surface
        o.niter = 9;
    } else if (o.model == "layers") {
        w.depths = {250, 400, 550, 700, 850, 1000, 1150};
        w.dips = {3, 4, 5, 5, 6, 6, 7};
        o.spec.tilt = 4;
        o.spec.start_scale = 0.92f;
        o.acquisition.angle = 50;
        o.below_shots = true;
        o.niter = 14;
    } else if (o.model == "fast") {
        o.spec.dv = 500;
        o.spec.zc = 550;
        o.spec.wx = 300;
        o.spec.wz = 120;
        w.depths = {230, 800, 950, 1100, 1250};
        o.niter = 9;
    } else if (o.model == "random") {
        preset_random(o, w);
    } else {
        o.from_file = true;
    }
}

SynthOptions defaults() {
    SynthOptions o;
    o.geometry.shot = {36, 60.0f, 0.0f, {}};
    o.geometry.trace = {300, 10.0f, -1500.0f, {}};
    o.acquisition.freq = {51, 0.6f, 4.0f, {}};
    o.grid.dt = 0.0f;
    return o;
}

Direct direct_of(const std::string& word) {
    const std::pair<const char*, Direct> known[] = {{"smooth", Direct::smooth},
                                                    {"start", Direct::start},
                                                    {"constant", Direct::constant},
                                                    {"mute", Direct::mute},
                                                    {"none", Direct::none}};
    for (const auto& [text, value] : known)
        if (word == text) return value;
    qaserr("direct=%s is unknown; permitted are smooth, start, constant, mute and none\n", word.c_str());
}

/// The steps of a model from a dataset, which win over dx and dz and may not contradict them.
void take_steps_of_file(qas::Session& session, SynthOptions& o, bool zmax_given) {
    const float dx = session.from_aux<float>("model", "d1"), dz = session.from_aux<float>("model", "d3");
    const std::pair<const char*, std::pair<float, float*>> steps[] = {{"dx", {dx, &o.dx}}, {"dz", {dz, &o.dz}}};
    for (const auto& [key, step] : steps) {
        if (!(step.first > 0) || !std::isfinite(step.first))
            qaserr("model=%s has the step %g, which must be positive\n", o.model.c_str(),
                   static_cast<double>(step.first));
        if (session.getch<std::string>(key) && *step.second != step.first)
            qaserr("%s=%g contradicts the step %g of model=%s\n", key, static_cast<double>(*step.second),
                   static_cast<double>(step.first), o.model.c_str());
        *step.second = step.first;
    }
    if (!zmax_given) o.zmax = static_cast<float>(session.from_aux<int>("model", "n3") - 1) * dz;
}

/// The interval of the traces in time: the longest of 1, 2, 5 times a power of ten that keeps five times the peak
/// frequency; none if neither they nor their wavelet are named.
void settle_trace_times(qas::Session& session, Acquisition& a) {
    if (!session.exist_file("traces") && !session.exist_file("wavelet")) {
        a.trace_dt = 0.0f;
        return;
    }
    const double longest = 0.1 / a.fpeak;
    if (a.trace_dt == 0.0f) {
        const double decade = std::pow(10.0, std::floor(std::log10(longest)));
        for (int digit : {1, 2, 5})
            if (digit * decade <= longest) a.trace_dt = static_cast<float>(digit * decade);
    }
    if (a.trace_dt > longest * (1 + 1e-6))
        qaserr("tracedt=%g does not carry the wavelet, fpeak=%g; permitted is up to %g\n",
               static_cast<double>(a.trace_dt), static_cast<double>(a.fpeak), longest);
}

/// Refuses what no memory would hold, or no integer count.
void check_size(const SynthOptions& o) {
    const Geometry& g = o.geometry;
    const double rows = o.zmax / static_cast<double>(o.dz) + 1, line = (g.shot.n - 1.0) * g.shot.d / o.dx;
    const double columns = g.trace.n + line + 2.0 * (g.taper + g.pad + o.margin / static_cast<double>(o.dx));
    if (rows < 2 || rows * columns > 2e8)
        qaserr(
            "a model of %g columns and %g rows is not permitted (2 rows to 2e8 samples); check dx, dz, zmax, margin, "
            "nshot, dshot and nrec\n",
            columns, rows);
    const double panel = (g.areal ? g.trace.n + line : g.trace.n) * o.acquisition.freq.n;
    if (panel > 2.6e8 || panel * g.shot.n > 4e9)
        qaserr("%g samples per shot and %d shots are too many; permitted are 2.6e8 per shot, 4e9 in all\n", panel,
               g.shot.n);
}

}  // namespace

qas::KeyTable synth_keys() {
    SynthOptions o = defaults();
    Words w;
    preset(o, w);
    Table table;
    visit(table, o, w);
    return qas::KeyTable(std::move(table.groups));
}

std::string synth_help() {
    return "morvane_synth: model a two-dimensional survey by acoustic finite differences and write what morvane reads:\n"
           "start model, wavefields by frequency, and a parameter file. Parameters are name=value words, or par=FILE\n"
           "for a file of them. Shown with their defaults, of model=lens where models differ.\n" +
           synth_keys().help() +
           "\nmodel=layers: zref=250,400,550,700,850,1000,1150 dip=3,4,5,5,6,6,7 tilt=4 startscale=0.92 mute=50, no "
           "body, strength=0.05 belowshots=y niter=14\n"
           "model=fast:   dv=500 zc=550 wx=300 wz=120 zref=230,800,950,1100,1250 strength=0.05 niter=9\n"
           "model=random: layers and anomalies drawn from seed=; dx=15 dz=15 zmax=1395 nshot=29 dshot=75 nrec=200 nf=34 fpeak=13 "
           "mute=50 nh=23 dzk=200 regz=200 hold=y bound=15 niter=18 belowshots=y\n"
           "Units are examples: any that fit together will do. The transform to frequencies has exp(+i w t).\n";
}

namespace {

void settle_reflectors(qas::Session& session, Words& w, ModelSpec& spec) {
    // the strengths and folds of a built-in model are those of its own depths
    if (session.getch<std::string>("zref")) {
        w.folds.clear();
        if (!session.getch<std::string>("strength")) w.strengths = {0.05f};
    }
    const auto of_reflectors = [&](const char* key, const std::vector<float>& values, float otherwise, double limit) {
        if (values.size() > w.depths.size())
            qaserr("%s= has %zu values for %zu reflectors\n", key, values.size(), w.depths.size());
        for (float value : values)
            if (std::abs(value) > limit)
                qaserr("%s=%g is outside the permitted range %g to %g\n", key, static_cast<double>(value), -limit,
                       limit);
        std::vector<float> all(values);
        all.resize(w.depths.size(), values.empty() ? otherwise : values.back());
        return all;
    };
    const std::vector<float> dips = of_reflectors("dip", w.dips, 0.0f, 60.0);
    const std::vector<float> strengths = of_reflectors("strength", w.strengths, 0.05f, 0.5);
    w.folds.resize(w.depths.size());
    for (std::size_t i = 0; i < w.depths.size(); ++i)
        spec.reflectors.push_back({w.depths[i], dips[i], strengths[i], w.folds[i]});
}

void settle_wavelet(qas::Session& session, const Words& w, Acquisition& a) {
    a.direct = direct_of(w.direct);
    if (!w.delay_given) a.delay = 1.5f / a.fpeak;
    if (a.delay * a.fpeak < 1)
        qaserr("delay=%g cuts the wavelet off; permitted is 1/fpeak=%g or more\n", static_cast<double>(a.delay),
               1.0 / a.fpeak);
    if (a.tmax <= a.delay)
        qaserr("tmax=%g ends before the wavelet's centre at delay=%g\n", static_cast<double>(a.tmax),
               static_cast<double>(a.delay));
    settle_trace_times(session, a);
    const double band = (a.freq.n - 1) * static_cast<double>(a.freq.d);
    if (2 * a.band_taper > band)
        qaserr("bandtaper=%g leaves nothing of the band; permitted is half of it, %g\n",
               static_cast<double>(a.band_taper), 0.5 * band);
}

}  // namespace

SynthOptions read_options(qas::Session& session) {
    SynthOptions o = defaults();
    Words w;
    Reader reader(session);
    o.model = session.getch<std::string>("model").value_or(o.model);
    if (reader.seed(o.seed) && o.model != "random")
        qaserr("seed=%d is for model=random; model=%s has none\n", o.seed, o.model.c_str());
    preset(o, w);
    visit(reader, o, w);
    if (o.from_file && session.exist_file("dips"))
        qaserr("dips=: the layers of a model from a dataset, model=%s, are not known\n", o.model.c_str());
    if (o.from_file) take_steps_of_file(session, o, w.zmax_given);

    Geometry& g = o.geometry;
    Acquisition& a = o.acquisition;
    check_size(o);
    g.trace.d = o.dx;
    if (!w.spread_given) g.trace.o = -static_cast<float>(g.trace.n / 2) * o.dx;
    if (g.areal) {  // the traces that any of the shots has, at rest
        g.trace.n += static_cast<int>(std::lround((g.shot.n - 1) * static_cast<double>(g.shot.d) / o.dx));
        g.trace.o += g.shot.o;
    }
    if (!w.padding_given) g.pad = good_padding(g.trace.n, g.taper, 10);

    const double middle = g.shot.o + 0.5 * (g.shot.n - 1) * static_cast<double>(g.shot.d);
    o.spec.middle = static_cast<float>(middle);
    if (!session.getch<std::string>("xc")) o.spec.xc = o.spec.middle;
    settle_reflectors(session, w, o.spec);
    settle_wavelet(session, w, a);
    if (!w.rotation_given) a.rotate = o.from_file ? 0.0f : -90.0f;
    return o;
}

}  // namespace morvane
