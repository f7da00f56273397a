#include "src/areal/wemva/start/stages.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <numbers>
#include <sstream>

#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/checks.h"

namespace morvane {

namespace {

struct Place {
    const std::string& file;
    int line;
};

template <class T>
bool parse(const std::string& text, T& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if constexpr (std::is_floating_point_v<T>)
        if (!std::isfinite(value)) return false;
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

/// The settings that a stage can have, by key.
using Setter = std::function<bool(Parms&, const std::string&)>;
template <class T>
Setter setting(T Parms::*member) {
    return [member](Parms& par, const std::string& text) { return parse(text, par.*member); };
}
template <class T>
Setter knots(Axis Parms::*axis, T Axis::*member) {
    return [axis, member](Parms& par, const std::string& text) { return parse(text, par.*axis.*member); };
}
template <class T>
Setter limit(T StageLimits::*member) {
    return [member](Parms& par, const std::string& text) { return parse(text, par.limits.*member); };
}
bool set_origin_of_bounds(Parms& par, const std::string& text) {
    par.limits.bounds_of_stage = text == "stage";
    return text == "stage" || text == "run";
}
const std::map<std::string, Setter>& settings() {
    static const std::map<std::string, Setter> all = {
        {"niter", setting(&Parms::niter)},
        {"firststep", setting(&Parms::firststep)},
        {"expdso", setting(&Parms::expdso)},
        {"depthdiff", setting(&Parms::depthdiff)},
        {"regularise", setting(&Parms::regularise)},
        {"reg_x", setting(&Parms::reg_x)},
        {"reg_z", setting(&Parms::reg_z)},
        {"fmin", limit(&StageLimits::fmin)},
        {"fmax", limit(&StageLimits::fmax)},
        {"nh", [](Parms& par, const std::string& text) { return parse(text, par.img.sh.n); }},
        {"p_up", limit(&StageLimits::p_up)},
        {"p_lo", limit(&StageLimits::p_lo)},
        {"bounds_of", set_origin_of_bounds},
        {"stop_rise", setting(&Parms::stop_rise)},
        {"stop_patience", setting(&Parms::stop_patience)},
        {"nxk", knots(&Parms::axk, &Axis::n)},
        {"dxk", knots(&Parms::axk, &Axis::d)},
        {"oxk", knots(&Parms::axk, &Axis::o)},
        {"nzk", knots(&Parms::azk, &Axis::n)},
        {"dzk", knots(&Parms::azk, &Axis::d)},
        {"ozk", knots(&Parms::azk, &Axis::o)},
    };
    return all;
}

std::string known_keys() {
    std::string all;
    for (const auto& [key, setter] : settings()) all += (all.empty() ? "" : ", ") + key;
    return all;
}

/// As many knots as reach as far as those of the run.
void keep_reach(const Axis& of_run, bool counted, Axis& axis) {
    if (counted || of_run.n == not_given || !(axis.d > 0.0f) || axis.d == of_run.d) return;
    const double reach = static_cast<double>(of_run.n - 1) * of_run.d;
    axis.n = static_cast<int>(std::min(1e8, std::ceil(reach / axis.d - 1e-6))) + 1;
}

/// The samples of the frequency axis of rec between fmin and fmax.
void find_band(Parms& par) {
    StageLimits& limits = par.limits;
    if (!std::isfinite(limits.fmin) && !std::isfinite(limits.fmax)) return;
    const Axis& w = par.rec.w;
    constexpr double cycles = 2.0 * std::numbers::pi;
    const double step = w.d / cycles, first = w.o / cycles, last = first + step * (w.n - 1);
    const double least = std::min(first, last), most = std::max(first, last), close = 1e-3 * std::abs(step);
    for (const auto& [key, value] : {std::pair("fmin", limits.fmin), std::pair("fmax", limits.fmax)})
        if (std::isfinite(value) && (value < least - close || value > most + close))
            refuse("%s=%g: the frequencies of rec are %g to %g", key, value, least, most);
    const auto counts = [&](int i) {
        const double f = first + step * i;
        return f >= limits.fmin - close && f <= limits.fmax + close;
    };
    int begin = 0, end = w.n;
    while (begin < end && !counts(begin)) ++begin;
    while (end > begin && !counts(end - 1)) --end;
    if (begin == end)
        refuse("fmin=%g fmax=%g: no frequency of rec lies between them; they are %g apart", limits.fmin, limits.fmax,
               std::abs(step));
    limits.first_frequency = begin;
    limits.end_frequency = end;
}

/// The offsets in the middle of those of the run.
void narrow_offsets(const Axis& of_run, Parms& par) {
    Axis& axis = par.img.sh;
    if (axis.n == of_run.n) return;
    if (par.timeshift) refuse("nh=%d: with timeshift=yes there are no offsets", axis.n);
    if (axis.n < 1 || axis.n > of_run.n || (of_run.n - axis.n) % 2 != 0)
        refuse("nh=%d: permitted are %s numbers up to the %d of the run", axis.n, of_run.n % 2 != 0 ? "odd" : "even",
               of_run.n);
    par.limits.panel_offsets = of_run.n;
    axis.o += static_cast<float>((of_run.n - axis.n) / 2) * axis.d;
    par.nsecdim = axis.n;
    par.osecdim = axis.o;
}

void check_bounds_of_stage(const Parms& par, bool asked) {
    const StageLimits& limits = par.limits;
    if (limits.p_up == 0.0f && limits.p_lo == 0.0f && !asked) return;
    if (!(limits.p_up > 0.0f && limits.p_lo > 0.0f))
        refuse("p_up=%g p_lo=%g: bounds of a stage need both, each more than 0", limits.p_up, limits.p_lo);
    const float least = limits.p_lo >= 1.0f ? 1.0f - limits.p_lo / 100.0f : limits.p_lo;
    if (!(least > 0.0f)) refuse("p_lo=%g: a lower bound of slowness that is positive is needed", limits.p_lo);
    if (limits.p_up < 1.0f) refuse("p_up=%g: a factor of 1 or more, or a percentage, is needed", limits.p_up);
}

Stage read_stage(const Place& place, const std::string& text, const Parms& par) {
    Stage stage{par, text};
    std::istringstream words(text);
    std::map<std::string, bool> given;
    for (std::string word; words >> word;) {
        const std::size_t equals = word.find('=');
        const std::string key = word.substr(0, equals);
        const auto setter = settings().find(key);
        if (equals == std::string::npos || setter == settings().end())
            refuse("stages=%s: line %d has \"%s\"; a stage takes %s", place.file.c_str(), place.line,
                   word.substr(0, 40).c_str(), known_keys().c_str());
        if (!setter->second(stage.par, word.substr(equals + 1)))
            refuse(
                "stages=%s: line %d has \"%s\"; a finite number is needed (a whole one for a count; for bounds_of "
                "run or stage)",
                place.file.c_str(), place.line, word.substr(0, 40).c_str());
        given[key] = true;
    }
    keep_reach(par.axk, given["nxk"], stage.par.axk);
    keep_reach(par.azk, given["nzk"], stage.par.azk);
    try {
        find_band(stage.par);
        narrow_offsets(par.img.sh, stage.par);
        check_bounds_of_stage(stage.par, given["bounds_of"]);
        check_stage(stage.par);
    } catch (const qas::Fatal& error) {
        refuse("stages=%s: line %d: %s", place.file.c_str(), place.line,
               std::string(error.what()).substr(0, std::strlen(error.what()) - 1).c_str());
    }
    return stage;
}

}  // namespace

std::vector<Stage> read_stages(qas::Session& session, const Parms& par) {
    if (!session.exist_file("stages")) return {};
    const auto name = session.from_param<std::string>("stages");
    std::ifstream file(name);
    if (!file || std::filesystem::is_directory(name))
        refuse("stages=%s: cannot read this file: %s", name.c_str(), std::strerror(file ? EISDIR : errno));
    session.claim_input({name, "stages=" + name});
    std::vector<Stage> stages;
    int line = 0;
    for (std::string text; std::getline(file, text);) {
        ++line;
        const std::string words = text.substr(0, text.find('#'));
        if (words.find_first_not_of(" \t\r") != std::string::npos)
            stages.push_back(read_stage({name, line}, words, par));
    }
    if (stages.empty()) refuse("stages=%s: no stage in its %d lines, one a line is needed", name.c_str(), line);
    return stages;
}

}  // namespace morvane
