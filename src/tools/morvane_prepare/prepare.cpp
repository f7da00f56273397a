#include "src/tools/morvane_prepare/prepare.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/outputs.h"

namespace morvane::prepare {
namespace {

/// Units of the run, and the coordinates in them.
void settle_units(PrepareOptions& o, Survey& survey) {
    const char* of_files = survey.files()[0].info().measurement == 2 ? "ft" : "m";
    if (o.segy_unit.empty()) o.segy_unit = of_files;
    if (o.length_name.empty()) o.length_name = o.segy_unit;
    o.velocity.segy_length = length_in_metres("segy_unit", o.segy_unit);
    o.velocity.length = length_in_metres("length_unit", o.length_name);
    for (int i = 0; i < static_cast<int>(survey.files().size()); ++i)
        survey.file(i).scale_lengths(o.velocity.segy_length / o.velocity.length);
    if (o.max_distance == 0) o.max_distance = 500 / o.velocity.length;
}

Line settle_line(const PrepareOptions& o, const Scan& scan) {
    if (!o.line.empty()) return line_through({o.line[0], o.line[1]}, {o.line[2], o.line[3]});
    Line line = scan.axis.line();
    double least = INFINITY, most = 0;
    for (const Point& shot : scan.shots) {
        least = std::min(least, line.position(shot));
        most = std::max(most, std::abs(line.position(shot)));
    }
    settle_origin(line, least, most);
    return line;
}

}  // namespace

void prepare_survey(qas::Session& session) {
    PrepareOptions options = read_options(session);
    Outputs outputs(session, options);
    const auto start = std::chrono::steady_clock::now();
    Survey survey(options.segy, options.reading);
    settle_units(options, survey);
    const Scan scan = scan_headers(survey);
    std::fprintf(stderr, "morvane_prepare: %lld traces of %zu shots\n", static_cast<long long>(scan.traces),
                 scan.shots.size());
    const Line line = settle_line(options, scan);
    const Velocity velocity = read_velocity(session, options.velocity, line);
    Plan plan = make_plan(session, options, survey, scan, velocity, line);
    plan.fastest = std::max(velocity.most, 1 / velocity.slowness(plan.origin, (plan.z.n - 1) * plan.dz));

    outputs.begin();
    write_velocity(session, options, plan, velocity);
    write_source(session, options, plan, velocity);
    const Counts counts = write_data(session, options, plan, survey, scan);
    const std::string text = report(options, plan, survey, scan, velocity, counts);
    outputs.write("prepare.txt", text);
    outputs.write("morvane.par", parameter_file(outputs, options, plan));
    outputs.finish();
    std::fputs(text.c_str(), stderr);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::fprintf(stderr, "\nmorvane_prepare: done in %.1f s; now run: morvane par=%s < /dev/null\n", seconds.count(),
                 outputs.name("morvane.par").c_str());
}

}  // namespace morvane::prepare
