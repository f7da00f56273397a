/// Scores a run of morvane on a survey whose true model is known. `morvane_score --help` lists the parameters.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <new>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_score/score.h"

namespace morvane {

namespace {

using qas::qaserr;

constexpr const char* intro =
    "morvane_score: a table of a run of morvane on a survey whose true model is known. Parameters are name=value.\n"
    "The model error is |s - s_true| / |s_true| in slowness over a part of the model; the zero-offset share is the\n"
    "energy of the image there at zero subsurface offset over that at all offsets. fun, error and share are those of\n"
    "the accepted models: the first evaluation and the one that ended each iteration.\n";

qas::KeyTable score_keys() {
    using enum qas::KeyType;
    return qas::KeyTable(
        {{"Models and the run",
          {{"true", input, "", "true", "", "true model, slowness"},
           {"vel", input, "", "vel", "", "start model, slowness"},
           {"Velout", input, "", "Velout", "", "velocity panels of the run"},
           {"bkgimg", input, "", "bkgimg", "", "image panels of the run"},
           {"log", text, "", "log", "", "iteration log of the run"},
           {"course", text, "", "", "", "course of the run, which tells fit; without it no such column"},
           {"trueimg", input, "", "", "", "image of a run that starts from the true model; without it no such column"},
           {"truelog", text, "", "", "", "iteration log of that run"}}},
         {"The table",
          {{"xmin", real, "", "", "",
            "part of the model that is looked at; by default as the header of true= says, or all"},
           {"xmax", real, "", "", "", "the same"},
           {"zmin", real, "", "", "", "the same"},
           {"zmax", real, "", "", "", "the same"},
           {"csv", text, "", "", "", "also write the lines of the accepted models to this file"}}}});
}

std::string named(qas::Session& session, const std::string& tag) {
    return session.getch<std::string>(tag).value_or(tag);
}

Axis header_axis(qas::Session& session, const std::string& tag, int k) {
    const std::string number = std::to_string(k);
    Axis axis{session.from_aux<int>(tag, "n" + number),
              session.from_aux<float>(tag, "d" + number),
              session.from_aux<float>(tag, "o" + number, 0.0f),
              {}};
    if (axis.n < 1 || axis.n > 100000000 || !(axis.d != 0.0f))
        qaserr("%s=%s: n%d=%d, d%d=%g are no axis\n", tag.c_str(), named(session, tag).c_str(), k, axis.n, k,
               static_cast<double>(axis.d));
    return axis;
}

void read_panel(qas::Session& session, const std::string& tag, int panel, std::span<float> values) {
    const auto bytes = static_cast<std::int64_t>(values.size_bytes());
    session.sseek(tag, (panel - 1) * bytes, 0);
    if (session.sreed(tag, values.data(), bytes) != bytes)
        qaserr("%s=%s has no complete panel %d\n", tag.c_str(), named(session, tag).c_str(), panel);
}

ModelPanel read_model(qas::Session& session, const std::string& tag, int panel) {
    ModelPanel model{header_axis(session, tag, 1), header_axis(session, tag, 3), Array<float, 2>()};
    model.values = Array<float, 2>({model.x.n, model.z.n});
    read_panel(session, tag, panel, model.values.flat());
    return model;
}

double image_share(qas::Session& session, const std::string& tag, int panel, const Region& region) {
    const Axis x = header_axis(session, tag, 1), h = header_axis(session, tag, 2), z = header_axis(session, tag, 3);
    Array<float, 3> image({x.n, h.n, z.n});
    read_panel(session, tag, panel, image.flat());
    return zero_offset_share(image.view(), x, h, z, region);
}

std::vector<LogLine> log_of(qas::Session& session, const std::string& key) {
    const std::string file = named(session, key);
    std::ifstream stream(file);
    if (!stream) qaserr("%s=%s cannot be opened\n", key.c_str(), file.c_str());
    session.claim_input({file, key + "=" + file});
    std::vector<LogLine> lines = read_log(stream);
    if (accepted_steps(lines).empty()) qaserr("%s=%s holds no evaluation\n", key.c_str(), file.c_str());
    return lines;
}

/// fit by evaluation, as the course of the run tells it; nothing without that key.
std::map<int, double> fits_of(qas::Session& session) {
    if (!session.exist_file("course")) return {};
    const std::string file = named(session, "course");
    std::ifstream stream(file);
    if (!stream) qaserr("course=%s cannot be opened\n", file.c_str());
    session.claim_input({file, "course=" + file});
    std::map<int, double> fits = read_fits(stream);
    if (fits.empty()) qaserr("course=%s holds no fit: run morvane with fit=y\n", file.c_str());
    return fits;
}

Region region_of(qas::Session& session, const ModelPanel& truth) {
    const auto limit = [&](const char* key, double otherwise) {
        const double of_header = session.from_aux<double>("true", key, otherwise);
        return session.getch<double>(key).value_or(of_header);
    };
    const double right = truth.x.o + (truth.x.n - 1) * static_cast<double>(truth.x.d);
    const double bottom = truth.z.o + (truth.z.n - 1) * static_cast<double>(truth.z.d);
    const Region region{limit("xmin", truth.x.o), limit("xmax", right), limit("zmin", truth.z.o),
                        limit("zmax", bottom)};
    if (!(region.xmin <= region.xmax) || !(region.zmin <= region.zmax))
        qaserr("xmin=%g xmax=%g zmin=%g zmax=%g enclose nothing\n", region.xmin, region.xmax, region.zmin, region.zmax);
    return region;
}

void write_csv(qas::PlainOutput file, const std::vector<ScoreRow>& rows, bool fits) {
    file.write(fits ? "iteration,evaluation,fun,error,share,fit\n" : "iteration,evaluation,fun,error,share\n");
    for (const ScoreRow& row : rows) {
        char line[200], fit[20] = "";
        if (fits) std::snprintf(fit, sizeof fit, ",%.6f", row.fit);
        std::snprintf(line, sizeof line, "%d,%d,%.6e,%.6f,%.6f%s\n", row.iteration, row.evaluation, row.fun, row.error,
                      row.share, fit);
        file.write(line);
    }
    file.finish();
}

void score(qas::Session& session) {
    const ModelPanel truth = read_model(session, "true", 1);
    const Region region = region_of(session, truth);
    const std::vector<LogLine> log = log_of(session, "log");
    const std::map<int, double> fits = fits_of(session);
    std::vector<ScoreRow> rows;
    for (const Accepted& step : accepted_steps(log)) {
        ModelPanel model =
            step.iteration == 0 ? read_model(session, "vel", 1) : read_model(session, "Velout", step.evaluation);
        if (step.iteration > 0)
            for (float& v : model.values.flat()) v = 1.0f / v;
        rows.push_back({step.iteration, step.evaluation, step.fun, relative_error(truth, model, region),
                        image_share(session, "bkgimg", step.evaluation, region)});
        if (const auto fit = fits.find(step.evaluation); fit != fits.end()) rows.back().fit = fit->second;
    }
    ScoreRow of_truth;
    const bool with_truth = session.exist_file("trueimg") && session.exist_file("truelog");
    if (with_truth) {
        of_truth.fun = accepted_steps(log_of(session, "truelog")).front().fun;
        of_truth.share = image_share(session, "trueimg", 1, region);
    }
    std::fputs(score_table(rows, count_evaluations(log), region, with_truth ? &of_truth : nullptr).c_str(), stdout);
    if (const auto csv = session.getch<std::string>("csv"))
        write_csv(session.claim_output({*csv, "csv=" + *csv, "give it another name", true}), rows, !fits.empty());
}

}  // namespace

}  // namespace morvane

using namespace morvane;

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes then is a failed write, with its message
    const qas::KeyTable keys = score_keys();
    if (const auto status = qas::answer(argc, argv, "morvane_score", [&] { return intro + keys.help(); }))
        return *status;
    qas::Session session(argc, argv);
    try {
        session.declare(keys);
        qas::refuse_unread(session, keys);
        score(session);
        return 0;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(qas::Fatal("not enough memory for the panels\n"), session);
    }
}
