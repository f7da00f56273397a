#include "src/tools/morvane_prepare/options.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "lib/corelibs/qas/session.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr double huge = 1e9, tiny = 1e-9;

/// A parameter as the help shows it; `standard` is what stands for an absent one. A null key starts a group.
struct Option {
    const char *key, *standard, *unit, *what;
};

constexpr Option table[] = {
    {nullptr, "Input", "", ""},
    {"segy", "FILE,FILE,...", "", "the traces; needed"},
    {"velocity", "FILE", "",
     "start model: SEG-Y section (.sgy, .segy), .npy (depth, lateral), dataset, or a table of position, depth and velocity"},
    {"v0", "", "", "instead: velocity at the surface"},
    {"gradient", "0", "1/s", "and its increase with depth"},
    {"velocity_unit", "", "", "m/s, km/s, ft/s, s/m, s/km or s/ft; default: length_unit per second"},
    {"velocity_dx", "0", "", "lateral step of a .npy model"},
    {"velocity_dz", "0", "", "depth step of a .npy model; of a section instead of its header's (interval / 1000)"},
    {"velocity_x0", "0", "", "position of the first column of a .npy model"},
    {"velocity_z0", "0", "", "depth of the first sample of a .npy model or section"},
    {"velocity_shift", "0", "", "added to the positions of any model"},
    {"velocity_smooth", "0", "", "length of a Gaussian average of slowness; 0: none"},
    {"length_unit", "", "", "m, km or ft: unit of all lengths here and in the output; default: that of the files"},
    {"segy_unit", "", "", "unit of the coordinates; default: as the binary header says, else m"},
    {nullptr, "Reading of SEG-Y", "", ""},
    {"endian", "", "", "big or little; default: found from the binary header"},
    {"sample_format", "", "", "1 IBM, 2 3 8 integers, 5 IEEE; default: as the binary header says"},
    {"dt", "", "s", "sample interval; default: as the headers say"},
    {"truncated", "n", "", "y: leave out a last trace that is cut short"},
    {"source_x_word", "73", "", "first byte of the trace header's word; likewise the next ones"},
    {"source_y_word", "77", "", ""},
    {"group_x_word", "81", "", ""},
    {"group_y_word", "85", "", ""},
    {"coordinate_scalar_word", "71", "", ""},
    {"group_elevation_word", "41", "", ""},
    {"source_depth_word", "49", "", ""},
    {"elevation_scalar_word", "69", "", ""},
    {"delay_word", "109", "", ""},
    {"trace_id_word", "29", "", ""},
    {nullptr, "Geometry", "", ""},
    {"line", "X0,Y0,X1,Y1", "", "two points of the line, position 0 at the first; default: fitted to all positions"},
    {"max_distance", "", "", "permitted distance from the line; default: 500 m"},
    {"dx", "", "", "node interval; default: the group interval. A multiple of it puts several groups on a node"},
    {"areal", "", "", "n: traces move with the shot; y: whole-line fields; default: what takes less"},
    {"shot_tolerance", "", "", "to a regular station; default: dx/2"},
    {"min_offset", "0", "", "traces nearer are left out"},
    {"max_offset", "", "", "traces farther are left out"},
    {"taper", "20", "traces", "morvane's traces_in_taper"},
    {"padtraces", "", "traces", "morvane's padtraces; default: at least 10, for a fast transform"},
    {nullptr, "Data", "", ""},
    {"data", "field", "", "field: point sources, corrected to line sources; 2d: modelled with line sources"},
    {"mute", "auto", "", "auto: after the direct wave, fitted; linear; none; or a table of offset and time"},
    {"mute_velocity", "", "", "mute=linear: zero before mute_intercept + offset / mute_velocity"},
    {"mute_intercept", "0", "s", ""},
    {"mute_taper", "", "s", "rise after the mute; default: a period of the strongest frequency"},
    {"tmax", "", "s", "end of what is used of the records; default: all"},
    {"end_taper", "", "s", "time over which it runs out; default: 1/20 of the record"},
    {"gain", "0", "", "factor t^gain"},
    {"fmin", "", "Hz", "band; default: where the data have a tenth of their greatest amplitude or more"},
    {"fmax", "", "Hz", ""},
    {"df", "", "Hz", "step; default: 1 / length of the record, or a little less, for a fast transform"},
    {"band_taper", "", "Hz", "width of the tapered band ends; default: a tenth of the band"},
    {"whiten", "0", "", "flatten the source's spectrum with this water level (part of the peak); 0: leave it"},
    {"scale", "rms", "", "rms: data and source with rms 1; wavelet: the source's largest amplitude 1; none"},
    {nullptr, "Source", "", ""},
    {"source", "zero", "",
     "zero, minimum: estimated from the data, of that phase; ricker; or a file: text, .npy, SEG-Y, dataset"},
    {"fpeak", "", "Hz", "source=ricker: peak frequency"},
    {"source_time", "0", "s", "time of the records at which the source fires (time 0, or centre, of the wavelet)"},
    {"wavelet_dt", "", "s", "interval of a wavelet in a file without times; default: that of the data"},
    {"source_length", "", "s", "estimated: length of the wavelet; default: six periods of the strongest frequency"},
    {"rotate", "0", "degrees", "added to the phase of the source"},
    {nullptr, "Output", "", ""},
    {"prefix", "", "", "in front of rec.H, sou.H, vel.H, morvane.par, prepare.txt; run/ puts them into that folder"},
    {"overwrite", "n", "", "y: files of these names may be there and are replaced"},
    {"datapath", "", "", "where data go; default: beside their headers, unless DATAPATH or .datapath say otherwise"},
    {nullptr, "What goes into the model and the parameter file", "", ""},
    {"dz", "", "", "depth step; default: a quarter of the shortest vertical wavelength"},
    {"zmax", "", "", "depth; default: the model's, or as deep as the record reaches"},
    {"error", "10", "percent", "largest expected error of the start velocity: decides the offsets of the image"},
    {"nh", "", "", "subsurface offsets; default: to error * zmax on each side"},
    {"dh", "", "", "their step; default: dx, or a multiple within a quarter of a wavelength"},
    {"dxk", "", "",
     "lateral step of the spline knots; default: the longest wavelength of the strongest frequency; 0: none"},
    {"dzk", "", "", "depth step of the knots; default: dxk; 0: no splines"},
    {"bound", "", "percent", "bounds around the start model; default: one and a half times error; 0: none"},
    {"firststep", "0.03", "", "morvane's firststep"},
    {"niter", "18", "", "iterations, at most"},
    {"settings", "recommended", "", "recommended; plain: differential semblance alone, on one-reference phase shifts"},
};

class Settings {
    qas::Session& session_;

public:
    explicit Settings(qas::Session& session) : session_(session) {}

    std::string text(const char* key, const std::string& otherwise) {
        const std::optional<std::string> value = session_.getch<std::string>(key);
        if (value && value->empty()) qaserr("%s= needs a value\n", key);
        return value.value_or(otherwise);
    }
    std::string one_of(const char* key, const std::string& otherwise, std::initializer_list<const char*> permitted) {
        const std::string value = text(key, otherwise);
        std::string list;
        for (const char* word : permitted) {
            if (value == word) return value;
            list += std::string(list.empty() ? "" : ", ") + word;
        }
        if (value == otherwise) return value;
        qaserr("%s=%s is unknown; permitted are %s\n", key, value.c_str(), list.c_str());
    }
    double number(const char* key, const std::string& word) {
        char* end = nullptr;
        const double value = std::strtod(word.c_str(), &end);
        if (word.empty() || *end != '\0' || !std::isfinite(value)) qaserr("%s=%s is not a number\n", key, word.c_str());
        return value;
    }
    double real(const char* key, double otherwise, double low, double high) {
        const std::optional<std::string> word = session_.getch<std::string>(key);
        if (!word) return otherwise;
        const double value = number(key, *word);
        if (value < low || value > high)
            qaserr("%s=%s is outside the permitted range %g to %g\n", key, word->c_str(), low, high);
        return value;
    }
    int whole(const char* key, int otherwise, int low, int high) {
        const double value = real(key, otherwise, low, high);
        if (value != std::floor(value)) qaserr("%s=%g is not a whole number\n", key, value);
        return static_cast<int>(value);
    }
    bool logical(const char* key, bool otherwise) {
        const std::string word = text(key, otherwise ? "y" : "n");
        if (std::string("yY1nN0").find(word[0]) == word.npos) qaserr("%s=%s is neither y nor n\n", key, word.c_str());
        return std::string("yY1").find(word[0]) != word.npos;
    }
    std::vector<std::string> words(const char* key) {
        std::vector<std::string> parts;
        const std::string all = text(key, "");
        for (std::size_t start = 0; start < all.size();) {
            const std::size_t end = std::min(all.find(',', start), all.size());
            if (end > start) parts.push_back(all.substr(start, end - start));
            start = end + 1;
        }
        return parts;
    }
};

void read_segy_options(Settings& s, PrepareOptions& o) {
    o.segy = s.words("segy");
    if (o.segy.empty()) qaserr("segy= is needed: the SEG-Y files, parted by commas; --help lists all parameters\n");
    SegyOptions& r = o.reading;
    r.endian = s.one_of("endian", "", {"big", "little"});
    r.format = s.whole("sample_format", 0, 1, 8);
    r.dt = s.real("dt", 0, tiny, huge);
    r.truncated = s.logical("truncated", false);
    const std::pair<const char*, int*> words[] = {{"source_x_word", &r.words.source_x},
                                                  {"source_y_word", &r.words.source_y},
                                                  {"group_x_word", &r.words.group_x},
                                                  {"group_y_word", &r.words.group_y},
                                                  {"coordinate_scalar_word", &r.words.coordinate_scalar},
                                                  {"group_elevation_word", &r.words.group_elevation},
                                                  {"source_depth_word", &r.words.source_depth},
                                                  {"elevation_scalar_word", &r.words.elevation_scalar},
                                                  {"delay_word", &r.words.delay},
                                                  {"trace_id_word", &r.words.trace_id}};
    for (const auto& [key, word] : words) *word = s.whole(key, *word, 1, 240);
    check_words(r.words);
    o.length_name = s.one_of("length_unit", "", {"m", "km", "ft"});
    o.segy_unit = s.one_of("segy_unit", "", {"m", "km", "ft"});
}

void read_grid_options(Settings& s, PrepareOptions& o) {
    for (const std::string& word : s.words("line")) o.line.push_back(s.number("line", word));
    if (!o.line.empty() && o.line.size() != 4)
        qaserr("line= has %zu values; permitted are the four of two points, x0,y0,x1,y1\n", o.line.size());
    GridOptions& g = o.grid;
    o.max_distance = s.real("max_distance", 0, tiny, huge);
    g.dx = s.real("dx", 0, tiny, huge);
    const std::string areal = s.one_of("areal", "", {"y", "n", "yes", "no"});
    g.layout = areal.empty() ? Layout::choose : areal[0] == 'y' ? Layout::whole_line : Layout::per_shot;
    g.shot_tolerance = s.real("shot_tolerance", 0, tiny, huge);
    g.least_offset = s.real("min_offset", 0, 0, huge);
    g.most_offset = s.real("max_offset", 1e30, tiny, 1e30);
    g.taper = s.whole("taper", 20, 0, 100000);
    g.pad = s.whole("padtraces", -1, 0, 100000);
}

void read_data_options(Settings& s, PrepareOptions& o) {
    o.field = s.one_of("data", "field", {"field", "2d"}) == "field";
    o.mute = s.text("mute", "auto");
    o.mute_velocity = s.real("mute_velocity", 0, tiny, huge);
    o.mute_intercept = s.real("mute_intercept", 0, -huge, huge);
    o.mute_taper = s.real("mute_taper", -1, 0, huge);
    if (o.mute == "linear" && o.mute_velocity == 0) qaserr("mute=linear needs mute_velocity=\n");
    o.tmax = s.real("tmax", 0, tiny, huge);
    o.end_taper = s.real("end_taper", -1, 0, huge);
    o.gain = s.real("gain", 0, -10, 10);
    o.fmin = s.real("fmin", 0, tiny, huge);
    o.fmax = s.real("fmax", 0, tiny, huge);
    o.df = s.real("df", 0, tiny, huge);
    o.band_taper = s.real("band_taper", -1, 0, huge);
    o.whiten = s.real("whiten", 0, 0, 1);
    o.scale = s.one_of("scale", "rms", {"rms", "wavelet", "none"});

    o.source = s.text("source", "zero");
    o.fpeak = s.real("fpeak", 0, tiny, huge);
    if (o.source == "ricker" && o.fpeak == 0) qaserr("source=ricker needs its peak frequency, fpeak=\n");
    o.source_time = s.real("source_time", 0, -huge, huge);
    o.wavelet_dt = s.real("wavelet_dt", 0, tiny, huge);
    o.source_length = s.real("source_length", 0, tiny, huge);
    o.rotate = s.real("rotate", 0, -360, 360);
}

void read_model_options(Settings& s, PrepareOptions& o) {
    VelocityOptions& v = o.velocity;
    v.file = s.text("velocity", "");
    v.v0 = s.real("v0", 0, tiny, huge);
    v.gradient = s.real("gradient", 0, 0, huge);
    if (!v.file.empty() && v.v0 > 0) qaserr("velocity=%s and v0=%g: give one of them\n", v.file.c_str(), v.v0);
    if (v.file.empty() && v.v0 == 0) qaserr("a start model is needed: velocity=FILE, or v0= and gradient=\n");
    v.unit = s.text("velocity_unit", "");
    if (!v.unit.empty()) velocity_unit(v.unit);
    v.dx = s.real("velocity_dx", 0, tiny, huge);
    v.dz = s.real("velocity_dz", 0, tiny, huge);
    v.x0 = s.real("velocity_x0", 0, -huge, huge);
    v.z0 = s.real("velocity_z0", 0, -huge, huge);
    v.shift = s.real("velocity_shift", 0, -huge, huge);
    o.smooth = s.real("velocity_smooth", 0, 0, huge);
    o.dz = s.real("dz", 0, tiny, huge);
    o.zmax = s.real("zmax", 0, tiny, huge);
    o.error = s.real("error", 10, 0.1, 100);
    o.nh = s.whole("nh", 0, 1, 100000);
    o.dh = s.real("dh", 0, tiny, huge);
    o.dxk = s.real("dxk", -1, 0, huge);
    o.dzk = s.real("dzk", -1, 0, huge);
    o.bound = s.real("bound", std::min(1.5 * o.error, 99.0), 0, 99);
    o.first_step = s.real("firststep", 0.03, 1e-6, 0.999);
    o.niter = s.whole("niter", 18, 0, 100000);
    o.plain = s.one_of("settings", "recommended", {"recommended", "plain"}) == "plain";
    o.prefix = s.text("prefix", "");
    o.overwrite = s.logical("overwrite", false);
}

}  // namespace

qas::KeyTable prepare_keys() {
    std::vector<qas::KeyGroup> groups;
    for (const Option& option : table) {
        if (!option.key)
            groups.push_back({option.standard, {}});
        else
            groups.back().keys.push_back(
                {option.key, qas::KeyType::text, option.unit, option.standard, "", option.what});
    }
    return qas::KeyTable(std::move(groups));
}

std::string prepare_help() {
    return "morvane_prepare: from SEG-Y and a velocity model to what morvane reads: rec, sou, vel, a parameter file that\n"
           "runs as it stands, and a report. Parameters are name=value words, or par=FILE for a file of them.\n" +
           prepare_keys().help() +
           "\nLengths are in length_unit. Example:\n"
           "  morvane_prepare segy=line.sgy v0=1500 gradient=0.6 zmax=3000 prefix=run/ && morvane "
           "par=run/morvane.par < /dev/null\n";
}

PrepareOptions read_options(qas::Session& session) {
    Settings settings(session);
    PrepareOptions options;
    read_segy_options(settings, options);
    read_grid_options(settings, options);
    read_data_options(settings, options);
    read_model_options(settings, options);
    return options;
}

}  // namespace morvane::prepare
