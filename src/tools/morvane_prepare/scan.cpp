#include "src/tools/morvane_prepare/scan.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane::prepare {

using qas::qaserr;

Survey::Survey(const std::vector<std::string>& paths, const SegyOptions& options) {
    for (const std::string& path : paths) {
        files_.emplace_back(path, options);
        const SegyInfo &first = files_[0].info(), &info = files_.back().info();
        if (info.samples != first.samples || std::abs(info.dt - first.dt) > 1e-9)
            qaserr("%s has %d samples every %g s, %s %d every %g s; prepare them apart, or resample\n", path.c_str(),
                   info.samples, info.dt, paths[0].c_str(), first.samples, first.dt);
        if (info.measurement != first.measurement)
            qaserr("%s and %s differ in their unit of length (%d and %d in the binary header)\n", path.c_str(),
                   paths[0].c_str(), info.measurement, first.measurement);
    }
}

bool is_seismic(int trace_id) {
    return trace_id == 1 || trace_id == 0 || trace_id == -1 || trace_id == 11 || trace_id == 12;
}

Scan scan_headers(Survey& survey) {
    Scan scan;
    std::map<std::pair<double, double>, int> known;
    for (int f = 0; f < static_cast<int>(survey.files().size()); ++f) {
        SegyFile& file = survey.file(f);
        for (int i = 0; i < file.info().traces; ++i) {
            const TraceHeader head = file.header(i);
            if (!is_seismic(head.trace_id)) {
                ++(head.trace_id == 2 ? scan.dead : scan.other);
                continue;
            }
            const auto [place, fresh] =
                known.try_emplace({head.source_x, head.source_y}, static_cast<int>(scan.shots.size()));
            if (fresh) scan.shots.push_back({head.source_x, head.source_y});
            Run* last = scan.runs.empty() ? nullptr : &scan.runs.back();
            if (last && last->file == f && last->shot == place->second)
                last->count = i + 1 - last->first;  // traces between that are no data are skipped again when read
            else
                scan.runs.push_back({f, i, 1, place->second});
            scan.axis.add({head.source_x, head.source_y});
            scan.axis.add({head.group_x, head.group_y});
            const bool first = scan.traces++ == 0;
            const auto widen = [&](double value, double& least, double& most) {
                least = first ? value : std::min(least, value);
                most = first ? value : std::max(most, value);
            };
            widen(head.delay, scan.least_delay, scan.most_delay);
            widen(head.group_elevation, scan.least_elevation, scan.most_elevation);
            widen(head.source_depth, scan.least_depth, scan.most_depth);
        }
    }
    if (scan.traces == 0)
        qaserr(
            "%s: none of its traces is seismic data: %lld are marked dead, %lld have another identification "
            "(trace_id_word= names its word)\n",
            survey.files()[0].path().c_str(), static_cast<long long>(scan.dead), static_cast<long long>(scan.other));
    return scan;
}

void for_each_header(Survey& survey, const Run& run, const std::function<void(const TraceHeader&, int)>& call) {
    for (int i = run.first; i < run.first + run.count; ++i) {
        const TraceHeader head = survey.file(run.file).header(i);
        if (is_seismic(head.trace_id)) call(head, i);
    }
}

}  // namespace morvane::prepare
