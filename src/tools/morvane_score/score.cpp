#include "src/tools/morvane_score/score.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <istream>
#include <sstream>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

[[gnu::format(printf, 2, 3)]] void add_line(std::string& text, const char* format, ...) {
    char line[300];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    text += line;
    text += '\n';
}

std::ptrdiff_t nearest(const Axis& axis, double position) {
    return std::lround((position - axis.o) / static_cast<double>(axis.d));
}

double position(const Axis& axis, std::ptrdiff_t i) {
    return axis.o + i * static_cast<double>(axis.d);
}

double percent_fall(double first, double last) {
    return first == 0.0 ? 0.0 : 100.0 * (1.0 - last / first);
}

}  // namespace

std::vector<LogLine> read_log(std::istream& log) {
    static constexpr std::string_view labels[] = {" iter = ", " titer= ", " task = ", " J(x) = "};
    static constexpr std::size_t widths[] = {4, 4, 5, 15};
    std::vector<LogLine> lines;
    for (std::string text; std::getline(log, text);) {
        std::string fields[4];
        bool complete = true;
        for (std::size_t k = 0, at = 0; k < 4 && complete; ++k) {
            complete =
                text.compare(at, labels[k].size(), labels[k]) == 0 && text.size() >= at + labels[k].size() + widths[k];
            if (!complete) break;
            fields[k] = text.substr(at + labels[k].size(), widths[k]);
            at += labels[k].size() + widths[k];
        }
        if (!complete) continue;
        lines.push_back(
            {std::atoi(fields[0].c_str()), std::atoi(fields[1].c_str()), fields[2],
             fields[3].find('*') == std::string::npos ? std::strtod(fields[3].c_str(), nullptr) : std::nan("")});
    }
    return lines;
}

std::vector<Accepted> accepted_steps(const std::vector<LogLine>& log) {
    std::vector<Accepted> accepted;
    for (const LogLine& line : log)
        if (line.task == "NEW_X")
            accepted.push_back({static_cast<int>(accepted.size()), line.titer - 1, line.fun});
        else if (accepted.empty())
            accepted.push_back({0, line.titer, line.fun});
    return accepted;
}

int count_evaluations(const std::vector<LogLine>& log) {
    return static_cast<int>(
        std::ranges::count_if(log, [](const LogLine& line) { return line.task.starts_with("FG"); }));
}

bool Region::holds(double x, double z) const {
    const double slack = 1e-6 * (std::abs(xmax - xmin) + std::abs(zmax - zmin));
    return x >= xmin - slack && x <= xmax + slack && z >= zmin - slack && z <= zmax + slack;
}

double relative_error(const ModelPanel& truth, const ModelPanel& model, const Region& region) {
    if (truth.x.d != model.x.d || truth.z.d != model.z.d)
        qas::qaserr("the models have different steps: %g by %g and %g by %g\n", static_cast<double>(truth.x.d),
                    static_cast<double>(truth.z.d), static_cast<double>(model.x.d), static_cast<double>(model.z.d));
    double difference = 0.0, size = 0.0;
    for (int iz = 0; iz < truth.z.n; ++iz)
        for (int ix = 0; ix < truth.x.n; ++ix) {
            const double x = position(truth.x, ix), z = position(truth.z, iz);
            const std::ptrdiff_t jx = nearest(model.x, x), jz = nearest(model.z, z);
            if (!region.holds(x, z) || jx < 0 || jx >= model.x.n || jz < 0 || jz >= model.z.n) continue;
            const double t = truth.values(ix, iz), s = model.values(jx, jz);
            difference += (s - t) * (s - t);
            size += t * t;
        }
    if (size == 0.0)
        qas::qaserr("the models share no sample with x from %g to %g and z from %g to %g\n", region.xmin, region.xmax,
                    region.zmin, region.zmax);
    return std::sqrt(difference / size);
}

double zero_offset_share(View<const float, 3> image, const Axis& x, const Axis& h, const Axis& z,
                         const Region& region) {
    const std::ptrdiff_t zero = std::clamp<std::ptrdiff_t>(nearest(h, 0.0), 0, h.n - 1);
    double at_zero = 0.0, all = 0.0;
    for (int iz = 0; iz < z.n; ++iz)
        for (int ih = 0; ih < h.n; ++ih)
            for (int ix = 0; ix < x.n; ++ix) {
                if (!region.holds(position(x, ix), position(z, iz))) continue;
                const double energy = static_cast<double>(image(ix, ih, iz)) * image(ix, ih, iz);
                all += energy;
                if (ih == zero) at_zero += energy;
            }
    return all == 0.0 ? 0.0 : at_zero / all;
}

std::map<int, double> read_fits(std::istream& course) {
    const auto cells_of = [](const std::string& line) {
        std::vector<std::string> cells;
        std::istringstream stream(line);
        for (std::string cell; std::getline(stream, cell, ',');) cells.push_back(cell);
        return cells;
    };
    std::map<int, double> fits;
    std::string line;
    if (!std::getline(course, line)) return fits;
    const std::vector<std::string> names = cells_of(line);
    const auto column = [&](const char* name) {
        return static_cast<std::size_t>(std::ranges::find(names, name) - names.begin());
    };
    const std::size_t evaluation = column("evaluation"), fit = column("fit");
    if (std::max(evaluation, fit) >= names.size()) return fits;
    while (std::getline(course, line)) {
        const std::vector<std::string> cells = cells_of(line);
        if (cells.size() == names.size() && !cells[fit].empty())
            fits[std::atoi(cells[evaluation].c_str())] = std::strtod(cells[fit].c_str(), nullptr);
    }
    return fits;
}

double correlation_of_fit(const std::vector<ScoreRow>& rows) {
    double n = 0.0, x = 0.0, y = 0.0, xx = 0.0, yy = 0.0, xy = 0.0;
    for (const ScoreRow& row : rows) {
        if (std::isnan(row.fit)) continue;
        n += 1.0;
        x += row.fit;
        y += row.error;
    }
    for (const ScoreRow& row : rows) {
        if (std::isnan(row.fit)) continue;
        const double dx = row.fit - x / n, dy = row.error - y / n;
        xx += dx * dx;
        yy += dy * dy;
        xy += dx * dy;
    }
    return n < 3.0 || xx == 0.0 || yy == 0.0 ? NAN : xy / std::sqrt(xx * yy);
}

std::string score_table(const std::vector<ScoreRow>& rows, int evaluations, const Region& region,
                        const ScoreRow* truth) {
    const ScoreRow &first = rows.front(), &last = rows.back();
    std::string text;
    add_line(text, "accepted models, seen in x %g to %g, z %g to %g", region.xmin, region.xmax, region.zmin,
             region.zmax);
    const bool fits = std::ranges::any_of(rows, [](const ScoreRow& row) { return !std::isnan(row.fit); });
    add_line(text, " iteration  evaluation            fun   model error %%   zero-offset share %%%s",
             fits ? "         fit" : "");
    for (const ScoreRow& row : rows) {
        char fit[20] = "";
        if (fits) std::snprintf(fit, sizeof fit, "%12.5f", row.fit);
        add_line(text, "%10d %11d %14.6e %15.3f %21.3f%s", row.iteration, row.evaluation, row.fun, 100 * row.error,
                 100 * row.share, fit);
    }
    text += '\n';
    add_line(text, "%22s %14s %14s %14s %16s", "", "start", "last", "true model", "start to last");
    char of_truth[3][40] = {"-", "-", "-"};
    if (truth) {
        std::snprintf(of_truth[0], sizeof of_truth[0], "%.6e", truth->fun);
        std::snprintf(of_truth[1], sizeof of_truth[1], "%.3f", 100 * truth->error);
        std::snprintf(of_truth[2], sizeof of_truth[2], "%.3f", 100 * truth->share);
    }
    add_line(text, "%-22s %14.6e %14.6e %14s %+14.1f %%", "fun", first.fun, last.fun, of_truth[0],
             -percent_fall(first.fun, last.fun));
    add_line(text, "%-22s %14.3f %14.3f %14s %+14.1f %%", "model error %", 100 * first.error, 100 * last.error,
             of_truth[1], -percent_fall(first.error, last.error));
    add_line(text, "%-22s %14.3f %14.3f %14s %+14.1f %%", "zero-offset share %", 100 * first.share, 100 * last.share,
             of_truth[2], -percent_fall(first.share, last.share));
    if (truth && truth->share > 0)
        add_line(text, "share, %% of true model %13.1f %14.1f %14.1f", 100 * first.share / truth->share,
                 100 * last.share / truth->share, 100.0);
    const auto best = std::ranges::min_element(rows, {}, &ScoreRow::error);
    if (rows.size() == 1)
        add_line(text, "no step was accepted in %d evaluations: the result is the start model", evaluations);
    else
        add_line(text, "%zu iterations in %d evaluations; least model error %.3f %% at iteration %d", rows.size() - 1,
                 evaluations, 100 * best->error, best->iteration);
    if (fits) {
        const auto fittest = std::ranges::max_element(
            rows, {}, [](const ScoreRow& row) { return std::isnan(row.fit) ? -INFINITY : row.fit; });
        add_line(
            text,
            "greatest fit %.5f at iteration %d, where the model error is %.3f %%; correlation of fit and error %+.3f",
            fittest->fit, fittest->iteration, 100 * fittest->error, correlation_of_fit(rows));
    }
    if (truth && last.fun < truth->fun)
        add_line(text,
                 "fun ends below its value at the true model: from there on it fits what no velocity can explain");
    return text;
}

}  // namespace morvane
