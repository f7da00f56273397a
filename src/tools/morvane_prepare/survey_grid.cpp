#include "src/tools/morvane_prepare/survey_grid.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr int looked_at_shots = 20, looked_at_traces = 5000;
constexpr int least_pad = 10;
constexpr double most_nodes = 1e7, beyond = 1e15;
constexpr double same_place = 1e-6;  // of a spread: what groups differ by in their last digits

double median(std::vector<double>& values) {
    const auto middle = values.begin() + std::ssize(values) / 2;
    std::ranges::nth_element(values, middle);
    return *middle;
}

/// The value with the fewest decimals within half a percent.
double rounded(double value) {
    for (int decimals = 0; decimals < 6; ++decimals) {
        const double unit = std::pow(10.0, -decimals), near = std::round(value / unit) * unit;
        if (std::abs(near - value) <= 0.005 * value) return near;
    }
    return value;
}

/// Positions of the groups of some shots, spread over the survey.
std::vector<std::vector<double>> some_groups(Survey& survey, const Scan& scan, const Line& line) {
    const int step = std::max(1, static_cast<int>(scan.shots.size()) / looked_at_shots);
    std::vector<std::vector<double>> groups((scan.shots.size() + static_cast<std::size_t>(step) - 1) /
                                            static_cast<std::size_t>(step));
    for (const Run& run : scan.runs) {
        if (run.shot % step != 0) continue;
        std::vector<double>& of_shot = groups[static_cast<std::size_t>(run.shot / step)];
        if (std::ssize(of_shot) >= looked_at_traces) continue;
        for_each_header(survey, run, [&](const TraceHeader& head, int) {
            if (std::ssize(of_shot) < looked_at_traces) of_shot.push_back(line.position({head.group_x, head.group_y}));
        });
    }
    return groups;
}

/// Median distance of neighbouring groups of a shot; 0 if no shot has two.
double group_interval(std::vector<std::vector<double>> groups) {
    std::vector<double> steps;
    for (std::vector<double>& positions : groups) {
        std::ranges::sort(positions);
        const double least = positions.empty() ? 0 : same_place * (positions.back() - positions.front());
        for (std::size_t i = 1; i < positions.size(); ++i)
            if (const double step = positions[i] - positions[i - 1]; step > least) steps.push_back(step);
    }
    if (steps.empty()) return 0;
    const double typical = median(steps);
    std::erase_if(steps, [&](double step) { return step < 0.1 * typical; });  // one place, surveyed twice
    return median(steps);
}

/// Where positions lie within an interval: their circular mean, to a thousandth of it.
double phase_of(const std::vector<std::vector<double>>& groups, double dx) {
    std::complex<double> sum;
    for (const std::vector<double>& positions : groups)
        for (const double p : positions) sum += std::polar(1.0, 2 * std::numbers::pi * std::fmod(p / dx, 1.0));
    if (std::abs(sum) == 0) return 0;
    return std::round(1000 * std::arg(sum) / (2 * std::numbers::pi)) / 1000 * dx;
}

/// Position of a node: at groups; where several of them share a node, in their middle.
double origin_of(const std::vector<std::vector<double>>& groups, double interval, double dx) {
    const double m = interval > 0 ? std::round(dx / interval) : 1;
    if (m < 2 || std::abs(dx - m * interval) > 0.01 * dx) return phase_of(groups, dx);
    return phase_of(groups, dx / m) + 0.5 * (m - 1) / m * dx;
}

std::string name_of(Survey& survey, int file, int trace) {
    return survey.file(file).path() + ", trace " + std::to_string(trace + 1);
}

/// Range of whole numbers.
struct Extent {
    std::int64_t least = INT64_MAX, most = INT64_MIN;
    void add(std::int64_t value) {
        least = std::min(least, value);
        most = std::max(most, value);
    }
    double width() const { return static_cast<double>(most) - static_cast<double>(least) + 1; }
};

struct Ranges {
    Extent relative, absolute;
};

/// Goes through all headers once more: what is used, where it lies, how far from nodes and line.
Ranges measure(Survey& survey, const Scan& scan, const Line& line, const GridOptions& options,
               const std::vector<std::int64_t>& node_of_shot, SurveyGrid& grid) {
    Ranges ranges;
    const auto check = [&](const Point& p, const char* what, const Run& run, int trace) {
        const double away = std::abs(line.distance(p));
        if (away >= grid.farthest) {
            grid.farthest = away;
            grid.farthest_trace = name_of(survey, run.file, trace);
        }
        if (!(away <= options.most_distance) || std::abs(line.position(p) - grid.origin) > most_nodes * grid.dx)
            qaserr(
                "%s: its %s at x=%.9g y=%.9g lies %.6g from the line, at %.9g along it; permitted are %g (max_distance=) "
                "and %g nodes of %g\n",
                name_of(survey, run.file, trace).c_str(), what, p.x, p.y, away, line.position(p), options.most_distance,
                most_nodes, grid.dx);
    };
    for (const Run& run : scan.runs) {
        const std::int64_t source = node_of_shot[static_cast<std::size_t>(run.shot)];
        for_each_header(survey, run, [&](const TraceHeader& head, int trace) {
            const double offset = head.offset();
            if (offset < options.least_offset || offset > options.most_offset) {
                ++grid.outside;
                return;
            }
            const Point group{head.group_x, head.group_y}, shot{head.source_x, head.source_y};
            check(group, "group", run, trace);
            check(shot, "source", run, trace);
            const double position = line.position(group), at = line.position(shot);
            const std::int64_t node = grid.node_at(position);
            const double move = std::abs(position - grid.origin - static_cast<double>(node) * grid.dx);
            const bool first = grid.used++ == 0;
            const auto widen = [&](double value, double& least, double& most) {
                least = first ? value : std::min(least, value);
                most = first ? value : std::max(most, value);
            };
            widen(offset, grid.least_offset, grid.most_offset);
            widen(position, grid.least_group, grid.most_group);
            widen(at, grid.least_shot, grid.most_shot);
            grid.trace_move = std::max(grid.trace_move, move);
            grid.mean_trace_move += move;
            ranges.relative.add(node - source);
            ranges.absolute.add(node);
            ranges.absolute.add(grid.node_at(at));
        });
    }
    if (grid.used == 0)
        qaserr("none of the %lld traces has an offset from min_offset=%g to max_offset=%g\n",
               static_cast<long long>(scan.traces), options.least_offset, options.most_offset);
    grid.mean_trace_move /= static_cast<double>(grid.used);
    ranges.relative.add(0);  // morvane puts the source on a trace
    return ranges;
}

void take_per_shot(const Stations& stations, const Ranges& ranges, SurveyGrid& grid) {
    grid.panel = stations.index;
    grid.shot_step = stations.step;
    for (int i = 0; i < stations.n; ++i) grid.node.push_back(stations.first + i * stations.step);
    std::vector<bool> taken(static_cast<std::size_t>(stations.n));
    for (const int i : stations.index) taken[static_cast<std::size_t>(i)] = true;
    grid.empty_panels = static_cast<int>(std::ranges::count(taken, false));
    grid.shot_move = stations.largest_move;
    grid.first_trace = ranges.relative.least;
    grid.traces = static_cast<int>(ranges.relative.width());
}

void take_whole_line(const std::vector<double>& positions, const Ranges& ranges, SurveyGrid& grid) {
    grid.areal = true;
    for (const double p : positions) grid.node.push_back(grid.node_at(p));
    std::ranges::sort(grid.node);
    grid.node.erase(std::unique(grid.node.begin(), grid.node.end()), grid.node.end());
    for (const double p : positions) {
        const std::int64_t node = grid.node_at(p);
        grid.panel.push_back(static_cast<int>(std::ranges::lower_bound(grid.node, node) - grid.node.begin()));
        grid.shot_move = std::max(grid.shot_move, std::abs(p - grid.origin - static_cast<double>(node) * grid.dx));
    }
    grid.first_trace = ranges.absolute.least;
    grid.traces = static_cast<int>(ranges.absolute.width());
}

}  // namespace

std::int64_t SurveyGrid::node_at(double position) const {
    // a position half-way between two nodes goes to the lower one, whatever its last digits
    return static_cast<std::int64_t>(std::clamp(std::floor((position - origin) / dx + 0.499), -beyond, beyond));
}

Geometry SurveyGrid::geometry(const GridOptions& options) const {
    const auto place = [&](std::int64_t at) { return static_cast<float>(origin + static_cast<double>(at) * dx); };
    Geometry g;
    g.areal = areal;
    g.taper = options.taper;
    g.pad = options.pad >= 0 ? options.pad : good_padding(traces, options.taper, least_pad);
    g.trace = {traces,
               static_cast<float>(dx),
               areal ? place(first_trace) : static_cast<float>(static_cast<double>(first_trace) * dx),
               {}};
    g.shot = {static_cast<int>(node.size()),
              static_cast<float>(static_cast<double>(areal ? 1 : shot_step) * dx),
              place(node[0]),
              {}};
    if (!areal) {
        const auto source = static_cast<std::int64_t>(std::abs(std::floor(g.trace.o / g.trace.d)));
        const int counted = static_cast<int>(static_cast<float>(traces + 2 * g.margin()) +
                                             static_cast<float>(g.shot.n - 1) * g.shot.d / g.trace.d);
        if (source != -first_trace || counted != g.image().n)
            qaserr(
                "dx=%.9g: in single precision morvane would put the source on trace %lld instead of %lld, and count %d "
                "columns where there are %d; give a rounder dx\n",
                dx, static_cast<long long>(source + 1), static_cast<long long>(1 - first_trace), counted, g.image().n);
    }
    return g;
}

std::optional<Stations> find_stations(const std::vector<double>& positions, double origin, double dx,
                                      double tolerance) {
    std::vector<double> sorted(positions), steps;
    std::ranges::sort(sorted);
    for (std::size_t i = 1; i < sorted.size(); ++i)
        if (sorted[i] - sorted[i - 1] > tolerance) steps.push_back(sorted[i] - sorted[i - 1]);
    std::vector<double> candidates{dx};
    if (!steps.empty()) candidates = {median(steps), *std::ranges::min_element(steps)};
    if (std::max(std::abs(sorted.front() - origin), std::abs(sorted.back() - origin)) > beyond * dx) return {};
    std::optional<Stations> best;
    for (const double candidate : candidates) {
        Stations s;
        s.step = std::max<std::int64_t>(1, std::llround(candidate / dx));
        const double d = static_cast<double>(s.step) * dx;
        double least = 0, most = 0;
        for (const double p : sorted) {
            const double rest = p - sorted[0] - std::round((p - sorted[0]) / d) * d;
            least = std::min(least, rest);
            most = std::max(most, rest);
        }
        s.first = static_cast<std::int64_t>(std::floor((sorted[0] + 0.5 * (least + most) - origin) / dx + 0.499));
        const double start = origin + static_cast<double>(s.first) * dx;
        for (const double p : positions) {
            const double index = std::round((p - sorted[0]) / d);
            if (index > 1e6) return {};
            s.index.push_back(static_cast<int>(index));
            s.n = std::max(s.n, s.index.back() + 1);
            s.largest_move = std::max(s.largest_move, std::abs(p - start - index * d));
        }
        if (s.largest_move > tolerance * (1 + 1e-6) || s.n > 2 * static_cast<double>(positions.size())) continue;
        if (!best || s.n < best->n) best = s;
    }
    return best;
}

SurveyGrid make_grid(Survey& survey, const Scan& scan, const Line& line, const GridOptions& options) {
    SurveyGrid grid;
    const std::vector<std::vector<double>> groups = some_groups(survey, scan, line);
    grid.group_interval = group_interval(groups);
    std::vector<double> shots;
    for (const Point& shot : scan.shots) shots.push_back(line.position(shot));
    grid.dx = options.dx;
    if (grid.dx == 0) {
        if (grid.group_interval == 0)
            qaserr("no shot has two groups in different places, so that their interval is not known; give dx=\n");
        grid.dx = rounded(grid.group_interval);
    }
    grid.origin = origin_of(groups, grid.group_interval, grid.dx);
    const double tolerance = options.shot_tolerance > 0 ? options.shot_tolerance : 0.5 * grid.dx;
    const std::optional<Stations> stations = find_stations(shots, grid.origin, grid.dx, tolerance);
    std::vector<std::int64_t> node_of_shot;
    for (std::size_t i = 0; i < shots.size(); ++i)
        node_of_shot.push_back(stations ? stations->first + stations->index[i] * stations->step
                                        : grid.node_at(shots[i]));
    const Ranges ranges = measure(survey, scan, line, options, node_of_shot, grid);
    if (ranges.relative.width() > most_nodes || ranges.absolute.width() > most_nodes)
        qaserr("dx=%g: a line of %.3g nodes is too long; permitted are %g\n", grid.dx, ranges.absolute.width(),
               most_nodes);

    if (options.layout == Layout::per_shot && !stations)
        qaserr(
            "areal=n: the shots stand on no regular stations within shot_tolerance=%g of them; a greater tolerance moves "
            "them further, areal=y takes them as they are\n",
            tolerance);
    const double margins = 2.0 * (options.taper + std::max(options.pad, least_pad));
    const double apart = stations ? stations->n * (ranges.relative.width() + margins) : 0;
    const double together = static_cast<double>(shots.size()) * (ranges.absolute.width() + margins);
    if (stations && options.layout != Layout::whole_line && (options.layout == Layout::per_shot || apart <= together)) {
        take_per_shot(*stations, ranges, grid);
        grid.why = options.layout == Layout::per_shot ? "as asked for" : "the shots are regular, their spreads narrow";
    } else {
        take_whole_line(shots, ranges, grid);
        grid.why = options.layout == Layout::whole_line ? "as asked for"
                   : stations                           ? "the spread covers the line"
                                                        : "the shots are not regular";
    }
    return grid;
}

}  // namespace morvane::prepare
