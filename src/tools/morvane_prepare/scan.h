#pragma once
/// The first look at the files: shots, where their traces stand, and what the headers say.
#include <functional>
#include <string>
#include <vector>

#include "src/tools/morvane_prepare/line.h"
#include "src/tools/morvane_prepare/segy_file.h"

namespace morvane::prepare {

/// Traces first .. first + count - 1 of a file, all of one shot.
struct Run {
    int file = 0, first = 0, count = 0, shot = 0;
};

/// What was found. Memory grows with the shots and the runs, not with traces or samples.
struct Scan {
    std::vector<Point> shots;  ///< source positions, in the order of their first trace
    std::vector<Run> runs;
    PrincipalAxis axis;                              ///< of all sources and groups
    std::int64_t traces = 0;                         ///< seismic ones
    std::int64_t dead = 0, other = 0;                ///< left out: marked dead; not seismic data
    double least_delay = 0, most_delay = 0;          ///< s
    double least_elevation = 0, most_elevation = 0;  ///< of the groups
    double least_depth = 0, most_depth = 0;          ///< of the sources
};

/// The files of a survey, which agree in sample count and interval.
class Survey {
public:
    /// Refuses (qas::Fatal) files that differ in sample count, interval or unit of length.
    Survey(const std::vector<std::string>& paths, const SegyOptions& options);
    SegyFile& file(int i) { return files_[static_cast<std::size_t>(i)]; }
    const std::vector<SegyFile>& files() const { return files_; }
    int samples() const { return files_[0].info().samples; }
    double dt() const { return files_[0].info().dt; }

private:
    std::vector<SegyFile> files_;
};

/// Whether a trace with this identification code holds seismic data: 1, live but unknown (0, -1), or a pressure (11) or
/// vertical (12) sensor.
bool is_seismic(int trace_id);

/// Reads all headers. Refuses (qas::Fatal) a survey without a seismic trace.
Scan scan_headers(Survey& survey);

/// Calls with the header of each seismic trace of a run, and its number in the file.
void for_each_header(Survey& survey, const Run& run, const std::function<void(const TraceHeader&, int)>& call);

}  // namespace morvane::prepare
