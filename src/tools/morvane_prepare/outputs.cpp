#include "src/tools/morvane_prepare/outputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <tuple>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/dataset_output.h"
#include "src/tools/morvane_synth/earth_model.h"

namespace morvane::prepare {
namespace {

namespace fs = std::filesystem;
using qas::qaserr;

constexpr const char* files[] = {"rec.H", "sou.H", "vel.H", "morvane.par", "prepare.txt"};
constexpr int batch = 256, group = 16;  // traces read at a time; transformed together

std::vector<std::string> inputs_of(const PrepareOptions& o) {
    std::vector<std::string> inputs(o.segy);
    for (const std::string& name : {o.velocity.file, o.source, o.mute})
        if (!name.empty()) inputs.push_back(name);
    return inputs;
}

HeaderAxis<double> frequencies(const Plan& plan) {
    return {plan.freq.n, static_cast<double>(plan.freq.d), static_cast<double>(plan.freq.o)};
}

Acquisition source_acquisition(const PrepareOptions& o, const Plan& plan) {
    Acquisition a;
    a.freq = plan.freq;
    a.rotate = static_cast<float>(o.rotate);
    return a;
}

/// A panel of rec as it fills.
struct Panel {
    Array<cf, 2> sum;  // (traces, frequencies)
    std::vector<int> count;
};

/// Traces read together, conditioned and transformed.
struct Batch {
    Array<float, 2> samples;
    Array<cf, 2> spectra;
    std::vector<std::ptrdiff_t> bin;
    std::vector<SampleTrace> heads;
};

void transform(const Plan& plan, const FourierSum& sum, double dt, Batch& b) {
    const int n = static_cast<int>(b.heads.size());
#pragma omp parallel for schedule(dynamic)
    for (int first = 0; first < n; first += group) {
        View<float, 2> u = b.samples.view();
        View<cf, 2> out = b.spectra.view();
        u.p += first * u.n[0];
        out.p += first * out.n[0];
        u.n[1] = out.n[1] = std::min(group, n - first);
        for (std::ptrdiff_t i = 0; i < u.n[1]; ++i) {
            const SampleTrace& head = b.heads[static_cast<std::size_t>(first + i)];
            plan.conditioning.apply(u.slice(i).flat(), head.t0, dt, head.offset);
        }
        sum.of(u, out);
    }
}

void write_data_header(qas::Session& session, const Plan& plan) {
    const SurveyGrid& g = plan.grid;
    write_header<double>(
        session, "rec",
        {{{g.traces, g.dx, (g.areal ? g.origin : 0.0) + static_cast<double>(g.first_trace) * g.dx},
          {1, 1, 0},
          frequencies(plan),
          g.areal ? HeaderAxis<double>{static_cast<int>(g.node.size()), 1, 1}
                  : HeaderAxis<double>{static_cast<int>(g.node.size()), static_cast<double>(g.shot_step) * g.dx,
                                       g.origin + static_cast<double>(g.node[0]) * g.dx}}},
        8);
}

/// Stretches of traces in the order of the panels that they belong to, and of the files.
std::vector<Run> by_panel(const Scan& scan, const SurveyGrid& grid) {
    std::vector<Run> runs(scan.runs);
    std::ranges::sort(runs, {}, [&](const Run& run) {
        return std::tuple(grid.panel[static_cast<std::size_t>(run.shot)], run.file, run.first);
    });
    return runs;
}

/// Adds the transforms of a batch to their nodes, each turned by its recording delay, and empties the batch.
void stack(const Plan& plan, const FourierSum& sum, double dt, const std::vector<std::complex<double>>& factor,
           Batch& b, Panel& panel) {
    transform(plan, sum, dt, b);
    double at = 0;
    std::vector<std::complex<double>> turn = factor;
    for (std::size_t j = 0; j < b.heads.size(); ++j) {
        if (b.heads[j].t0 != at) {
            at = b.heads[j].t0;
            const std::vector<std::complex<double>> delay = delay_factor(plan.freq, at);
            for (std::size_t k = 0; k < turn.size(); ++k) turn[k] = factor[k] * delay[k];
        }
        ++panel.count[static_cast<std::size_t>(b.bin[j])];
        for (int k = 0; k < plan.freq.n; ++k)
            panel.sum(b.bin[j], k) +=
                b.spectra(k, static_cast<std::ptrdiff_t>(j)) * cf(turn[static_cast<std::size_t>(k)]);
    }
    b.heads.clear();
    b.bin.clear();
}

/// Divides what was summed on a node by its count.
void average(Panel& panel, Counts& counts) {
    for (std::ptrdiff_t i = 0; i < panel.sum.n()[0]; ++i) {
        const int n = panel.count[static_cast<std::size_t>(i)];
        if (n == 0) continue;
        ++counts.live;
        counts.stacked += n - 1;
        for (std::ptrdiff_t k = 0; k < panel.sum.n()[1]; ++k) {
            panel.sum(i, k) /= static_cast<float>(n);
            counts.rms += static_cast<double>(std::norm(panel.sum(i, k)));
        }
    }
}

}  // namespace

Outputs::Outputs(qas::Session& session, const PrepareOptions& o) : session_(session), prefix_(o.prefix) {
    const fs::path folder = fs::path(prefix_).parent_path();
    std::error_code error;
    if (prefix_.find('"') != prefix_.npos) qaserr("prefix=%s: a quote is not permitted\n", prefix_.c_str());
    for (const char* file : files)
        for (const std::string& tail : {std::string(file), std::string(file) + "@"}) {
            const std::string path = prefix_ + tail;
            if (!fs::exists(path)) continue;
            for (const std::string& input : inputs_of(o))
                if (fs::exists(input, error) && fs::equivalent(path, input, error))
                    qaserr("the output %s would overwrite the input %s; give another prefix=\n", path.c_str(),
                           input.c_str());
            if (!o.overwrite)
                qaserr("%s exists; overwrite=y replaces the files of this prefix, or give another prefix=\n",
                       path.c_str());
        }
    for (const char* file : files)
        if (const std::string tag(file, std::strcspn(file, ".")); std::string(file).ends_with(".H"))
            session.getch_add_string(tag + "=" + prefix_ + file);
    const char* home = std::getenv("HOME");
    const std::optional<std::string> given = session.getch<std::string>("datapath");
    if (given) {
        datapath_ = *given;
    } else if (!std::getenv("DATAPATH") && !fs::exists(".datapath") &&
               !(home && fs::exists(fs::path(home) / ".datapath"))) {
        datapath_ = (fs::absolute(folder.empty() ? fs::path(".") : folder).lexically_normal() / "").string();
        session.getch_add_string("datapath=" + datapath_);
    }
}

Outputs::~Outputs() {
    if (!begun_) return;
    for (const char* file : files) {
        std::error_code ignored;
        fs::remove(prefix_ + file, ignored);
        if (!datapath_.empty()) fs::remove(datapath_ + fs::path(prefix_ + file).filename().string() + "@", ignored);
    }
}

void Outputs::begin() {
    std::error_code error, ignored;
    const fs::path folder = fs::path(prefix_).parent_path();
    if (!folder.empty()) fs::create_directories(folder, error);
    if (error) qaserr("prefix=%s: its folder cannot be made: %s\n", prefix_.c_str(), error.message().c_str());
    begun_ = true;
    // a parameter file stands for a finished survey
    fs::remove(name("morvane.par"), ignored);
}

void Outputs::write(const std::string& tail, const std::string& text) {
    const std::string path = name(tail), part = path + ".part";
    const auto check = [&](bool good) {
        if (!good) qaserr("%s could not be written: %s\n", path.c_str(), std::strerror(errno));
    };
    const int file = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    check(file >= 0);
    const bool whole = ::write(file, text.data(), text.size()) == std::ssize(text) && ::fsync(file) == 0;
    check(::close(file) == 0 && whole);
    check(std::rename(part.c_str(), path.c_str()) == 0);
}

void write_velocity(qas::Session& session, const PrepareOptions& o, const Plan& plan, const Velocity& velocity) {
    Array<float, 2> model({plan.x.n, plan.z.n});
    for (int iz = 0; iz < plan.z.n; ++iz)
        for (int ix = 0; ix < plan.x.n; ++ix)
            model(ix, iz) = static_cast<float>(velocity.slowness(plan.origin + ix * plan.dx, iz * plan.dz));
    if (o.smooth > 0)
        model = smoothed(model.view(), static_cast<float>(plan.dx), static_cast<float>(plan.dz),
                         static_cast<float>(o.smooth));
    write_header<double>(session, "vel",
                         {{{plan.x.n, plan.dx, plan.origin}, {1, 1, 0}, {plan.z.n, plan.dz, 0}, {1, 1, 0}}}, 4);
    write_samples<float>(session, "vel", model.flat());
    session.auxclose("vel");
}

void write_source(qas::Session& session, const PrepareOptions& o, const Plan& plan, const Velocity& velocity) {
    std::vector<std::complex<double>> wavelet = plan.wavelet;
    const std::vector<std::complex<double>> later = delay_factor(plan.freq, o.source_time);
    for (std::size_t k = 0; k < wavelet.size(); ++k) wavelet[k] *= plan.source_scale * later[k];
    const Acquisition a = source_acquisition(o, plan);
    const HeaderAxis<double> none{1, 1, 0};
    const float dx = static_cast<float>(plan.dx);
    const SurveyGrid& g = plan.grid;
    if (!g.areal) {
        const std::vector<cf> source =
            source_function(a, wavelet, plan.factor, static_cast<float>(plan.surface_velocity), dx);
        write_header<double>(session, "sou", {{{1, plan.dx, 0}, none, frequencies(plan), none}}, 8);
        write_samples<cf>(session, "sou", source);
        session.auxclose("sou");
        return;
    }
    write_header<double>(session, "sou",
                         {{{g.traces, plan.dx, g.origin + static_cast<double>(g.first_trace) * g.dx},
                           none,
                           frequencies(plan),
                           {static_cast<int>(g.node.size()), 1, 1}}},
                         8);
    std::map<long, Array<cf, 2>> fields;  // by velocity in thousandths of its mean
    Array<cf, 2> panel({g.traces, plan.freq.n});
    for (const std::int64_t node : g.node) {
        const double v = 1 / velocity.slowness(g.origin + static_cast<double>(node) * g.dx, 0);
        const long key = std::lround(1000 * v / plan.surface_velocity);
        auto field = fields.find(key);
        if (field == fields.end()) {
            const auto of_key = static_cast<float>(static_cast<double>(key) / 1000 * plan.surface_velocity);
            if (fields.size() > 20) fields.clear();
            field = fields.emplace(key, source_field(a, wavelet, plan.factor, of_key, dx, g.traces)).first;
        }
        for (int k = 0; k < plan.freq.n; ++k)
            for (int i = 0; i < g.traces; ++i) panel(i, k) = field->second(std::abs(g.first_trace + i - node), k);
        write_samples<cf>(session, "sou", panel.flat());
    }
    session.auxclose("sou");
}

Counts write_data(qas::Session& session, const PrepareOptions& o, const Plan& plan, Survey& survey, const Scan& scan) {
    const SurveyGrid& g = plan.grid;
    const double dt = survey.dt();
    const FourierSum sum(plan.freq, plan.nt, dt);
    const std::vector<std::complex<double>> factor = data_factor(plan, o);
    const std::vector<Run> runs = by_panel(scan, g);
    write_data_header(session, plan);

    Counts counts;
    Panel panel{Array<cf, 2>({g.traces, plan.freq.n}), {}};
    Batch b{Array<float, 2>({plan.nt, batch}), Array<cf, 2>({plan.freq.n, batch}), {}, {}};
    std::vector<float> whole(static_cast<std::size_t>(survey.samples()));
    const auto add = [&] { stack(plan, sum, dt, factor, b, panel); };
    const auto take = [&](int file, int trace, const TraceHeader& head, std::int64_t start) {
        const double offset = head.offset();
        if (offset < o.grid.least_offset || offset > o.grid.most_offset) return;
        survey.file(file).samples(trace, whole);
        if (std::ranges::all_of(whole, [](float v) { return v == 0; })) {
            ++counts.silent;
            return;
        }
        ++counts.used;
        std::copy_n(whole.begin(), plan.nt, b.samples.view().slice(std::ssize(b.heads)).p);
        b.heads.push_back({offset, head.delay});
        b.bin.push_back(g.node_at(plan.line.position({head.group_x, head.group_y})) - start);
        if (b.heads.size() == batch) add();
    };

    std::size_t next = 0;
    for (std::size_t p = 0; p < g.node.size(); ++p) {
        panel.sum.fill(cf{});
        panel.count.assign(static_cast<std::size_t>(g.traces), 0);
        const std::int64_t start = g.first_trace + (g.areal ? 0 : g.node[p]);
        for (; next < runs.size() && g.panel[static_cast<std::size_t>(runs[next].shot)] == static_cast<int>(p);
             ++next) {
            const Run& run = runs[next];
            for_each_header(survey, run,
                            [&](const TraceHeader& head, int trace) { take(run.file, trace, head, start); });
        }
        add();
        average(panel, counts);
        write_samples<cf>(session, "rec", panel.sum.flat());
    }
    session.auxclose("rec");
    counts.rms = std::sqrt(counts.rms / (std::max<double>(1, static_cast<double>(counts.live)) * plan.freq.n));
    return counts;
}

}  // namespace morvane::prepare
