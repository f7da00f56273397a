#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "src/tools/morvane_synth/options.h"
#include "src/tools/morvane_synth/synthesise.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

using testing::HasSubstr;

class SynthFiles : public testing::Test {
protected:
    const files::TempDir dir;

    /// Words that put all files of a survey into the folder under names that start with `prefix`.
    std::vector<std::string> words(const std::string& prefix, std::vector<std::string> more) const {
        std::vector<std::string> all{"morvane_synth", "datapath=" + dir.text() + "/",
                                     "parfile=" + file(prefix + "par")};
        for (const char* tag : {"vel", "true", "rec", "sou", "full"}) all.push_back(tag + ("=" + file(prefix + tag)));
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    std::string file(const std::string& name) const { return dir / name; }

    /// A small survey with a body to one side, so that no two shots are alike.
    std::vector<std::string> small(const std::string& prefix, std::vector<std::string> more) const {
        more.insert(more.begin(), {"nshot=3", "oshot=200", "dshot=40", "nrec=30",     "zmax=200",  "nf=4",   "of=8",
                                   "df=4",    "tmax=0.35", "taper=4",  "padtraces=2", "zref=120",  "dv=300", "xc=230",
                                   "zc=100",  "wx=40",     "wz=40",    "margin=60",   "absorb=10", "v0=2000"});
        return words(prefix, more);
    }
    static void run(const std::vector<std::string>& argv) {
        qas::Session session(argv);
        synthesise(session);
    }
    std::string refusal(const std::vector<std::string>& argv) const {
        return ::refusal([&] {
            const qas::KeyTable keys = synth_keys();
            qas::Session session(argv);
            session.declare(keys);
            qas::refuse_unread(session, keys);
            synthesise(session);
        });
    }
    struct Axes {
        int n[4];
        float d[4], o[4];
        int esize;
    };
    Axes axes(const std::string& name) const {
        qas::Session session({"reader", "data=" + file(name)});
        Axes a{};
        for (int k = 0; k < 4; ++k) {
            const std::string number = std::to_string(k + 1);
            a.n[k] = session.from_aux<int>("data", "n" + number);
            a.d[k] = session.from_aux<float>("data", "d" + number);
            a.o[k] = session.from_aux<float>("data", "o" + number);
        }
        a.esize = session.from_aux<int>("data", "esize");
        return a;
    }
    template <class T>
    std::vector<T> samples(const std::string& name) const {
        const Axes a = axes(name);
        std::vector<T> values(static_cast<std::size_t>(a.n[0]) * a.n[1] * a.n[2] * a.n[3]);
        qas::Session session({"reader", "data=" + file(name)});
        EXPECT_EQ(session.sreed("data", values.data(), values.size() * sizeof(T)), values.size() * sizeof(T));
        float beyond = 0;
        EXPECT_EQ(session.sreed("data", &beyond, 4), 0) << name << " is longer than its axes";
        return values;
    }
    void expect_axes(const std::string& name, const Axes& e) const {
        const Axes a = axes(name);
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(a.n[k], e.n[k]) << name << " axis " << k + 1;
            EXPECT_EQ(a.d[k], e.d[k]) << name << " axis " << k + 1;
            EXPECT_EQ(a.o[k], e.o[k]) << name << " axis " << k + 1;
        }
        EXPECT_EQ(a.esize, e.esize) << name;
    }
};

double size_of(const std::vector<cf>& values) {
    double sum = 0;
    for (cf value : values) sum += std::norm(value);
    return std::sqrt(sum);
}

double distance(const std::vector<cf>& a, const std::vector<cf>& b) {
    std::vector<cf> difference(a);
    for (std::size_t i = 0; i < a.size(); ++i) difference[i] -= b[i];
    return size_of(difference);
}

}  // namespace

TEST_F(SynthFiles, HeadersOfBothLayouts) {
    run(small("a.", {"dips=" + file("a.dips")}));
    const int columns = 30 + 12 + 8;  // spread, margins of 6 traces, two shot steps of 4 columns
    expect_axes("a.vel", {{columns, 1, 21, 1}, {10, 1, 10, 1}, {200 - 150 - 60, 0, 0, 0}, 4});
    expect_axes("a.true", {{columns, 1, 21, 1}, {10, 1, 10, 1}, {-10, 0, 0, 0}, 4});
    expect_axes("a.dips", {{21, columns, 1, 1}, {10, 10, 1, 1}, {0, -10, 0, 0}, 4});
    expect_axes("a.rec", {{30, 1, 4, 3}, {10, 1, 4, 40}, {-150, 0, 8, 200}, 8});
    expect_axes("a.sou", {{1, 1, 4, 1}, {10, 1, 4, 1}, {0, 0, 8, 0}, 8});
    run(small("b.", {"areal=y"}));
    expect_axes("b.vel", {{columns, 1, 21, 1}, {10, 1, 10, 1}, {-10, 0, 0, 0}, 4});
    expect_axes("b.rec", {{38, 1, 4, 3}, {10, 1, 4, 40}, {50, 0, 8, 200}, 8});
    expect_axes("b.sou", {{38, 1, 4, 3}, {10, 1, 4, 40}, {50, 0, 8, 200}, 8});
}

// Each panel of the survey is the one-panel survey of its shot: an exchanged axis or a shifted model breaks this.
TEST_F(SynthFiles, ShotPanelsFollowTheShots) {
    run(small("all.", {}));
    const std::vector<cf> all = samples<cf>("all.rec");
    const std::size_t panel = 30 * 4;
    for (int is = 0; is < 3; ++is) {
        run(small("one.", {"nshot=1", "oshot=" + std::to_string(200 + 40 * is)}));
        const std::vector<cf> part(all.begin() + is * panel, all.begin() + (is + 1) * panel);
        const std::vector<cf> one = samples<cf>("one.rec");
        EXPECT_GT(size_of(one), 0.0);
        EXPECT_LT(distance(part, one), 1e-5 * size_of(one)) << is;
    }
}

// The whole-line field holds the moving spread where the spread was: trace j of shot s lies 4 s traces into the line.
TEST_F(SynthFiles, WholeLineFieldsHoldTheSpreads) {
    run(small("a.", {"margin=300"}));
    run(small("b.", {"margin=300", "areal=y"}));
    const std::vector<cf> a = samples<cf>("a.rec"), b = samples<cf>("b.rec");
    std::vector<cf> cut(a.size());
    for (int is = 0; is < 3; ++is)
        for (int f = 0; f < 4; ++f)
            for (int i = 0; i < 30; ++i) cut[i + 30 * (f + 4 * is)] = b[4 * is + i + 38 * (f + 4 * is)];
    EXPECT_LT(distance(a, cut), 5e-3 * size_of(a));
    const std::vector<cf> sou = samples<cf>("b.sou");
    for (int is = 0; is < 3; ++is) {  // the field is strongest and symmetric about the shot, 15 traces into its spread
        const cf* field = sou.data() + 38 * (3 + 4 * is);
        const int shot = 15 + 4 * is;
        for (int i = 1; i < 12; ++i) {
            EXPECT_GT(std::abs(field[shot]), std::abs(field[shot + i]));
            EXPECT_EQ(field[shot - i], field[shot + i]);
        }
    }
}

// exp(+i w t) of traces and wavelet in time: what rec and sou hold but for the wavelet's peak and its vertical part.
TEST_F(SynthFiles, TracesInTimeAreTheRecords) {
    run(small("t.", {"traces=" + file("t.traces"), "wavelet=" + file("t.wavelet"), "rotate=0", "direct=none", "dv=0"}));
    const Axes a = axes("t.traces");
    expect_axes("t.traces", {{a.n[0], 30, 3, 1}, {0.005f, 10, 40, 1}, {0, -150, 200, 0}, 4});
    const std::vector<cf> rec = samples<cf>("t.rec"), sou = samples<cf>("t.sou");
    const std::vector<float> traces = samples<float>("t.traces"), wavelet = samples<float>("t.wavelet");
    const auto transform = [&](const float* samples, int f) {
        std::complex<double> sum;
        for (int n = 0; n < a.n[0]; ++n)
            sum += double{samples[n]} * std::polar(1.0, 2 * std::numbers::pi * (8 + 4 * f) * n * double{a.d[0]});
        return sum * double{a.d[0]};
    };
    std::vector<cf> made;
    for (int is = 0; is < 3; ++is)
        for (int f = 0; f < 4; ++f) {
            const std::complex<double> down(0.0, 2000 / (4 * std::numbers::pi * (8 + 4 * f) * 10.0));
            const std::complex<double> factor = std::complex<double>(sou[f]) / (transform(wavelet.data(), f) * down);
            EXPECT_LT(std::abs(factor.imag()), 1e-4 * factor.real());
            for (int i = 0; i < 30; ++i) made.push_back(cf(factor * transform(&traces[a.n[0] * (i + 30 * is)], f)));
        }
    EXPECT_LT(distance(made, rec), 1e-5 * size_of(rec));
    EXPECT_THAT(refusal(small("t.", {"traces=t", "tracedt=0.007"})), HasSubstr("tracedt=0.007 does not carry"));
}

// With nothing to reflect the subtraction leaves exact zeros, from the shared reference run as from one per shot.
TEST_F(SynthFiles, WithoutReflectorsNothingIsRecorded) {
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{"strength=0"}, {"strength=0", "dv=0", "tilt=0"}}) {
        run(small("none.", more));
        for (cf value : samples<cf>("none.rec")) ASSERT_EQ(value, cf(0, 0));
    }
    run(small("none.", {"strength=0", "direct=none"}));
    EXPECT_GT(size_of(samples<cf>("none.rec")), 0.0);
}

TEST_F(SynthFiles, ModelFromADatasetIsCutShiftedAndContinued) {
    const int nx = 46,
              nz = 25;  // from x = 10: two columns of the survey's line are missing on the left, two on the right
    std::vector<float> model(nx * nz);
    for (int iz = 0; iz < nz; ++iz)
        for (int ix = 0; ix < nx; ++ix) model[ix + nx * iz] = 1.0f / (2000.0f + static_cast<float>(ix + 4 * iz));
    {
        qas::Session writer({"writer", "data=" + file("model"), "datapath=" + dir.text() + "/"});
        for (auto [key, value] : {std::pair{"n1", nx}, {"n2", 1}, {"n3", nz}, {"esize", 4}})
            writer.to_history(key, value, "data");
        for (auto [key, value] : {std::pair{"d1", 10.0f}, {"o1", 10.0f}, {"d3", 10.0f}, {"o3", 0.0f}})
            writer.to_history(key, value, "data");
        writer.srite("data", model.data(), model.size() * sizeof(float));
    }
    run(small("m.", {"model=" + file("model"), "smooth=0"}));
    const std::vector<float> full = samples<float>("m.full");
    for (auto [ix, from] : {std::pair{0, 0}, {1, 0}, {2, 0}, {3, 1}, {40, 38}, {47, 45}, {48, 45}, {49, 45}})
        for (int iz : {0, 7, 20}) EXPECT_EQ(full[ix + 50 * iz], model[from + nx * iz]) << ix;
    EXPECT_EQ(samples<float>("m.vel"), full);
    EXPECT_THAT(refusal(small("m.", {"model=" + file("model"), "dx=5"})), HasSubstr("dx=5 contradicts the step 10"));
    EXPECT_THAT(refusal(small("m.", {"model=" + file("model"), "zmax=500"})), HasSubstr("zmax=500 is deeper"));
    EXPECT_THAT(refusal(small("m.", {"model=" + file("model"), "oshot=205"})), HasSubstr("between the traces"));
    EXPECT_THAT(refusal(small("m.", {"model=" + file("nothing")})), HasSubstr("nothing"));
    model[100] = 0.0f;
    {
        qas::Session writer({"writer", "data=" + file("bad"), "datapath=" + dir.text() + "/"});
        for (auto [key, value] : {std::pair{"n1", nx}, {"n3", nz}}) writer.to_history(key, value, "data");
        for (auto [key, value] : {std::pair{"d1", 10.0f}, {"o1", 10.0f}, {"d3", 10.0f}})
            writer.to_history(key, value, "data");
        writer.srite("data", model.data(), model.size() * sizeof(float));
    }
    EXPECT_THAT(refusal(small("m.", {"model=" + file("bad")})), HasSubstr("column 9, row 3 is 0"));
}

TEST_F(SynthFiles, ParameterFileNamesWhatWasWritten) {
    run(small("p.", {"nh=7", "dxk=100", "dzk=50", "niter=3", "bound=10", "belowshots=y"}));
    qas::Session session({"morvane", "par=" + file("p.par")});
    EXPECT_EQ(session.getch<std::string>("rec"), file("p.rec"));
    EXPECT_EQ(session.getch<std::string>("vel"), file("p.vel"));
    EXPECT_EQ(session.getch<int>("nh"), 7);
    EXPECT_EQ(session.getch<int>("padtraces"), 2);
    EXPECT_EQ(session.getch<int>("traces_in_taper"), 4);
    EXPECT_EQ(session.getch<float>("zmax"), 200.0f);
    EXPECT_EQ(session.getch<bool>("areal"), false);
    EXPECT_EQ(session.getch<float>("p_lo"), 10.0f);
    EXPECT_EQ(session.getch<float>("fun_xmin"), 200.0f);
    EXPECT_EQ(session.getch<float>("fun_xmax"), 280.0f);
    // knots from one step before the first column (-10) to at least one after the last (480), and likewise in depth
    EXPECT_EQ(session.getch<float>("oxk"), -110.0f);
    EXPECT_EQ(session.getch<int>("nxk"), 8);
    EXPECT_EQ(session.getch<float>("ozk"), -50.0f);
    EXPECT_EQ(session.getch<int>("nzk"), 7);
    EXPECT_EQ(session.getch<float>("reg_x"), 100.0f);
    EXPECT_EQ(session.getch<float>("regularise"), 0.5f);
    run(small("h.", {"dzk=60", "hold=y", "regx=0", "regz=0"}));  // knots at 60, 120, 180 of 200 m
    qas::Session held({"morvane", "par=" + file("h.par")});
    EXPECT_EQ(held.getch<float>("ozk"), 60.0f);
    EXPECT_EQ(held.getch<int>("nzk"), 3);
    EXPECT_EQ(held.getch<float>("regularise"), std::nullopt);
}

TEST_F(SynthFiles, BadValuesAreRefusedByName) {
    struct Case {
        const char* word;
        const char* says;
    };
    for (const Case& c : {Case{"dx=0", "dx=0 is outside"},
                          Case{"dx=ten", "dx=ten is not a number"},
                          Case{"nrec=2.5", "not a whole number"},
                          Case{"nshots=3", "nshots=3 is not read, there is no such key; did you mean nshot?"},
                          Case{"areal", "\"areal\" is not read: a parameter is name=value; did you mean areal=...?"},
                          Case{"areal=maybe", "neither y nor n"},
                          Case{"dt=1", "not stable"},
                          Case{"df=100", "too coarse"},
                          Case{"direct=away", "direct=away is unknown"},
                          Case{"of=0", "of=0 is outside"},
                          Case{"dshot=45", "multiples of dx"},
                          Case{"orec=20", "no trace at the shot"},
                          Case{"orec=-145", "no trace at the shot"},
                          Case{"oshot=1234567", "six digits"},
                          Case{"zref=1,x", "zref=x is not a number"},
                          Case{"dip=1,2,3", "dip= has 3 values for 1"},
                          Case{"delay=0.001", "cuts the wavelet off"},
                          Case{"tmax=0.05", "ends before"},
                          Case{"bandtaper=7", "half of it, 6"},
                          Case{"margin=1e9", "a model of 2e+08 columns"},
                          Case{"nf=99999", "too coarse"},
                          Case{"dv=-2500", "must be positive"},
                          Case{"zmax=1", "2 rows"},
                          Case{"parfile=/nowhere/p", "parfile=/nowhere/p: cannot create this file"},
                          Case{"seed=1", "seed=1 is for model=random; model=lens has none"},
                          Case{"seed=-1", "seed=-1 is outside"},
                          Case{"smooth=nan", "not a number"}}) {
        SCOPED_TRACE(c.word);
        EXPECT_THAT(refusal(small("bad.", {c.word})), HasSubstr(c.says));
    }
    EXPECT_THAT(refusal(small("bad.", {"model=m", "dips=d"})), HasSubstr("not known"));
}
