#include "src/tools/morvane_prepare/velocity.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/segy_file.h"
#include "src/tools/morvane_prepare/text_table.h"
#include "src/tools/qas/npy.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr double slowest = 300, fastest = 8000;  // m/s
constexpr std::int64_t most_samples = 500'000'000;

/// Columns of samples at ascending positions, each with its own depths.
struct Columns {
    std::vector<double> x;
    std::vector<std::vector<double>> z, value;
};

/// Index below `at` and the share of the next one, the ends continued.
std::pair<std::size_t, double> between(const std::vector<double>& axis, double at) {
    const auto above = std::ranges::upper_bound(axis, at);
    if (above == axis.begin()) return {0, 0};
    const auto i = static_cast<std::size_t>(above - axis.begin() - 1);
    if (above == axis.end()) return {i, 0};
    return {i, (at - axis[i]) / (axis[i + 1] - axis[i])};
}

double in_column(const Columns& c, std::size_t i, double z) {
    const auto [k, share] = between(c.z[i], z);
    return share == 0 ? c.value[i][k] : (1 - share) * c.value[i][k] + share * c.value[i][k + 1];
}

double interpolate(const Columns& c, double x, double z) {
    const auto [i, share] = between(c.x, x);
    return share == 0 ? in_column(c, i, z) : (1 - share) * in_column(c, i, z) + share * in_column(c, i + 1, z);
}

bool ends_with(const std::string& name, std::initializer_list<const char*> ends) {
    std::string lower(name);
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::ranges::any_of(ends, [&](const char* end) { return lower.ends_with(end); });
}

Columns regular(int nx, int nz, double x0, double dx, double z0, double dz, const std::string& name) {
    if (!(dx > 0) || !(dz > 0))
        qaserr("velocity=%s: its steps are dx=%g, dz=%g; give positive ones by velocity_dx=, velocity_dz=\n",
               name.c_str(), dx, dz);
    Columns c;
    std::vector<double> depths;
    for (int i = 0; i < nz; ++i) depths.push_back(z0 + i * dz);
    for (int i = 0; i < nx; ++i) {
        c.x.push_back(x0 + i * dx);
        c.z.push_back(depths);
        c.value.emplace_back(static_cast<std::size_t>(nz));
    }
    return c;
}

Columns from_npy(const VelocityOptions& o) {
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(o.file.c_str(), "rb"), &std::fclose);
    if (!file) qaserr("velocity=%s cannot be opened: %s\n", o.file.c_str(), std::strerror(errno));
    const qastool::NpyHeader head = qastool::read_npy_header(file.get(), o.file);
    if (head.type != 'f' || head.swapped || head.shape.size() != 2 || head.elements > most_samples)
        qaserr("velocity=%s must be a real array (depth, lateral) in this machine's byte order\n", o.file.c_str());
    const int nz = static_cast<int>(head.shape[0]), nx = static_cast<int>(head.shape[1]);
    Columns c = regular(nx, nz, o.x0, o.dx, o.z0, o.dz, o.file);
    std::vector<char> bytes(static_cast<std::size_t>(head.bytes()));
    if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        qaserr("velocity=%s is shorter than its shape says\n", o.file.c_str());
    for (std::size_t iz = 0; iz < static_cast<std::size_t>(nz); ++iz)
        for (std::size_t ix = 0; ix < static_cast<std::size_t>(nx); ++ix) {
            const std::size_t at =
                head.fortran_order ? iz + ix * static_cast<std::size_t>(nz) : ix + iz * static_cast<std::size_t>(nx);
            float single = 0;
            if (head.size == 8)
                std::memcpy(&c.value[ix][iz], bytes.data() + 8 * at, 8);
            else
                std::memcpy(&single, bytes.data() + 4 * at, 4), c.value[ix][iz] = static_cast<double>(single);
        }
    return c;
}

Columns from_segy(const VelocityOptions& o, const Line& line) {
    SegyFile file(o.file, {});
    if (std::int64_t{file.info().samples} * file.info().traces > most_samples)
        qaserr("velocity=%s: a section of %d traces of %d samples is too large\n", o.file.c_str(), file.info().traces,
               file.info().samples);
    // depth sections keep their interval in the word of the time interval, in thousandths of the unit of length
    const double dz = o.dz > 0 ? o.dz : file.info().dt * 1e3 * o.segy_length / o.length;
    std::map<double, std::vector<double>> columns;
    std::vector<float> samples(static_cast<std::size_t>(file.info().samples));
    for (int i = 0; i < file.info().traces; ++i) {
        const TraceHeader head = file.header(i);
        const bool cdp = head.cdp_x != 0 || head.cdp_y != 0;
        const double scale = o.segy_length / o.length;
        const double x =
            line.position({(cdp ? head.cdp_x : head.source_x) * scale, (cdp ? head.cdp_y : head.source_y) * scale});
        file.samples(i, samples);
        if (!columns.try_emplace(x, samples.begin(), samples.end()).second)
            qaserr("velocity=%s: trace %d lies where another one does, at %.9g along the line\n", o.file.c_str(), i + 1,
                   x);
    }
    Columns c;
    std::vector<double> depths;
    for (int i = 0; i < file.info().samples; ++i) depths.push_back(o.z0 + i * dz);
    for (auto& [x, values] : columns) {
        c.x.push_back(x);
        c.z.push_back(depths);
        c.value.push_back(std::move(values));
    }
    return c;
}

Columns from_table(const VelocityOptions& o) {
    std::map<double, std::map<double, double>> rows;
    for_each_row(o.file, [&](int number, const std::string& text, std::istringstream& words) {
        double x = 0, z = 0, v = 0;
        if (!(words >> x >> z >> v) || !std::isfinite(x) || !std::isfinite(z))
            qaserr("velocity=%s, line %d: \"%.60s\" is not a position, a depth and a velocity\n", o.file.c_str(),
                   number, text.c_str());
        if (!rows[x].try_emplace(z, v).second)
            qaserr("velocity=%s, line %d: a second value at x=%g z=%g\n", o.file.c_str(), number, x, z);
    });
    if (rows.empty()) qaserr("velocity=%s holds no line of position, depth and velocity\n", o.file.c_str());
    Columns c;
    for (const auto& [x, column] : rows) {
        c.x.push_back(x);
        c.z.emplace_back();
        c.value.emplace_back();
        for (const auto& [z, v] : column) {
            c.z.back().push_back(z);
            c.value.back().push_back(v);
        }
    }
    return c;
}

Columns from_dataset(qas::Session& session, const VelocityOptions& o) {
    const Axis x = session.from_aux_axis("velocity", 1), z = session.from_aux_axis("velocity", 3);
    if (std::int64_t{x.n} * z.n > most_samples)
        qaserr("velocity=%s: n1=%d and n3=%d are too many samples\n", o.file.c_str(), x.n, z.n);
    session.check_data_size("velocity", std::int64_t{4} * x.n * z.n, "n1*n3");
    Columns c = regular(x.n, z.n, static_cast<double>(x.o), static_cast<double>(x.d), static_cast<double>(z.o),
                        static_cast<double>(z.d), o.file);
    std::vector<float> row(static_cast<std::size_t>(x.n));
    for (std::size_t iz = 0; iz < static_cast<std::size_t>(z.n); ++iz) {
        const auto bytes = static_cast<std::int64_t>(row.size() * sizeof(float));
        if (session.sreed("velocity", row.data(), bytes) != bytes)
            qaserr("velocity=%s holds fewer than n1*n3 samples\n", o.file.c_str());
        for (std::size_t ix = 0; ix < row.size(); ++ix) c.value[ix][iz] = static_cast<double>(row[ix]);
    }
    return c;
}

/// A text whose lines begin with numbers is a table; a dataset's header has name=value lines.
bool is_table(const std::string& path) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t at = line.find_first_not_of(" \t\r");
        if (at == line.npos || line[at] == '#') continue;
        return std::isdigit(static_cast<unsigned char>(line[at])) || line[at] == '-' || line[at] == '+' ||
               line[at] == '.';
    }
    return false;
}

/// The unit in which a median would be a velocity of rocks or water; empty if there is none.
std::string fitting_unit(double median) {
    for (const char* name : {"m/s", "km/s", "s/m", "s/km", "ft/s", "s/ft"}) {
        const VelocityUnit unit = velocity_unit(name);
        const double v = unit.metres * (unit.slowness ? 1 / median : median);
        if (v >= slowest && v <= fastest) return name;
    }
    return "";
}

/// Turns samples into slowness in the run's unit, and checks them.
void take_units(Columns& c, const VelocityOptions& o, const std::string& name, Velocity& made) {
    const VelocityUnit unit = o.unit.empty() ? VelocityUnit{o.length, false} : velocity_unit(o.unit);
    std::vector<double> all;
    for (std::size_t i = 0; i < c.x.size(); ++i)
        for (std::size_t k = 0; k < c.z[i].size(); ++k) {
            const double v = c.value[i][k];
            if (!(v > 0) || !std::isfinite(v))
                qaserr("%s: the sample at x=%g z=%g is %g; velocities must be positive\n", name.c_str(), c.x[i],
                       c.z[i][k], v);
            all.push_back(v);
        }
    const auto middle = all.begin() + std::ssize(all) / 2;
    std::ranges::nth_element(all, middle);
    const double median = unit.metres * (unit.slowness ? 1 / *middle : *middle);
    if (median < slowest || median > fastest) {
        const std::string better = fitting_unit(*middle);
        qaserr("%s: its median is %g, that is %.4g m/s; permitted are %g to %g m/s. %s%s\n", name.c_str(), *middle,
               median, slowest, fastest,
               better.empty() ? "No unit makes it a velocity" : "It would fit velocity_unit=", better.c_str());
    }
    made.least = INFINITY;
    for (auto& column : c.value)
        for (double& v : column) {
            const double velocity = unit.metres / o.length * (unit.slowness ? 1 / v : v);
            made.least = std::min(made.least, velocity);
            made.most = std::max(made.most, velocity);
            v = 1 / velocity;
        }
}

}  // namespace

VelocityUnit velocity_unit(const std::string& name) {
    const std::pair<const char*, VelocityUnit> known[] = {{"m/s", {1, false}},       {"km/s", {1000, false}},
                                                          {"ft/s", {0.3048, false}}, {"s/m", {1, true}},
                                                          {"s/km", {1000, true}},    {"s/ft", {0.3048, true}}};
    for (const auto& [text, unit] : known)
        if (name == text) return unit;
    qaserr("velocity_unit=%s is unknown; permitted are m/s, km/s, ft/s, s/m, s/km and s/ft\n", name.c_str());
}

double length_in_metres(const std::string& key, const std::string& name) {
    const std::pair<const char*, double> known[] = {{"m", 1.0}, {"km", 1000.0}, {"ft", 0.3048}};
    for (const auto& [text, metres] : known)
        if (name == text) return metres;
    qaserr("%s=%s is unknown; permitted are m, km and ft\n", key.c_str(), name.c_str());
}

Velocity read_velocity(qas::Session& session, const VelocityOptions& o, const Line& line) {
    Velocity made;
    auto columns = std::make_shared<Columns>();
    if (o.file.empty()) {
        if (!(o.v0 > 0)) qaserr("a velocity model is needed: velocity=FILE, or v0= and gradient=\n");
        *columns = {{0}, {{0}}, {{o.v0}}};
        take_units(*columns, o, "v0=", made);
        const double v0 = made.least, k = o.gradient;  // 1/s in any unit of length
        if (o.gradient < 0) qaserr("gradient=%g: velocity must not fall to 0 with depth; 0 or more\n", o.gradient);
        if (!o.unit.empty() && velocity_unit(o.unit).slowness)
            qaserr("velocity_unit=%s: v0 and gradient are a velocity\n", o.unit.c_str());
        made.slowness = [v0, k](double, double z) { return 1 / (v0 + k * std::max(0.0, z)); };
        std::ostringstream text;
        text << "v0=" << o.v0 << " + " << o.gradient << " z";
        made.what = text.str();
        made.most = 0;  // set by the depth
        return made;
    }
    std::ifstream exists(o.file);
    if (!exists) qaserr("velocity=%s cannot be read: %s\n", o.file.c_str(), std::strerror(errno));
    if (ends_with(o.file, {".sgy", ".segy"})) {
        *columns = from_segy(o, line);
        made.what = "SEG-Y section ";
    } else if (ends_with(o.file, {".npy"})) {
        *columns = from_npy(o);
        made.what = "NumPy array ";
    } else if (is_table(o.file)) {
        *columns = from_table(o);
        made.what = "table of x z v ";
    } else {
        *columns = from_dataset(session, o);
        made.what = "dataset ";
    }
    made.what += o.file;
    take_units(*columns, o, "velocity=" + o.file, made);
    for (double& x : columns->x) x += o.shift;
    made.left = columns->x.front();
    made.right = columns->x.back();
    made.bottom = INFINITY;
    for (const std::vector<double>& depths : columns->z) made.bottom = std::min(made.bottom, depths.back());
    made.slowness = [columns](double x, double z) { return interpolate(*columns, x, z); };
    return made;
}

}  // namespace morvane::prepare
