#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lib/class/filters_mod.h"
#include "lib/class/geodip.h"
#include "lib/class/helix/polydiv.h"
#include "lib/class/ow_steer_parms.h"
#include "tests/dataset_files.h"
#include "tests/dense.h"
#include "tests/dot_test.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

using testing::HasSubstr;

constexpr int nx = 4, nz = 7;

struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

/// A run's session with a dip file in a directory of its own, and a standard output that goes nowhere.
struct DipRun {
    files::TempDir dir;
    File in{std::fopen("/dev/null", "r")}, out{std::tmpfile()};
    Axis z{nz, 5.0f, 100.0f, {}}, xm{nx, 10.0f, -20.0f, {}};
    std::vector<float> dips = wandering_dips();
    files::Dataset dipfile;
    std::vector<std::string> words{"test"};

    DipRun() {
        dipfile.axis(1, nz, "5", "100");
        dipfile.axis(2, nx, "10", "-20");
        words.push_back("dipfile=" + (dir / "dips"));
        words.push_back("datapath=" + dir.text() + "/");
    }
    static std::vector<float> wandering_dips() {
        std::vector<float> angle = random_vector<float>(nx * nz, 31);
        for (float& a : angle) a = std::clamp(25.0f * a, -60.0f, 60.0f);
        return angle;
    }
    std::unique_ptr<qas::Session> session(const std::vector<std::string>& more) {
        dipfile.samples = dips;
        dipfile.write(dir / "dips");
        std::vector<std::string> all = words;
        all.insert(all.end(), more.begin(), more.end());
        auto opened = std::make_unique<qas::Session>(all);
        opened->set_streams(in.get(), out.get(), out.get());
        return opened;
    }
};

const std::vector<std::string> usual{"steer_lags=4", "steer_triangle=y", "steer_factor=0.7", "epspoly=0.5",
                                     "steerniter=25"};

std::vector<std::string> with(std::vector<std::string> words, std::initializer_list<std::string> more) {
    words.insert(words.end(), more);
    return words;
}

/// (nx, nz), the midpoint fastest.
std::vector<double> gradient(double size) {
    std::vector<double> g = random_vector<double>(nx * nz, 17);
    for (double& v : g) v = static_cast<float>(v * size);
    return g;
}

struct Result {
    std::vector<double> g;
    std::string said;
};

Result filtered(qas::Session& session, DipRun& run, int frame, const std::vector<float>& pick, std::vector<double> g) {
    testing::internal::CaptureStderr();
    try {
        ow_geodip(session, run.z, run.xm, frame, pick, {g.data(), {nx, nz}}, true);
    } catch (...) {
        testing::internal::GetCapturedStderr();
        throw;
    }
    return {g, testing::internal::GetCapturedStderr()};
}

std::string message(DipRun& run, const std::vector<std::string>& words, const std::function<void(qas::Session&)>& act) {
    const auto session = run.session(words);
    return refusal([&] { act(*session); });
}

std::string filter_message(DipRun& run, const std::vector<std::string>& words,
                           const std::vector<double>& g = gradient(1), const std::vector<float>& pick = {}) {
    return message(run, words, [&](qas::Session& session) { filtered(session, run, 2, pick, g); });
}

/// The padded panel of a value for each column and depth, depth fastest.
std::vector<double> padded(int frame, const auto& value) {
    std::vector<double> panel;
    for (int ix = 0; ix < nx; ++ix)
        for (int row = -frame; row < nz + frame; ++row) panel.push_back(value(ix, std::clamp(row, 0, nz - 1)));
    return panel;
}

/// Polynomial division by the filter of the usual words as a matrix, its columns last.
Array<double, 2> division(const DipRun& run, int frame) {
    std::vector<float> angle;
    for (const double a :
         padded(frame, [&](int ix, int iz) { return run.dips[static_cast<std::size_t>(ix * nz + iz)]; }))
        angle.push_back(static_cast<float>(a));
    const Filter filt = new_steering({0, 0.7f, 0, 4, 1.25f, true}, {nz + 2 * frame, nx}, {1, 1}, angle);
    const auto n = std::ssize(angle);
    Array<double, 2> s({n, n});
    for (std::ptrdiff_t j = 0; j < n; ++j) {
        std::vector<float> unit(angle.size()), column(angle.size());
        unit[static_cast<std::size_t>(j)] = 1;
        polydiv_lop(filt, false, false, unit, column);
        std::ranges::copy(column, s.view().slice(j).p);
    }
    return s;
}

/// min |S m - slow0|^2 + eps^2 |m|^2 by the normal equations.
std::vector<double> dense_solution(const Array<double, 2>& s, const std::vector<double>& slow0, double eps) {
    const std::size_t n = slow0.size();
    DenseMatrix a(n, std::vector<double>(n));
    std::vector<double> right(n);
    const auto at = [&](std::size_t k, std::size_t i) { return s(static_cast<int>(k), static_cast<int>(i)); };
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t k = 0; k < n; ++k) {
            for (std::size_t j = 0; j < n; ++j) a[i][j] += at(k, i) * at(k, j);
            right[i] += at(k, i) * slow0[k];
        }
        a[i][i] += eps * eps;
    }
    return dense_solve(a, right);
}

double rms(const std::vector<double>& v) {
    return norm<double>(v) / std::sqrt(static_cast<double>(v.size()));
}

void expect_filtered(const std::vector<double>& g, const std::vector<double>& before, const std::vector<double>& m,
                     int frame) {
    std::vector<double> expected;
    for (int iz = 0; iz < nz; ++iz)
        for (int ix = 0; ix < nx; ++ix)
            expected.push_back(m[static_cast<std::size_t>(ix * (nz + 2 * frame) + frame + iz)]);
    const double match = rms(before) / rms(expected);
    for (std::size_t i = 0; i < g.size(); ++i) EXPECT_NEAR(g[i], expected[i] * match, 2e-4 * rms(before)) << i;
}

}  // namespace

TEST(Geodip, SolvesItsProblemOnThePaddedPanel) {
    for (const int frame : {0, 2}) {
        SCOPED_TRACE(frame);
        DipRun run;
        const auto session = run.session(usual);
        const std::vector<double> g = gradient(1);
        const Result result = filtered(*session, run, frame, {}, g);
        const auto slow0 = padded(frame, [&](int ix, int iz) { return g[static_cast<std::size_t>(iz * nx + ix)]; });
        expect_filtered(result.g, g, dense_solution(division(run, frame), slow0, 0.5), frame);
    }
}

TEST(Geodip, TheMaskCountsPaddedRows) {
    DipRun run;
    const int frame = 2;
    const auto session = run.session(with(usual, {"steerniter=1"}));
    const std::vector<double> g = gradient(1);
    const std::vector<float> pick{0.0f, 1.9f, 5.7f, 2.0f};  // rows 1 to 4 of column 2 and row 1 of column 3 are held
    testing::internal::CaptureStderr();
    EXPECT_EQ(owgeodip_init(pick, true), pick);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), " max pick 5.6999998092651367 min pick 0.0000000000000000\n");
    const Result result = filtered(*session, run, frame, pick, g);
    // the first step goes along the masked J S' slow0
    const auto slow0 = padded(frame, [&](int ix, int iz) { return g[static_cast<std::size_t>(iz * nx + ix)]; });
    const Array<double, 2> s = division(run, frame);
    std::vector<double> m(slow0.size());
    for (std::ptrdiff_t i = 0; i < std::ssize(m); ++i)
        for (std::ptrdiff_t k = 0; k < std::ssize(m); ++k)
            m[static_cast<std::size_t>(i)] += s(k, i) * slow0[static_cast<std::size_t>(k)];
    for (std::size_t row = 0; row < 4; ++row) m[2 * (nz + 2 * frame) + row] = 0;
    m[3 * (nz + 2 * frame)] = 0;
    expect_filtered(result.g, g, m, frame);
    EXPECT_EQ(result.g[0 * nx + 2], 0.0) << "rows 3 and 4 of the padded column are image rows 1 and 2";
    EXPECT_EQ(result.g[1 * nx + 2], 0.0);
    EXPECT_NE(result.g[2 * nx + 2], 0.0);
    const auto longer = run.session(usual);
    const std::vector<double> later = filtered(*longer, run, frame, pick, g).g;
    EXPECT_EQ(later[0 * nx + 2], 0.0) << "a masked sample never moves";
    EXPECT_NE(later[2 * nx + 2], result.g[2 * nx + 2]);
}

TEST(Geodip, EachCallReadsTheSameDips) {
    DipRun run;
    const auto session = run.session(usual);
    const std::vector<double> first = filtered(*session, run, 2, {}, gradient(1)).g;
    EXPECT_EQ(filtered(*session, run, 2, {}, gradient(1)).g, first);
}

TEST(Geodip, KeepsTheRmsOfFaintAndStrongGradients) {
    DipRun run;
    const auto session = run.session(usual);
    for (const double size : {1e-30, 1e-3, 1e25}) {
        const std::vector<double> g = gradient(size);
        EXPECT_NEAR(rms(filtered(*session, run, 2, {}, g).g) / rms(g), 1.0, 1e-5) << size;
    }
}

TEST(Geodip, WritesThePaddedResultToMaskout) {
    DipRun run;
    const auto session = run.session(with(usual, {"maskout=" + (run.dir / "m")}));
    const Result result = filtered(*session, run, 2, {}, gradient(3));
    const std::string header = files::read_text(run.dir / "m");
    const std::pair<const char*, const char*> keys[] = {
        {"n1", "11"}, {"d1", "5"}, {"o1", "90"}, {"n2", "4"}, {"d2", "10"}, {"o2", "-20"}, {"n3", "1"}, {"d3", "1"},
        {"o3", "0"},  {"n4", "1"}, {"d4", "1"},  {"o4", "0"}, {"n5", "1"},  {"d5", "1"},   {"o5", "0"}, {"esize", "4"}};
    for (const auto& [key, value] : keys) EXPECT_EQ(files::header_value(header, key), value) << key;
    const std::vector<float> slow = files::read_dataset(run.dir / "m");
    ASSERT_EQ(slow.size(), nx * (nz + 4u));
    const double match = result.g[0] / slow[2];
    EXPECT_GT(std::abs(match - 1), 1e-3) << "not matched to the gradient's rms";
    for (std::size_t ix = 0; ix < nx; ++ix)
        for (std::size_t iz = 0; iz < nz; ++iz)
            EXPECT_NEAR(slow[ix * (nz + 4) + 2 + iz] * match, result.g[iz * nx + ix], 1e-5);
}

TEST(Geodip, SaysWhatItDoes) {
    DipRun run;
    const auto session = run.session(with(usual, {"steerniter=2"}));
    const std::string said = filtered(*session, run, 2, {}, gradient(1)).said;
    EXPECT_THAT(said,
                testing::StartsWith(" width lap_factor lap_lags 2.5000000000000000 0.0000000000000000           0\n"
                                    " steerlags steer_factor eps           4 0.69999998807907104 1.0000000000000000\n"
                                    " initialize operators\n"
                                    " DOT PRODUCT VALUES SCALED BY "));
    EXPECT_THAT(said, HasSubstr("\niteration    2 res dat"));
    EXPECT_EQ(said.find("iteration    3"), std::string::npos);
}

TEST(Geodip, EndsWithAMessageWhenNothingIsLeft) {
    DipRun run;
    const std::vector<double> nothing(nx * nz);
    const std::vector<float> deep(nx, 9999.0f),
        half(nx, 10.0f);  // 11 padded rows: rows 10 and 11 stay, the lower frame
    EXPECT_EQ(filter_message(run, usual, nothing), "cgstep: grad vanishes identically\n");
    EXPECT_EQ(filter_message(run, usual, gradient(1), deep), "cgstep: grad vanishes identically\n");
    EXPECT_THAT(filter_message(run, usual, gradient(1), half), HasSubstr("zero in the image"));
    std::vector<double> faint(nx * nz);
    faint[5] = 1.5e-38;
    EXPECT_THAT(filter_message(run, usual, faint), HasSubstr("outside single precision"));
}

TEST(OwsteerParms, ComparesTheAxesInOrder) {
    struct Case {
        const char* key;
        const char* value;
        const char* text;
    };
    // each with all that come after it wrong as well
    const Case cases[] = {
        {"n2", "5", "Nx dip file .ne. nx image space"},   {"n1", "8", "Nz dip file .ne. nz image space"},
        {"d2", "11", "Dx dip file .ne. dx image space"},  {"d1", "6", "Dz dip file .ne. dz image space"},
        {"o2", "-21", "Ox dip file .ne. ox image space"}, {"o1", "0", "Oz dip file .ne. oz image space"},
    };
    for (std::size_t first = 0; first < std::size(cases); ++first) {
        DipRun run;
        for (std::size_t i = first; i < std::size(cases); ++i) run.dipfile.header[cases[i].key] = cases[i].value;
        EXPECT_EQ(filter_message(run, usual), cases[first].text);
        EXPECT_EQ(message(run, usual, [&](qas::Session& s) { owsteer_check(s, run.z, run.xm, 2); }), cases[first].text);
    }
}

TEST(OwsteerParms, RefusesFiltersAndDips) {
    DipRun run;
    const auto check = [&](const std::vector<std::string>& words) {
        return message(run, words, [&](qas::Session& s) { owsteer_check(s, run.z, run.xm, 2); });
    };
    EXPECT_EQ(check(usual), "accepted");
    EXPECT_THAT(check({"dipfile=" + (run.dir / "nosuch")}), HasSubstr("dipfile"));
    struct Case {
        std::vector<std::string> words;
        const char* text;
        float dip = 0;
    };
    const Case cases[] = {
        {{}, "must supply steering lags if steering_scale > 0\n"},
        {with(usual, {"lap_lags=4", "lap_factor=0.3"}), "laplacian scale + steering scale must be < 1.\n"},
        {with(usual, {"lap_lags=12", "lap_factor=0.1"}), "lap_lags must be from 4 to the 11 samples"},
        {with(usual, {"steer_lags=-1"}), "steer_lags=-1"},
        {with(usual, {"steer_lags=8"}), "steer_lags=8"},
        {with(usual, {"steerniter=0"}), "steerniter=0: 1 or more"},
        {with(usual, {"tri_width=0"}), "tri_width=0: must be greater than 0\n"},
        {with(usual, {"tri_width=0.1"}), "half width 0.05 holds no lag (tri_width)", 20},
        {with(usual, {"tri_width=nan"}), "tri_width=nan: a finite number is needed\n"},
        {with(usual, {"epspoly=inf"}), "epspoly=inf: a finite number is needed\n"},
        {with(usual, {"lap_factor=nan"}), "lap_factor=nan: a finite number is needed\n"},
        {with(usual, {"steer_factor=-inf"}), "steer_factor=-inf: a finite number is needed\n"},
        {with(usual, {"epsflt=nan"}), "epsflt=nan: a finite number is needed\n"},
        {usual, "angle must be less than 90\n", 91},
        {usual, "angles must be greater than -90.\n", -91},
        {usual, "1 of 28 dips are not numbers", std::nanf("")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        run.dips[3] = c.dip;
        EXPECT_THAT(check(c.words), HasSubstr(c.text));
        EXPECT_THAT(filter_message(run, c.words), HasSubstr(c.text));
    }
    run.dips[3] = 0;
    run.dipfile.header["n3"] = "2";
    EXPECT_EQ(check(usual), "angles not the same size as model");
    EXPECT_EQ(filter_message(run, usual), "angles not the same size as model");
}

TEST(OwsteerParms, RecordsItsKeysButNotWhenItOnlyChecks) {
    DipRun run;
    const auto session = run.session(usual);
    owsteer_check(*session, run.z, run.xm, 0);
    const auto history = [&] {
        std::fflush(run.out.get());
        std::rewind(run.out.get());
        std::string text;
        for (int c; (c = std::fgetc(run.out.get())) != EOF;) text += static_cast<char>(c);
        return text;
    };
    EXPECT_EQ(history().find("steerniter"), std::string::npos);
    filtered(*session, run, 0, {}, gradient(1));
    const std::string text = history();
    for (const char* key : {"steerniter=25", "epspoly=0.5", "ndim_mod=1", "lap_lags=0", "steer_lags=4", "tri_width=2.5",
                            "lap_factor=0", "steer_factor=0.7", "epsflt=1", "steer_triangle=yes"})
        EXPECT_THAT(text, HasSubstr(std::string("From par: ") + key));
}
