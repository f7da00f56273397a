// The parameter file and the report.
#include <cmath>
#include <sstream>

#include "src/tools/morvane_prepare/outputs.h"

namespace morvane::prepare {
namespace {

std::string of_fit(const Line& line, bool given) {
    std::ostringstream text;
    text.precision(10);
    text << (given ? "through two given points" : "fitted to all sources and groups") << "; position = (x - " << line.x0
         << ") * " << line.ux << " + (y - " << line.y0 << ") * " << line.uy;
    return text.str();
}

/// A value of a parameter file, in quotes where it needs them.
std::string quoted(const std::string& value) {
    return value.find_first_of(" \t'#") == value.npos ? value : '"' + value + '"';
}

const char* format_name(int format) {
    switch (format) {
        case 1:
            return "IBM floats";
        case 5:
            return "IEEE floats";
        default:
            return "integers";
    }
}

}  // namespace

std::string parameter_file(const Outputs& outputs, const PrepareOptions& o, const Plan& plan) {
    std::ostringstream text;
    const auto reason = [&](const std::string& name) {
        for (const Reason& r : plan.reasons)
            if (r.name == name) return r.why;
        return std::string();
    };
    const auto file = [&](const char* tail) { return quoted(outputs.name(tail)); };
    text << "# Made by morvane_prepare; what was found in the data stands in " << outputs.name("prepare.txt") << ".\n"
         << "# Run it in the same folder: morvane par=" << file("morvane.par") << " < /dev/null > " << file("history.H")
         << "\n\n";
    text << "# inputs\nvel=" << file("vel.H") << " rec=" << file("rec.H") << " sou=" << file("sou.H") << "\n";
    text << "# results: velocity by evaluation, image, residual, gradient; iteration log\nVelout=" << file("velocity.H")
         << " bkgimg=" << file("image.H") << " Dimage=" << file("residual.H") << " grad=" << file("gradient.H")
         << "\nlog=" << file("log") << " list=" << file("listing") << "\n";
    if (!outputs.datapath().empty()) text << "datapath=" << quoted(outputs.datapath()) << "\n";
    text << "\n# layout: " << reason("areal") << "\nareal=" << (plan.grid.areal ? "y" : "n") << "\n";
    text << "# margins: " << reason("padtraces") << "\ntraces_in_taper=" << plan.geometry.taper
         << " padtraces=" << plan.geometry.pad << "\n";
    text << "# depth: " << reason("zmax") << "\nzmin=0 zmax=" << digits((plan.z.n - 1) * plan.dz) << "\n";
    text << "# subsurface offsets: " << reason("nh") << "\nnh=" << plan.nh << " dh=" << digits(plan.dh) << "\n";
    const bool plain = o.plain;
    if (plain)
        text << "# one reference velocity; no sample may reach vsal, from which on a body counts as fast\n"
             << "extrapolator=pspi nrefvel=1 vsal=" << digits(std::ceil(10 * plan.fastest)) << "\n";
    else
        text
            << "# finite differences to 45 degrees: of all extrapolators the one that leaves the least gradient at a true model\n"
            << "extrapolator=ffd dipop=45 trick=0.2\n";
    text << "# the inversion; the first trial changes no sample by more than firststep\ninversion=y dso=y niter="
         << o.niter << " mmax=" << (plain ? 5 : 20) << "\ngradient=exact firststep=" << digits(o.first_step) << "\n";
    if (plain)
        text << "expdso=1\n";
    else
        text
            << "# fun: differences in depth, little weight on offsets, by the image's energy, where reflections come from\n"
            << "expdso=0.15 depthdiff=1 normalise=y fun_xmin=" << digits(plan.fun_least)
            << " fun_xmax=" << digits(plan.fun_most)
            << "\n# the run ends when the data that the image predicts fit no better; best: the model of the greatest fit\n"
            << "stop=fit stop_rise=0 stop_patience=4 best=" << file("best.H") << " course=" << file("course.csv")
            << "\n";
    if (o.bound > 0)
        text << "# bounds, percent of the start model\nbounds=y p_up=" << digits(o.bound) << " p_lo=" << digits(o.bound)
             << "\n";
    if (plan.nxk > 0)
        // one knot beyond each end: the splines then add up to one everywhere
        text << "# knots: " << reason("dxk") << "; " << reason("dzk") << "\ndxk=" << digits(plan.dxk)
             << " oxk=" << digits(plan.origin - plan.dxk) << " nxk=" << plan.nxk << "\ndzk=" << digits(plan.dzk)
             << " ozk=" << digits(-plan.dzk) << " nzk=" << plan.nzk << "\n";
    if (!plain) {
        const double dxk = plan.nxk > 0 ? plan.dxk : 10 * plan.dx, dzk = plan.nxk > 0 ? plan.dzk : 10 * plan.dz;
        text << "# smoothness of the change\nregularise=0.5 reg_x=" << digits(0.5 * dxk) << " reg_z=" << digits(dzk)
             << "\n";
    }
    return text.str();
}

std::string report(const PrepareOptions& o, const Plan& plan, const Survey& survey, const Scan& scan,
                   const Velocity& velocity, const Counts& counts) {
    std::ostringstream text;
    const auto line = [&](const char* name, const auto&... words) {
        text << "  " << name << ": ";
        (text << ... << words);
        text << "\n";
    };
    const SurveyGrid& g = plan.grid;
    text << "morvane_prepare: what was found and what was chosen\n\nFiles\n";
    for (const SegyFile& file : survey.files()) {
        const SegyInfo& i = file.info();
        line(file.path().c_str(), "SEG-Y revision ", i.revision,
             i.little ? ", little endian, format " : ", big endian, format ", i.format, " (", format_name(i.format),
             "), ", i.traces, " traces of ", i.samples, " samples every ", digits(i.dt), " s");
        for (const std::string& note : i.notes) line("  note", note);
    }
    for (const std::string& words : survey.files()[0].info().text) text << "    | " << words << "\n";
    text << "\nGeometry (" << o.length_name << ")\n";
    line("line", of_fit(plan.line, !o.line.empty()));
    line("farthest from it", digits(g.farthest), " (", g.farthest_trace, "); permitted are ", digits(o.max_distance));
    line("shots", scan.shots.size(), " from ", digits(g.least_shot), " to ", digits(g.most_shot),
         ", moved to their nodes by ", digits(g.shot_move), " at most");
    line("groups", "from ", digits(g.least_group), " to ", digits(g.most_group), ", moved to their nodes by ",
         digits(g.mean_trace_move), " in the mean, ", digits(g.trace_move), " at most");
    line("offsets", digits(g.least_offset), " to ", digits(g.most_offset));
    line("recording delay", digits(scan.least_delay), " to ", digits(scan.most_delay), " s");
    line("group elevations", digits(scan.least_elevation), " to ", digits(scan.most_elevation));
    line("source depths", digits(scan.least_depth), " to ", digits(scan.most_depth));
    text << "\nTraces\n";
    line("used", counts.used);
    line("left out", scan.dead, " marked dead, ", counts.silent, " zero throughout, ", scan.other, " not seismic, ",
         g.outside, " outside the offsets");
    line("rec", counts.live, " of ", static_cast<std::int64_t>(g.node.size()) * g.traces,
         " traces hold data, the rest is zero; ", counts.stacked, " were stacked onto others");
    line("rms of rec", digits(counts.rms));
    text << "\nVelocity\n";
    line("model", velocity.what, ", ", digits(velocity.least),
         velocity.most > 0 ? " to " + digits(velocity.most) : std::string(), " ", o.length_name, "/s");
    line("grid", plan.x.n, " columns from ", digits(plan.origin), " every ", digits(plan.dx), ", ", plan.z.n,
         " levels every ", digits(plan.dz));
    if (velocity.right > velocity.left)
        line("extent", digits(velocity.left), " to ", digits(velocity.right), ", continued beyond");
    text << "\nChoices\n";
    for (const Reason& r : plan.reasons) line(r.name.c_str(), r.value, "  (", r.why, ")");
    if (!plan.warnings.empty()) text << "\nWarnings\n";
    for (const std::string& warning : plan.warnings) text << "  " << warning << "\n";
    return text.str();
}

}  // namespace morvane::prepare
