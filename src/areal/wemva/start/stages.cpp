#include "src/areal/wemva/start/stages.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
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
const std::map<std::string, Setter>& settings() {
    static const std::map<std::string, Setter> all = {
        {"niter", setting(&Parms::niter)},
        {"firststep", setting(&Parms::firststep)},
        {"expdso", setting(&Parms::expdso)},
        {"depthdiff", setting(&Parms::depthdiff)},
        {"regularise", setting(&Parms::regularise)},
        {"reg_x", setting(&Parms::reg_x)},
        {"reg_z", setting(&Parms::reg_z)},
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
            refuse("stages=%s: line %d has \"%s\"; a finite number is needed (a whole one for a count)",
                   place.file.c_str(), place.line, word.substr(0, 40).c_str());
        given[key] = true;
    }
    keep_reach(par.axk, given["nxk"], stage.par.axk);
    keep_reach(par.azk, given["nzk"], stage.par.azk);
    try {
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
    if (!par.checkpoint.empty()) refuse("stages: not with checkpoint, which holds one stage");
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
