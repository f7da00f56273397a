// qas as a black box: every subcommand on files and in pipes, and what it does with hostile input.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <numeric>
#include <regex>
#include <sstream>

#include "lib/corelibs/qas/messages/notes.h"
#include "tests/dataset_files.h"

using files::Outcome;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class QasTool : public testing::Test {
protected:
    files::TempDir dir;

    /// Runs a shell line with `qas` in its path; data files go to the directory.
    Outcome shell(const std::string& line) const {
        return files::run_program("/bin/bash", {"-o", "pipefail", "-c", line}, dir.text(),
                                  "PATH='" MORVANE_BIN_DIR "':\"$PATH\" DATAPATH='" + dir.text() + "/'");
    }
    /// The standard output of a line that must end well and without a message.
    std::string good(const std::string& line) const {
        const Outcome run = shell(line);
        EXPECT_EQ(run.status, 0) << line << "\n" << run.out << run.err;
        EXPECT_EQ(run.err, "") << line;
        return run.out;
    }
    /// The samples of the dataset that a line makes, its header in "r.H".
    std::vector<float> made_by(const std::string& line) const {
        good(line + " > r.H");
        return files::read_dataset(dir / "r.H");
    }
    /// A cube of 4 x 3 x 2 samples, 0 to 23 fastest axis first, at o = 10, 20, 30 with d = 1, 2, 3.
    void write_cube(const std::string& name) const {
        files::Dataset cube;
        cube.axis(1, 4, "1", "10");
        cube.axis(2, 3, "2", "20");
        cube.axis(3, 2, "3", "30");
        cube.samples = ramp(24);
        cube.write(dir / name);
    }
    /// Lines of n complex samples.
    void write_complex(const std::string& name, int n, const std::vector<float>& samples) const {
        files::Dataset waves;
        waves.axis(1, n, "1", "0");
        waves.axis(2, static_cast<int>(samples.size()) / 2 / n, "1", "0");
        waves.header["esize"] = "8";
        waves.samples = samples;
        waves.write(dir / name);
    }
    void write_header(const std::string& name, const std::string& text) const { files::write_text(dir / name, text); }
    /// The values of these keys, parted by blanks.
    std::string values(const std::string& header, const std::string& keys) const {
        std::string found;
        std::istringstream words(keys);
        for (std::string key; words >> key;)
            found += (found.empty() ? "" : " ") + files::header_value(files::read_text(dir / header), key);
        return found;
    }
    std::string text(const std::string& name) const { return files::read_text(dir / name); }

    static std::vector<float> ramp(std::size_t n) {
        std::vector<float> numbers(n);
        std::iota(numbers.begin(), numbers.end(), 0.0f);
        return numbers;
    }
};

/// A version 1.0 file without padding: readers may not rely on any.
std::string npy_file(const std::string& descr, const std::string& shape, const std::string& data,
                     const std::string& fortran_order = "False") {
    const std::string dictionary =
        "{'descr': '" + descr + "', 'fortran_order': " + fortran_order + ", 'shape': (" + shape + ")}";
    return std::string("\x93NUMPY\1\0", 8) + static_cast<char>(dictionary.size()) + '\0' + dictionary + data;
}

}  // namespace

TEST_F(QasTool, HelpNamesEverySubcommandAndGivesExamples) {
    const Outcome all = shell("qas --help");
    EXPECT_EQ(all.status, 0);
    for (const std::string name : {"info", "cat", "window", "head", "npy", "from-npy", "diff", "history"}) {
        EXPECT_THAT(all.out, HasSubstr("  qas " + name + " "));
        const Outcome one = shell("qas " + name + " --help");
        EXPECT_EQ(one.status, 0);
        EXPECT_THAT(one.out, ContainsRegex("Examples?:\n"));
    }
    EXPECT_EQ(shell("qas").status, 23);
    for (const char* line : {"qas --help", "qas info -h"}) {
        const Outcome full = shell(std::string(line) + " > /dev/full");
        EXPECT_EQ(full.status, 23) << line;
        EXPECT_THAT(full.err, HasSubstr("the standard output cannot be written: No space left on device\n"));
    }
    EXPECT_THAT(shell("qas show a.H").err, HasSubstr("unknown subcommand show"));
}

TEST_F(QasTool, InfoTellsSizesAndNumbersPanelByPanel) {
    write_cube("cube.H");
    const std::string all = good("qas info --panels cube.H");
    for (const char* part :
         {"n1=4 d1=1 o1=10 end=13\n", "header: 24 samples, 96 bytes; data: 96 bytes\n",
          "f3=0 min=0 max=11 mean=5.5 rms=6.49358658 zeros=1 nonfinite=0\n", "f3=1 min=12 max=23 mean=17.5 ",
          "\n  min=0 max=23 mean=11.5 rms=13.4226177 zeros=1 nonfinite=0\n"})
        EXPECT_THAT(all, HasSubstr(part));
    EXPECT_THAT(good("qas info cube.H"), Not(HasSubstr("f3=0")));
    files::Dataset velout;  // as a run leaves it
    for (const int k : {1, 2, 3, 4, 5}) velout.axis(k, k == 1 ? 4 : k == 3 ? 3 : k == 4 ? 2 : 1, "1", "0");
    velout.samples = ramp(24);
    velout.write(dir / "velout.H");
    EXPECT_THAT(good("qas info --panels velout.H"),
                AllOf(HasSubstr("  f4=0 min=0 max=11 mean=5.5 "), HasSubstr("  f4=1 min=12 max=23 mean=17.5 ")));
}

TEST_F(QasTool, InfoComparesTheHeaderWithTheDataFile) {
    write_cube("cube.H");
    std::filesystem::resize_file(dir / "cube.H@", 96 - 4 * 5 - 1);
    EXPECT_THAT(good("qas info --panels cube.H"),
                AllOf(HasSubstr("96 bytes; data: 75 bytes, 21 too few"),
                      HasSubstr("f3=1 min=12 max=17 mean=14.5 rms=14.6002283 zeros=0 nonfinite=0 (incomplete)")));
    write_cube("cube.H");
    std::filesystem::resize_file(dir / "cube.H@", 100);
    EXPECT_THAT(good("qas info cube.H"), AllOf(HasSubstr("data: 100 bytes, 4 too many"), HasSubstr("zeros=1 ")))
        << "what lies behind the axes does not count";
    write_header("none.H", "n1=5\n");
    EXPECT_THAT(good("qas info none.H"), HasSubstr("data: none"));
}

TEST_F(QasTool, InfoGoesOnBehindABadFile) {
    write_cube("cube.H");
    write_header("bad.H", "n1=-4\n in=\"cube.H@\"\n");
    const Outcome run = shell("qas info bad.H missing.H cube.H");
    EXPECT_EQ(run.status, 23);
    EXPECT_THAT(run.err, HasSubstr("bad.H: n1=-4 is not an integer of at least 1"));
    EXPECT_THAT(run.err, HasSubstr("missing.H cannot be read: No such file"));
    EXPECT_THAT(run.out, HasSubstr("mean=11.5"));
}

TEST_F(QasTool, WindowCutsAlongEveryAxisAndMovesTheOrigins) {
    write_cube("cube.H");
    EXPECT_EQ(made_by("qas window cube.H f1=1 j1=2 f2=1 j2=1 n2=1 j3=5"), (std::vector<float>{5, 7}));
    EXPECT_EQ(values("r.H", "n1 o1 d1 n2 o2 n3 d3"), "2 11 2 1 22 1 15");
    for (const auto& [words, expected] :
         std::map<std::string, std::vector<float>>{{"f3=1 f2=2", {20, 21, 22, 23}},          // whole lines
                                                   {"j2=2 n1=1", {0, 8, 12, 20}},            // a step on a slow axis
                                                   {"f1=3", {3, 7, 11, 15, 19, 23}},         // parts of lines
                                                   {"n2=2 n3=1", {0, 1, 2, 3, 4, 5, 6, 7}},  // several lines at once
                                                   {"j2=2 f3=1", {12, 13, 14, 15, 20, 21, 22, 23}},  // and a step
                                                   {"j1=3 j2=2 f3=1", {12, 15, 20, 23}}}) {
        EXPECT_EQ(made_by("qas window cube.H " + words), expected) << words;
        good("cat cube.H | qas window " + words + " | qas cat - stdout=p.H");
        EXPECT_EQ(files::read_dataset(dir / "p.H"), expected) << words;
    }
}

TEST_F(QasTool, WindowKeepsComplexSamplesTogetherAndLargeOnesInOrder) {
    constexpr std::size_t n = 300000;  // lines longer than a block, cut and stepped
    write_complex("waves.H", n, ramp(4 * n));
    const auto expected = [](std::size_t first, std::size_t step) {
        std::vector<float> samples;
        for (std::size_t line = 0; line < 2; ++line)
            for (std::size_t i = first; i < n; i += step)
                for (std::size_t part : {0, 1}) samples.push_back(static_cast<float>(2 * (line * n + i) + part));
        return samples;
    };
    EXPECT_TRUE(made_by("qas window waves.H f1=1 j1=2") == expected(1, 2));
    EXPECT_TRUE(made_by("qas window waves.H f1=5") == expected(5, 1));
    EXPECT_EQ(values("r.H", "esize"), "8");
}

TEST_F(QasTool, CatPutsTogetherAlongAnyAxis) {
    write_cube("cube.H");
    good("qas window cube.H n1=1 n2=2 > a.H");  // 0 4 / 12 16
    good("qas window cube.H n1=1 f2=2 > b.H");  // 8 / 20
    EXPECT_EQ(made_by("qas cat a.H b.H a.H axis=2"), (std::vector<float>{0, 4, 8, 0, 4, 12, 16, 20, 12, 16}));
    EXPECT_EQ(values("r.H", "n2"), "5");
    EXPECT_EQ(made_by("qas cat a.H a.H axis=1"), (std::vector<float>{0, 0, 4, 4, 12, 12, 16, 16}));
    EXPECT_EQ(made_by("qas cat b.H b.H"), (std::vector<float>{8, 20, 8, 20}));
    EXPECT_EQ(values("r.H", "n3"), "4");
    good("qas cat b.H b.H axis=4 > c.H");
    EXPECT_EQ(values("c.H", "n3 n4"), "2 2");
    EXPECT_THAT(good("qas cat a.H < /dev/null | qas cat - b.H axis=2 | qas info"), HasSubstr("n2=3 "));
    EXPECT_THAT(shell("qas cat a.H b.H > c.H").err, HasSubstr("n2=2 in a.H, 1 in b.H: only axis=3 may differ"));
    EXPECT_THAT(shell("qas cat a.H axis=5 > c.H").err, HasSubstr("axis=5"));
}

TEST_F(QasTool, CatWritesBareSamplesInEitherOrder) {
    write_cube("cube.H");
    const std::string once = files::bytes_of(ramp(24));
    EXPECT_EQ(good("qas cat raw=native cube.H cube.H"), once + once);
    EXPECT_EQ(good("qas cat raw=xdr cube.H"), text("cube.H@"));
    const Outcome bad = shell("qas cat raw=little cube.H");
    EXPECT_EQ(bad.status, 23);
    EXPECT_EQ(bad.out, "") << "no message among the samples";
}

TEST_F(QasTool, HeadAppendsLinesThatWin) {
    write_cube("cube.H");
    const std::string before = text("cube.H");
    good("qas head cube.H o1=1e3 n3=1 label1='say \"x\"'");
    EXPECT_THAT(text("cube.H"), AllOf(StartsWith(before), HasSubstr("qas-head:   ")));
    EXPECT_THAT(good("qas info cube.H"),
                AllOf(HasSubstr("n1=4 d1=1 o1=1000 end=1003 label1=\"say \"x\"\""), HasSubstr("n3=1 ")));
    EXPECT_EQ(values("cube.H", "in"), dir / "cube.H@") << "the data stay where they are";
    EXPECT_EQ(made_by("qas head < cube.H o2=7").size(), 12u);
    EXPECT_EQ(values("r.H", "o2"), "7");
}

TEST_F(QasTool, ConcurrentHeadsLoseNoLineAndAFailedOneLeavesNone) {
    write_cube("cube.H");
    good("for i in {1..20}; do qas head cube.H a$i=$i b$i=$i & done; wait");
    const std::string both = text("cube.H");
    for (int i = 1; i <= 20; ++i) EXPECT_THAT(both, HasSubstr(qas::strprintf("\t\ta%d=%d\n\t\tb%d=%d\n", i, i, i, i)));
    EXPECT_EQ(shell("ulimit -f 4; for i in {1..200}; do qas head cube.H c=1 d=22 || exit; done").status, 23);
    EXPECT_THAT(text("cube.H"), EndsWith("\t\tc=1\n\t\td=22\n"));
}

TEST_F(QasTool, AFailedCommandLeavesWhatItWouldHaveReplaced) {
    write_cube("cube.H");
    write_complex("large.H", 5000, ramp(10000));
    good(
        "mkdir old && qas window cube.H n1=1 stdout=old/r.H datapath=old/ && ln -s old/r.H link.H && chmod 640 "
        "old/r.H");
    const auto files = [&] {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(dir / "old"))
            all[entry.path().filename()] = files::read_text(entry.path());
        return all;
    };
    const auto before = files();
    ASSERT_EQ(before.size(), 2u);
    good("qas window cube.H datapath=stdout > stream");
    for (const char* line : {"head -c -8 stream | qas cat - stdout=old/r.H datapath=old/",
                             "ulimit -f 8; qas cat large.H stdout=link.H out=old/r.H@",
                             "head -c -8 stream | qas head n9=1 stdout=old/new.H datapath=old/"}) {
        EXPECT_EQ(shell(line).status, 23) << line;
        EXPECT_TRUE(files() == before) << line;
    }
    int fitting = 0;
    for (int filler = 7790; filler < 8190; filler += 16) {  // headers that come up to the limit
        files::write_text(dir / "long.H", std::string(filler, 'x') + "\n" + text("cube.H"));
        if (shell("ulimit -f 8; qas cat long.H stdout=link.H out=old/r.H@").status == 23) {
            EXPECT_TRUE(files() == before) << filler;
        } else {
            EXPECT_EQ(files::read_dataset(dir / "old/r.H"), ramp(24)) << filler;
            for (const auto& [name, bytes] : before) files::write_text(dir / "old/" + name, bytes);
            ++fitting;
        }
    }
    EXPECT_TRUE(1 < fitting && fitting < 25) << fitting;
    EXPECT_EQ(shell("head -c -8 stream | qas cat - datapath=old/ > r.H").status, 23);
    EXPECT_EQ(text("r.H"), "") << "a history that names other samples";
    EXPECT_TRUE(files() == before);
    good("qas cat cube.H stdout=link.H out=old/r.H@");
    EXPECT_EQ(files::read_dataset(dir / "old/r.H"), ramp(24));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "link.H"));
    EXPECT_EQ(static_cast<int>(std::filesystem::status(dir / "old/r.H").permissions()), 0640);
    EXPECT_EQ(files().size(), 2u);
}

TEST_F(QasTool, HeadRefusesLinesThatWouldSpoilAHistory) {
    write_cube("cube.H");
    const std::string before = text("cube.H");
    for (const char* word : {"n1=0", "n1=-3", "n2=many", "d1=nan", "o3=1,2", "esize=3", "data_format=float", "par=x",
                             "a.b=1", "label1=", "'label1=a\nn1=9'", "\"label1=$(printf 'a\\004b')\"", "'' x=1"}) {
        EXPECT_EQ(shell(std::string("qas head cube.H ") + word).status, 23) << word;
        EXPECT_EQ(text("cube.H"), before) << word;
    }
    EXPECT_EQ(shell("qas head cube.H").status, 23);
    EXPECT_EQ(shell("qas head new.H n1=5").status, 23);
    EXPECT_FALSE(std::filesystem::exists(dir / "new.H"));
}

TEST_F(QasTool, NpyHasTheSlowestAxisFirstAndComesBackWithItsAxes) {
    write_cube("cube.H");
    good("qas npy cube.H cube.npy");
    const std::string array = text("cube.npy");
    good("qas cat cube.H datapath=stdout | qas npy - piped.npy");
    EXPECT_EQ(text("piped.npy"), array);
    ASSERT_EQ(array.size(), 128u + 96u);
    EXPECT_THAT(array, HasSubstr("'fortran_order': False, 'shape': (2, 3, 4), }"));
    EXPECT_EQ(array.substr(128), files::bytes_of(ramp(24)));
    EXPECT_EQ(made_by("qas from-npy cube.npy"), ramp(24));
    good("qas diff cube.H r.H");
    EXPECT_EQ(values("r.H", "o2"), "20");
    EXPECT_EQ(made_by("qas npy < cube.H side=axes | qas from-npy side=axes o1=5 | qas window n1=2").size(), 12u);
    EXPECT_EQ(values("r.H", "d3 o1"), "3 5");
}

TEST_F(QasTool, NpyKeepsComplexSamplesIntegersAndBytes) {
    write_complex("waves.H", 2, {1, 2, 3, -4});
    files::write_text(dir / "int.bin", std::string("\0\0\1\2\xff\xff\xff\xfe", 8));
    write_header("int.H", "n1=2 in=./int.bin data_format=xdr_int\n");
    write_header("byte.H", "n1=8 in=./int.bin data_format=xdr_byte\n");
    for (const auto& [name, data, type] :
         {std::tuple{"int.H", "int.bin", "i4"}, {"byte.H", "int.bin", "u1"}, {"waves.H", "waves.H@", "c8"}}) {
        good(std::string("qas npy ") + name + " a.npy && qas from-npy a.npy > r.H && qas diff r.H " + name);
        EXPECT_EQ(files::read_text(values("r.H", "in")), text(data));
        EXPECT_THAT(text("a.npy"), HasSubstr(type));
    }
    EXPECT_EQ(values("r.H", "esize"), "8");
    EXPECT_THAT(good("qas info int.H"), HasSubstr("min=-2 max=258 "));
}

TEST_F(QasTool, FromNpyTakesEitherByteOrderEitherIndexOrderAndDoublePrecision) {
    const std::vector<float> six{1, 2, 3, 4, 5, 6};
    files::write_text(dir / "big.npy", npy_file(">f4", "2, 3", files::bytes_of(six, std::endian::big)));
    EXPECT_EQ(made_by("qas from-npy big.npy"), six);
    EXPECT_EQ(values("r.H", "n1 n2"), "3 2");
    files::write_text(dir / "fortran.npy", npy_file("<f4", "2, 3", files::bytes_of(six), "True"));
    good("qas from-npy fortran.npy > r.H");
    EXPECT_EQ(values("r.H", "n1 n2"), "2 3");
    files::write_text(dir / "wide.npy", npy_file("<c16", "2,", files::bytes_of<double>({0.1, -2.0, 1e-60, 3.0})));
    EXPECT_EQ(made_by("qas from-npy wide.npy"), (std::vector<float>{0.1f, -2, 0, 3}));
    EXPECT_EQ(values("r.H", "esize"), "8");
}

TEST_F(QasTool, FromNpyRefusesWhatCannotBeKept) {
    for (const auto& [bytes, part] : std::vector<std::pair<std::string, const char*>>{
             {"", "x.npy: not a .npy file"},
             {npy_file("<f4", "2,", "1234567"), "x.npy: its shape needs 8 bytes behind the header, there are 7"},
             {npy_file("<f4", "1000000000000,", ""), "needs 4000000000000"}}) {
        files::write_text(dir / "x.npy", bytes);
        const Outcome run = shell("qas from-npy x.npy stdout=x.H");
        EXPECT_EQ(run.status, 23);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, HasSubstr(part));
        EXPECT_FALSE(std::filesystem::exists(dir / "x.H")) << part;
    }
    files::write_text(dir / "x.npy", npy_file("<f8", "1,", files::bytes_of<double>({1e300})));
    EXPECT_THAT(shell("qas from-npy x.npy > y.H").err, HasSubstr("1e+300 does not fit single precision"));
    files::write_text(dir / "x.npy", npy_file("<f4", "2,", "123456789"));
    EXPECT_THAT(shell("qas from-npy x.npy > y.H").err, HasSubstr("warning: x.npy: 1 bytes behind the samples"));
    EXPECT_THAT(shell("head -c 60 x.npy | qas from-npy > y.H").err, HasSubstr("standard input"));
}

TEST_F(QasTool, DiffEndsLikeDiff) {
    write_cube("a.H");
    write_cube("b.H");
    const auto status = [&](const std::string& words) { return shell("qas diff " + words).status; };
    EXPECT_EQ(status("a.H b.H"), 0);
    std::vector<float> changed = ramp(24);
    changed[17] += 0.5f;
    files::write_floats(dir / "b.H@", changed);
    EXPECT_THAT(shell("qas diff a.H b.H").out,
                AllOf(HasSubstr("relative_l2=0.00760373"), HasSubstr("largest=0.5 at f1=1 f2=1 f3=1 (17 and 17.5)")));
    for (const auto& [words, expected] : std::map<std::string, int>{{"a.H b.H", 1},
                                                                    {"a.H b.H tol=0.0077", 0},
                                                                    {"a.H b.H tol=0.0075", 1},
                                                                    {"a.H b.H max=0.5", 0},
                                                                    {"a.H b.H max=0.49", 1},
                                                                    {"a.H b.H tol=1 max=0.49", 1},
                                                                    {"a.H b.H tol=-1", 2},
                                                                    {"a.H b.H tol=x", 2},
                                                                    {"a.H", 2},
                                                                    {"a.H missing.H", 2},
                                                                    {"- - < a.H", 2},
                                                                    {"- a.H < a.H", 0}})
        EXPECT_EQ(status(words), expected) << words;
    good("qas head b.H d2=2.1");
    EXPECT_THAT(shell("qas diff a.H b.H tol=1").out, HasSubstr("d2 is 2 and 2.1"));
    EXPECT_EQ(status("a.H b.H tol=1"), 1);
    good("qas head b.H d2=2 n3=1");
    EXPECT_EQ(status("a.H b.H tol=1"), 1);
    good("qas head b.H n1=2 n3=2 esize=8 && qas head a.H n1=2");
    EXPECT_EQ(status("a.H b.H tol=1"), 1) << "real and complex";
    std::filesystem::resize_file(dir / "b.H@", 90);
    EXPECT_EQ(status("a.H b.H"), 2) << "what cannot be read is trouble, whatever else differs";
}

TEST_F(QasTool, HistoryShowsTheChainOfPrograms) {
    write_cube("cube.H");
    const std::string list = good("qas window cube.H f1=2 | qas head label1=x > new.H && qas history new.H");
    EXPECT_EQ(shell("set +o pipefail; qas window cube.H | qas history").status, 0);
    EXPECT_THAT(list, StartsWith("before any program:\n"));
    for (const char* part : {"\n1. qas-window   ", "\n   par  f1=2\n", "\n2. qas-head   ", "\n        label1=\"x\"\n"})
        EXPECT_THAT(list, HasSubstr(part));
    EXPECT_EQ(shell("qas history missing.H").status, 23);
}

TEST_F(QasTool, HostileHeadersAreRefusedByName) {
    files::write_floats(dir / "d", {1, 2, 3, 4});
    const struct {
        const char *header, *part;
    } cases[] = {
        {"n1=4", "x.H: the header names no data"},
        {"n1=4 in=-1", "x.H: the header names no data"},
        {"in=./d", "x.H: the header gives no axes"},
        {"", "x.H: the header gives no axes"},
        {"n1=-4 in=./d", "x.H: n1=-4 is not an integer of at least 1"},
        {"n1=0 in=./d", "x.H: n1=0 is not"},
        {"n1=4.5 in=./d", "x.H: n1=4.5 is not"},
        {"n1=99999999999999999999 in=./d", "x.H: n1=99999999999999999999 is not"},
        {"n1=4000000000 n2=4000000000 in=./d", "x.H: n2=4000000000 makes the data larger than a file can be"},
        {"n1=2000000000 n2=1000000000 in=./d", "x.H: its data \"./d\" end after 16 bytes, 8000000000000000000 are"},
        {"n1=5 in=./d", "x.H: its data \"./d\" end after 16 bytes, 20 are needed"},
        {"n1=4 d1=inf in=./d", "x.H: d1=inf is not a finite number"},
        {"n1=4 o1=x in=./d", "x.H: o1=x is not a finite number"},
        {"n1=4 esize=2 in=./d", "x.H: esize=2 does not go with data_format=xdr_float"},
        {"n1=2 esize=8 data_format=xdr_int in=./d", "x.H: esize=8 does not go with data_format=xdr_int"},
        {"n1=4 data_format=doubles in=./d", "unknown data format: doubles"},
        {"n1=4 in=./missing", "missing"},
        {"n1=4 in=.", "\".\" of header \"x.H\" of tag \"in\" (parameter stdin): not a regular file"},
    };
    for (const auto& c : cases) {
        write_header("x.H", c.header);
        for (const char* line : {"qas window x.H", "qas cat x.H", "qas npy x.H", "qas head < x.H a=1"})
            EXPECT_EQ(shell(line).status, 23) << line << ": " << c.header;
        EXPECT_THAT(shell("qas window x.H").err, HasSubstr(c.part)) << c.header;
        EXPECT_EQ(shell("qas diff x.H x.H").status, 2) << c.header;
    }
}

TEST_F(QasTool, StreamsThatEndEarlyAreNoticed) {
    write_cube("cube.H");
    const std::string cut = "{ cat axes; printf '\\014\\014\\004'; head -c 50 cube.H@; }";
    write_header("axes", "n1=4 n2=3 n3=2 in=\"stdin\"\n");
    for (const char* command : {"window", "cat", "npy", "cat raw=xdr"}) {
        const Outcome run = shell(cut + " | qas " + command + " > result");
        EXPECT_EQ(run.status, 23) << command;
        EXPECT_THAT(run.err, HasSubstr("standard input: its data")) << command;
    }
    files::write_text(dir / "old.npy", "old");
    EXPECT_EQ(shell(cut + " | qas npy - old.npy").status, 23);
    EXPECT_EQ(text("old.npy") + text("old.npy.H"), "old");
    EXPECT_EQ(shell(cut + " | qas diff - cube.H").status, 2);
    EXPECT_THAT(shell(cut + " | qas info").out, AllOf(HasSubstr("max=11 "), HasSubstr("too early")));
}

TEST_F(QasTool, BadParametersAreRefusedByName) {
    write_cube("cube.H");
    const struct {
        const char *line, *part;
    } cases[] = {
        {"window cube.H f1=4", "f1=4: cube.H has n1=4, the last index is 3"},
        {"window cube.H f1=-1", "f1=-1: an integer of at least 0 is needed"},
        {"window cube.H j2=0", "j2=0: an integer of at least 1 is needed"},
        {"window cube.H n2=0", "n2=0: an integer of at least 1 is needed"},
        {"window cube.H n2=3 f2=1", "n2=3: 2 fit from f2=1"},
        {"window cube.H j1=2 n1=3", "n1=3: 2 fit"},
        {"window cube.H j1=9223372036854775807 n1=2", "n1=2: 1 fit"},
        {"window cube.H f4=1", "f4=1: cube.H has n4=1"},
        {"window cube.H f1=x", "f1=x: an integer"},
        {"window cube.H f1=1x", "f1=1x: an integer"},
        {"window cube.H g1=1", "unknown parameter g1=1"},
        {"window cube.H cube.H", "2 files are given"},
        {"window cube.H data_format=xdr_int", "data_format=xdr_int: the samples of cube.H are of another kind"},
        {"window cube.H out=cube.H", "is the file of header \"cube.H\" of tag \"in\" (parameter stdin): give out=FILE"},
        {"window cube.H stdout=cube.H", "is the file of header \"cube.H\" of tag \"in\""},
        {"window stdout=cube.H < cube.H", "is the file of header \"stdin\" of tag \"in\""},
        {"window cube.H stdout=sub/cube.H", "cube.H@\" for tag \"out\" is the data file of header \"cube.H\""},
        {"cat x.H cube.H stdout=cube.H", "is the file of header \"cube.H\" of tag \"cat1\""},
        {"from-npy x.npy stdout=x.npy", "stdout=x.npy is the file of the input"},
        {"window 'cat cube.H|'", "is taken as no file"},
        {"window .", ". cannot be read: Is a directory"},
        {"npy cube.H cube.H", "cube.H is a file of the input"},
        {"npy cube.H cube.H@", "cube.H@ is a file of the input"},
        {"npy cube.H x.npy side=x.npy", "side=x.npy is the .npy file itself"},
        {"npy cube.H x.npy side=cube.H", "cube.H is a file of the input"},
        {"npy cube.H new.npy side=./new.npy", "./new.npy: this is new.npy"},
        {"info cube.H --all", "unknown flag --all"},
    };
    const std::string header = text("cube.H"), data = text("cube.H@");
    good("mkdir sub && qas npy cube.H x.npy && qas cat cube.H > x.H");
    for (const auto& c : cases) {
        const Outcome run = shell(std::string("qas ") + c.line);
        EXPECT_EQ(run.status, 23) << c.line;
        EXPECT_THAT(run.err, HasSubstr(c.part)) << c.line;
        EXPECT_EQ(text("cube.H"), header) << c.line;
        EXPECT_EQ(text("cube.H@"), data) << c.line;
    }
}

TEST_F(QasTool, DataBehindTheHeaderAndInSeveralFilesAreReadAlike) {
    write_cube("cube.H");
    good("qas window cube.H datapath=stdout > both.H && qas diff cube.H both.H");
    EXPECT_GT(std::filesystem::file_size(dir / "both.H"), 96u);
    const std::string data = text("cube.H@");
    files::write_text(dir / "one", data.substr(0, 40));
    files::write_text(dir / "two", data.substr(40));
    write_header("parts.H", "n1=4 d1=1 o1=10 n2=3 d2=2 o2=20 n3=2 d3=3 o3=30 in=\"./one;./two\"\n");
    good("qas diff cube.H parts.H");
    EXPECT_THAT(shell("qas npy parts.H two").err, HasSubstr("two is a file of the input"));
    EXPECT_THAT(shell("qas info parts.H").out, HasSubstr("data: 96 bytes\n"));
}

TEST_F(QasTool, MemoryDoesNotGrowWithTheData) {
    const auto most_memory = [&](const std::string& name, unsigned megabytes) {
        files::write_text(dir / (name + "@"), "");
        std::filesystem::resize_file(dir / (name + "@"), megabytes << 20);
        write_header(name, "n1=1024 n2=" + std::to_string(256 * megabytes) + " in=./" + name + "@\n");
        for (const char* command :
             {"info --panels F", "diff F F", "npy F", "cat raw=xdr F", "window F j1=2 datapath=stdout"}) {
            const std::string words = std::regex_replace(command, std::regex("F"), name);
            good("export ASAN_OPTIONS=quarantine_size_mb=1; qas " + words + " > /dev/null");
        }
        rusage usage{};
        ::getrusage(RUSAGE_CHILDREN, &usage);
        return usage.ru_maxrss;  // KiB, of the largest so far: this test wants a process of its own, as ctest gives it
    };
    const long small = most_memory("small.H", 4);
    EXPECT_LT(most_memory("large.H", 128) - small, 30 * 1024);
}
