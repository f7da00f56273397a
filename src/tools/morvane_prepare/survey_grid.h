#pragma once
/// Where the nodes of the model lie, and on which of them shots and traces fall.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "src/tools/morvane_prepare/line.h"
#include "src/tools/morvane_prepare/scan.h"
#include "src/tools/morvane_synth/survey.h"

namespace morvane::prepare {

enum class Layout { choose, per_shot, whole_line };

struct GridOptions {
    double dx = 0;              ///< 0: the group interval
    double shot_tolerance = 0;  ///< 0: half of dx
    double most_distance = 0;   ///< permitted distance of sources and groups from the line
    double least_offset = 0, most_offset = 0;
    Layout layout = Layout::choose;
    int taper = 20;
    int pad = -1;  ///< -1: chosen
};

/// Regular stations: nodes first, first + step, ... of which shot i takes number index[i].
struct Stations {
    std::int64_t first = 0, step = 1;
    int n = 1;
    std::vector<int> index;
    double largest_move = 0;  ///< from a shot to its station
};

struct SurveyGrid {
    double dx = 0, origin = 0;  ///< node k lies at origin + k dx
    double group_interval = 0;  ///< median distance of neighbouring groups of a shot
    bool areal = false;
    std::string why;                 ///< why this layout
    std::vector<std::int64_t> node;  ///< of the source of each panel
    std::vector<int> panel;          ///< of each shot of the scan
    std::int64_t first_trace = 0;    ///< areal: its node; else relative to the node of the source
    int traces = 0;
    std::int64_t shot_step = 1;                  ///< nodes; per-shot layout
    double shot_move = 0;                        ///< largest distance of a shot from its node
    int empty_panels = 0;                        ///< stations without a shot
    std::int64_t used = 0, outside = 0;          ///< traces taken; left out by offset
    double trace_move = 0, mean_trace_move = 0;  ///< distance of groups from their nodes
    double farthest = 0;                         ///< distance from the line
    std::string farthest_trace;                  ///< which trace that is
    double least_offset = 0, most_offset = 0;
    double least_shot = 0, most_shot = 0, least_group = 0, most_group = 0;  ///< positions

    std::int64_t node_at(double position) const;
    /// As morvane_synth describes a survey; the margins are set, and checked against morvane's own arithmetic.
    Geometry geometry(const GridOptions& options) const;
};

/// Stations of a regular survey, or nothing if shots at these positions (any order) would have to be moved by more than
/// the tolerance or more stations would be empty than taken.
std::optional<Stations> find_stations(const std::vector<double>& positions, double origin, double dx, double tolerance);

/// Node interval and origin from some shots, then nodes of all shots and traces.
/// Refuses (qas::Fatal), with the trace: a source or group too far from the line; a survey without a trace within the
/// offsets; shots that areal=n would have to move too far.
SurveyGrid make_grid(Survey& survey, const Scan& scan, const Line& line, const GridOptions& options);

}  // namespace morvane::prepare
