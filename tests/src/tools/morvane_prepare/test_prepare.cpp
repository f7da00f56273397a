// From SEG-Y to datasets in one process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "src/tools/morvane_prepare/options.h"
#include "src/tools/morvane_prepare/prepare.h"
#include "src/tools/morvane_prepare/source.h"
#include "src/tools/morvane_synth/synthesise.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"
#include "tests/src/tools/morvane_prepare/segy_writer.h"

using namespace morvane;

using testing::HasSubstr;

namespace {

constexpr double pi = std::numbers::pi, dt = 0.004, delay = 0.04;
constexpr int nt = 100, nf = 5;

double frequency(int k) {
    return 10.0 + 2.5 * k;
}

/// Each trace of these surveys is one spike, whose time and size tell source and group apart.
struct Place {
    double source, group;
    double size() const { return 1 + 0.001 * source + 0.0001 * group; }
    int sample() const { return 15 + static_cast<int>(std::abs(group - source) / 12.5) % 60; }
    double time() const { return delay + sample() * dt; }
    std::complex<double> spectrum(int k) const { return std::polar(dt * size(), 2 * pi * frequency(k) * time()); }
};

SegyTrace trace_at(const Place& p, double degrees = 0) {
    const double c = 100 * std::cos(degrees * pi / 180), s = 100 * std::sin(degrees * pi / 180);
    const auto whole = [](double value) { return static_cast<int>(std::lround(value)); };
    SegyTrace trace{{{73, whole(p.source * c)},
                     {77, whole(p.source * s)},
                     {81, whole(p.group * c)},
                     {85, whole(p.group * s)},
                     {71, -100},
                     {109, whole(1000 * delay)},
                     {29, 1}},
                    std::vector<float>(nt)};
    trace.samples[static_cast<std::size_t>(p.sample())] = static_cast<float>(p.size());
    return trace;
}

struct Prepared {
    files::TempDir dir;
    std::string error;

    void run(std::vector<std::string> words) {
        words.insert(words.begin(), "morvane_prepare");
        words.push_back("prefix=" + (dir / "run/"));
        qas::Session session(words);
        error = refusal([&] {
            qas::refuse_unread(session, prepare::prepare_keys());
            prepare::prepare_survey(session);
        });
    }
    std::string segy(const std::string& name, const std::vector<SegyTrace>& traces, const SegyWriter& writer = {}) {
        files::write_text(dir / name, writer.bytes(traces));
        return dir / name;
    }
    double value(const std::string& file, const std::string& key) const {
        return std::stod(files::header_value(files::read_text(dir / ("run/" + file)), key));
    }
    std::vector<cf> samples(const std::string& file) const {
        const std::vector<float> parts = files::read_dataset(dir / ("run/" + file));
        std::vector<cf> all;
        for (std::size_t i = 0; i + 1 < parts.size(); i += 2) all.push_back(cf(parts[i], parts[i + 1]));
        return all;
    }
    std::string text(const std::string& file) const { return files::read_text(dir / ("run/" + file)); }
};

/// Data as they are: what rec holds is the plain transform.
std::vector<std::string> plain(std::vector<std::string> more) {
    more.insert(more.begin(),
                {"v0=2000", "mute=none", "data=2d", "end_taper=0", "band_taper=0", "scale=none", "fmin=10", "fmax=20",
                 "df=2.5", "source=ricker", "fpeak=15", "zmax=200", "taper=4", "nh=3"});
    return more;
}

/// rec holds each place's trace on its node, and zeros elsewhere.
void expect_places(const Prepared& p, const std::vector<Place>& places, double start = 0) {
    const int n1 = static_cast<int>(p.value("rec.H", "n1")), n4 = static_cast<int>(p.value("rec.H", "n4"));
    const double d1 = p.value("rec.H", "d1"), o1 = p.value("rec.H", "o1"), d4 = p.value("rec.H", "d4"),
                 o4 = p.value("rec.H", "o4");
    const bool areal = p.text("morvane.par").find("\nareal=y") != std::string::npos;
    std::vector<cf> expected(static_cast<std::size_t>(n1 * nf * n4));
    std::vector<double> sources;
    for (const Place& place : places) sources.push_back(place.source);
    std::ranges::sort(sources);
    sources.erase(std::unique(sources.begin(), sources.end()), sources.end());
    for (const Place& place : places) {
        const double from = areal ? start : place.source;
        const long i = std::lround((place.group - from - (areal ? o1 - start + start : o1)) / d1);
        const long shot = areal ? std::ranges::lower_bound(sources, place.source) - sources.begin()
                                : std::lround((place.source - o4) / d4);
        for (int k = 0; k < nf; ++k)
            expected.at(static_cast<std::size_t>(i + n1 * (k + nf * shot))) = cf(place.spectrum(k));
    }
    const std::vector<cf> rec = p.samples("rec.H");
    ASSERT_EQ(rec.size(), expected.size());
    for (std::size_t i = 0; i < rec.size(); ++i) ASSERT_LT(std::abs(rec[i] - expected[i]), 1e-6) << i;
}

std::vector<Place> marine() {
    std::vector<Place> places;
    for (int s = 0; s < 6; ++s)
        for (int g = 0; g < 12; ++g) places.push_back({1000 + 25.0 * s, 1000 + 25.0 * s - 50 - 12.5 * g});
    return places;
}

}  // namespace

// A streamer with a near-offset gap, its traces in any order in two files, with traces that are none.
TEST(Prepare, MarineInAnyOrder) {
    Prepared p;
    std::vector<Place> places = marine();
    std::vector<SegyTrace> traces;
    for (const Place& place : places) traces.push_back(trace_at(place));
    traces.push_back(trace_at(places[3]));   // a duplicate is stacked
    traces.push_back(trace_at(places[70]));  // dead, silent, of another kind
    traces.back().words[29] = 2;
    traces.push_back(trace_at(places[71]));
    traces.back().samples.assign(nt, 0.0f);
    traces.push_back(trace_at(places[71]));
    traces.back().words[29] = 4;
    std::mt19937 random(1);
    std::shuffle(traces.begin(), traces.end(), random);
    const std::vector<SegyTrace> some(traces.begin(), traces.begin() + 30), others(traces.begin() + 30, traces.end());
    SegyWriter ibm;
    ibm.format = 1;
    p.run(plain({"segy=" + p.segy("a.sgy", some, ibm) + "," + p.segy("b.sgy", others)}));
    ASSERT_EQ(p.error, "accepted");
    expect_places(p, places);
    for (const auto& [key, expected] : {std::pair{"n1", 16.0},
                                        {"d1", 12.5},
                                        {"o1", -187.5},
                                        {"n4", 6.0},
                                        {"d4", 25.0},
                                        {"o4", 1000.0},
                                        {"n3", 5.0},
                                        {"o3", 10.0},
                                        {"d3", 2.5}})
        EXPECT_EQ(p.value("rec.H", key), expected) << key;
    const std::string report = p.text("prepare.txt");
    EXPECT_THAT(report, HasSubstr("1 marked dead, 1 zero throughout, 1 not seismic"));
    EXPECT_THAT(report, HasSubstr("72 of 96 traces hold data, the rest is zero; 1 were stacked"));
    const std::vector<cf> sou = p.samples("sou.H");
    for (int k = 0; k < nf; ++k) {
        const Axis freqs{nf, 2.5f, 10.0f, {}};
        const std::complex<double> down(0, 2000 / (4 * pi * frequency(k) * 12.5));
        EXPECT_LT(std::abs(std::complex<double>(sou[k]) - prepare::ricker_spectrum(15, freqs)[k] * down), 1e-6);
    }
    // what exists is kept unless asked for
    Prepared again;
    const std::string old = p.text("morvane.par");
    p.run(plain({"segy=" + (p.dir / "a.sgy")}));
    EXPECT_THAT(p.error, HasSubstr("overwrite=y"));
    EXPECT_EQ(p.text("morvane.par"), old);
}

TEST(Prepare, FixedSpreadAndIrregularShotsTakeTheWholeLine) {
    for (const bool regular : {true, false}) {
        SCOPED_TRACE(regular);
        std::vector<Place> places;
        std::vector<SegyTrace> traces;
        for (const double shot :
             regular ? std::vector<double>{20, 40, 60, 80, 100, 120} : std::vector{30., 40., 110., 120.})
            for (int g = 0; g < 16; ++g) places.push_back({shot, 10.0 * g});
        for (const Place& place : places) traces.push_back(trace_at(place));
        Prepared p, refused;
        p.run(plain({"segy=" + p.segy("a.sgy", traces)}));
        ASSERT_EQ(p.error, "accepted");
        EXPECT_THAT(p.text("morvane.par"), HasSubstr("\nareal=y"));
        expect_places(p, places);
        EXPECT_EQ(p.value("sou.H", "n1"), 16);
        EXPECT_EQ(p.value("sou.H", "n4"), regular ? 6 : 4);
        const std::vector<cf> sou = p.samples("sou.H");
        const int at = regular ? 2 : 3;  // the first shot's node: the field is strongest there
        for (int i = 0; i < 16; ++i) EXPECT_LE(std::abs(sou[i]), std::abs(sou[at]));
        refused.run(plain({"segy=" + refused.segy("a.sgy", traces), "areal=n"}));
        EXPECT_THAT(refused.error, HasSubstr(regular ? "accepted" : "shot_tolerance=5"));
    }
}

// A line at 30 degrees in feet, its positions given by two points.
TEST(Prepare, SlantedLineInFeet) {
    std::vector<SegyTrace> traces;
    for (const Place& place : marine()) traces.push_back(trace_at(place, 30));
    Prepared p, far;
    SegyWriter feet;
    feet.measurement = 2;
    const std::string line = "line=0,0,8660.254,5000", segy = "segy=" + p.segy("a.sgy", traces, feet);
    p.run(plain({segy, line, "v0=6000", "gradient=0.3"}));
    ASSERT_EQ(p.error, "accepted");
    expect_places(p, marine());
    EXPECT_THAT(p.text("prepare.txt"), HasSubstr("6000 ft/s"));
    EXPECT_NEAR(p.value("vel.H", "o1"), 1000 - 187.5 - 12.5 * (4 + 12), 1e-6);
    const std::vector<float> vel = files::read_dataset(p.dir / "run/vel.H");
    EXPECT_NEAR(1 / vel.back(), 6000 + 0.3 * p.value("vel.H", "d3") * (p.value("vel.H", "n3") - 1), 0.01);
    traces[7].words[85] += 60000;  // a group 600 ft to the side
    far.run(plain({"segy=" + far.segy("a.sgy", traces, feet), line, "max_distance=100"}));
    EXPECT_THAT(far.error, HasSubstr("a.sgy, trace 8: its group"));
    EXPECT_FALSE(std::filesystem::exists(far.dir / "run/rec.H"));
}

// Half of the step from a point to a line source is in time, half in frequency: sqrt(t / f), 45 degrees; the source's
// time is counted off first, and put on the source.
TEST(Prepare, PointSourcesAndSourceTime) {
    std::vector<SegyTrace> traces;
    for (const Place& place : marine()) traces.push_back(trace_at(place));
    Prepared p;
    p.run(plain({"segy=" + p.segy("a.sgy", traces), "data=field", "source_time=0.02"}));
    ASSERT_EQ(p.error, "accepted");
    const std::vector<cf> rec = p.samples("rec.H"), sou = p.samples("sou.H");
    const Place place = marine()[0];  // offset -50: trace 11 of 16
    for (int k = 0; k < nf; ++k) {
        const std::complex<double> expected =
            place.spectrum(k) * std::polar(std::sqrt((place.time() - 0.02) / frequency(k)), pi / 4);
        EXPECT_LT(std::abs(std::complex<double>(rec[11 + 16 * k]) - expected), 1e-6);
        EXPECT_NEAR(std::arg(std::complex<double>(sou[k]) * std::polar(1.0, -pi / 2 - 2 * pi * frequency(k) * 0.02)), 0,
                    1e-5);
    }
}

TEST(Prepare, RefusesByName) {
    struct Case {
        std::vector<std::string> words;
        const char* says;
    };
    std::vector<SegyTrace> traces;
    for (const Place& place : marine()) traces.push_back(trace_at(place));
    for (const Case& c :
         {Case{{"df=3"}, "permitted is a df up to 2.5253"}, Case{{"fmax=126"}, "fmax=126 is above"},
          Case{{"fmin=30"}, "is empty"}, Case{{"tmax=0.01"}, "tmax=0.01 ends before"},
          Case{{"min_offset=1000"}, "none within the offsets"}, Case{{"mute=linear"}, "needs mute_velocity="},
          Case{{"mute=/nonexistent"}, "mute=/nonexistent cannot be read"},
          Case{{"source=/nonexistent"}, "source=/nonexistent cannot be read"},
          Case{{"source_x_word=74"}, "source_x_word=74 is not"}, Case{{"line=1,2,3"}, "has 3 values"},
          Case{{"velocity=x"}, "give one of them"}, Case{{"length_unit=mile"}, "length_unit=mile is unknown"},
          Case{{"v0=2"}, "velocity_unit=km/s"}, Case{{"dx=ten"}, "dx=ten is not a number"},
          Case{{"segi=x"}, "segi=x is not read, there is no such key; did you mean segy?"},
          Case{{"group_x_word=73"}, "no shot has two groups"}}) {
        SCOPED_TRACE(c.words[0]);
        Prepared p;
        std::vector<std::string> words = plain({"segy=" + p.segy("a.sgy", traces)});
        words.insert(words.end(), c.words.begin(), c.words.end());
        p.run(words);
        EXPECT_THAT(p.error, HasSubstr(c.says));
        EXPECT_FALSE(std::filesystem::exists(p.dir / "run/morvane.par"));
    }
    Prepared p;
    traces[50].samples[3] = NAN;
    p.run(plain({"segy=" + p.segy("a.sgy", traces), "tmax=0.43", "df=2"}));
    EXPECT_THAT(p.error, HasSubstr("trace 51, sample 4"));
    EXPECT_FALSE(std::filesystem::exists(p.dir / "run"));
}

// A fault that is met late: the data cannot be written where a folder stands. Nothing half-made remains.
TEST(Prepare, WhatIsIncompleteIsRemoved) {
    std::vector<SegyTrace> traces;
    for (const Place& place : marine()) traces.push_back(trace_at(place));
    Prepared p;
    std::filesystem::create_directories(p.dir / "run/rec.H@/kept");
    p.run(plain({"segy=" + p.segy("a.sgy", traces), "overwrite=y"}));
    EXPECT_NE(p.error, "accepted");
    for (const char* file : {"vel.H", "vel.H@", "sou.H", "sou.H@", "rec.H", "morvane.par", "prepare.txt"})
        EXPECT_FALSE(std::filesystem::exists(p.dir / ("run/" + std::string(file)))) << file;
    EXPECT_TRUE(std::filesystem::exists(p.dir / "run/rec.H@/kept"));
}

// Shots modelled in time, through SEG-Y: what morvane_synth itself writes by frequency.
TEST(Prepare, RoundTripOfModelledShots) {
    for (const bool areal : {false, true}) {
        SCOPED_TRACE(areal);
        Prepared p;
        std::vector<std::string> words{"morvane_synth", "datapath=" + (p.dir / ""), "parfile=" + (p.dir / "par")};
        for (const char* tag : {"vel", "true", "full", "rec", "sou", "traces", "wavelet"})
            words.push_back(std::string(tag) + "=" + (p.dir / tag));
        for (const char* word :
             {"nshot=3", "oshot=200", "dshot=40", "nrec=30", "zmax=200", "nf=6", "of=8", "df=2", "tmax=0.35", "taper=4",
              "padtraces=2", "zref=120", "dv=0", "v0=2000", "margin=60", "absorb=10", "whiten=0.2", "bandtaper=4"})
            words.push_back(word);
        words.push_back(areal ? "areal=y" : "areal=n");
        qas::Session synth(words);
        synthesise(synth);
        const std::vector<float> u = files::read_dataset(p.dir / "traces");
        const std::string header = files::read_text(p.dir / "traces");
        const int n = std::stoi(files::header_value(header, "n1")), traces = areal ? 38 : 30;
        SegyWriter writer;
        writer.micro = 5000;
        std::vector<SegyTrace> segy;
        for (int s = 0; s < 3; ++s)
            for (int g = 0; g < traces; ++g) {
                const int source = 200 + 40 * s, group = (areal ? 200 : source) - 150 + 10 * g;
                const auto first = u.begin() + std::ptrdiff_t{n} * (g + traces * s);
                segy.push_back({{{73, source}, {81, group}, {29, 1}}, {first, first + n}});
            }
        p.run({"segy=" + p.segy("line.sgy", segy, writer), "velocity=" + (p.dir / "full"), "velocity_unit=s/m",
               "data=2d", "mute=none", "end_taper=0", "source=" + (p.dir / "wavelet"), "rotate=-90", "whiten=0.2",
               "band_taper=4", "scale=wavelet", "fmin=8", "fmax=18", "df=2", "zmax=200", "dz=10", "taper=4",
               "padtraces=2", areal ? "areal=y" : "areal=n"});
        ASSERT_EQ(p.error, "accepted");
        for (const auto& [ours, theirs] :
             {std::pair{"run/rec.H", "rec"}, {"run/sou.H", "sou"}, {"run/vel.H", "full"}}) {
            const std::vector<float> a = files::read_dataset(p.dir / ours), b = files::read_dataset(p.dir / theirs);
            ASSERT_EQ(a.size(), b.size()) << theirs;
            double difference = 0, size = 0;
            for (std::size_t i = 0; i < a.size(); ++i) {
                difference += std::pow(static_cast<double>(a[i]) - b[i], 2);
                size += std::pow(b[i], 2);
            }
            EXPECT_LT(difference, 1e-8 * size) << theirs;
        }
    }
}

TEST(Prepare, HelpListsWhatIsRead) {
    const std::string help = prepare::prepare_help();
    for (const char* key : {"segy", "velocity", "line", "mute", "df", "source", "prefix", "dz", "niter"})
        EXPECT_THAT(help, HasSubstr("\n  " + std::string(key) + "="));
}
