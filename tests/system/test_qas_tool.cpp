// qas as a black box: every subcommand on files and in pipes, and what it does with hostile input.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "tests/dataset_files.h"

using files::Outcome;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

class QasTool : public testing::Test {
protected:
    files::TempDir dir;

    /// Runs a shell line with `qas` in its path; data files go to the directory.
    Outcome shell(const std::string& line) const {
        files::write_text(dir / ".line", line);
        const std::string command = "cd '" + dir.text() + "' && PATH='" + MORVANE_BIN_DIR + "':\"$PATH\" DATAPATH='" +
                                    dir.text() + "/' bash -o pipefail .line < /dev/null > .stdout 2> .stderr";
        const int result = std::system(command.c_str());
        return {WIFEXITED(result) ? WEXITSTATUS(result) : -1, files::read_text(dir / ".stdout"),
                files::read_text(dir / ".stderr")};
    }
    void expect_good(const std::string& line) const {
        const Outcome run = shell(line);
        EXPECT_EQ(run.status, 0) << line << "\n" << run.out << run.err;
        EXPECT_EQ(run.err, "") << line;
    }
    /// A cube of 4 x 3 x 2 samples, 0 to 23 fastest axis first, at o = 10, 20, 30 with d = 1, 2, 3.
    void write_cube(const std::string& name) const {
        files::Dataset cube;
        cube.axis(1, 4, "1", "10");
        cube.axis(2, 3, "2", "20");
        cube.axis(3, 2, "3", "30");
        cube.samples.resize(24);
        std::iota(cube.samples.begin(), cube.samples.end(), 0.0f);
        cube.write(dir / name);
    }
    void write_header(const std::string& name, const std::string& text) const { files::write_text(dir / name, text); }
    std::string value(const std::string& header, const std::string& key) const {
        return files::header_value(files::read_text(dir / header), key);
    }
    std::vector<float> samples(const std::string& header) const { return files::read_dataset(dir / header); }
};

std::string bytes_of(const std::vector<float>& values, bool big_endian = false) {
    std::string bytes;
    for (const float value : values) {
        char word[4];
        std::memcpy(word, &value, 4);
        if (big_endian == (std::endian::native == std::endian::little)) std::reverse(word, word + 4);
        bytes.append(word, 4);
    }
    return bytes;
}

/// A version 1.0 file without padding: readers may not rely on any.
std::string npy_file(const std::string& dictionary, const std::string& data) {
    std::string bytes("\x93NUMPY\1\0", 8);
    bytes += static_cast<char>(dictionary.size());
    bytes += '\0';
    return bytes + dictionary + data;
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
    EXPECT_THAT(shell("qas show a.H").err, HasSubstr("unknown subcommand show"));
}

TEST_F(QasTool, InfoTellsSizesAndNumbersPanelByPanel) {
    write_cube("cube.H");
    const Outcome run = shell("qas info --panels cube.H");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("n1=4 d1=1 o1=10 end=13\n"));
    EXPECT_THAT(run.out, HasSubstr("header: 24 samples, 96 bytes; data: 96 bytes\n"));
    EXPECT_THAT(run.out, HasSubstr("f3=0 min=0 max=11 mean=5.5 rms=6.49358658 zeros=1 nonfinite=0\n"));
    EXPECT_THAT(run.out, HasSubstr("f3=1 min=12 max=23 mean=17.5 "));
    EXPECT_THAT(run.out, HasSubstr("\n  min=0 max=23 mean=11.5 rms=13.4226177 zeros=1 nonfinite=0\n"));
    EXPECT_THAT(shell("qas info cube.H").out, Not(HasSubstr("f3=0")));
}

TEST_F(QasTool, InfoComparesTheHeaderWithTheDataFile) {
    write_cube("cube.H");
    std::filesystem::resize_file(dir / "cube.H@", 96 - 4 * 5 - 1);
    Outcome run = shell("qas info --panels cube.H");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(run.out, HasSubstr("96 bytes; data: 75 bytes, 21 too few"));
    EXPECT_THAT(run.out, HasSubstr("f3=1 min=12 max=17 mean=14.5 rms=14.6002283 zeros=0 nonfinite=0 (incomplete)"));
    write_cube("cube.H");
    std::filesystem::resize_file(dir / "cube.H@", 100);
    run = shell("qas info cube.H");
    EXPECT_THAT(run.out, HasSubstr("data: 100 bytes, 4 too many"));
    EXPECT_THAT(run.out, HasSubstr("zeros=1 ")) << "what lies behind the axes does not count";
    write_header("none.H", "n1=5\n");
    run = shell("qas info none.H");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, HasSubstr("data: none"));
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
    expect_good("qas window cube.H f1=1 j1=2 f2=1 j2=1 n2=1 j3=5 > w.H");
    EXPECT_EQ(samples("w.H"), (std::vector<float>{5, 7}));
    EXPECT_EQ(value("w.H", "n1"), "2");
    EXPECT_EQ(value("w.H", "o1"), "11");
    EXPECT_EQ(value("w.H", "d1"), "2");
    EXPECT_EQ(value("w.H", "n2"), "1");
    EXPECT_EQ(value("w.H", "o2"), "22");
    EXPECT_EQ(value("w.H", "n3"), "1");
    EXPECT_EQ(value("w.H", "d3"), "15");
    for (const auto& [words, expected] :
         std::map<std::string, std::vector<float>>{{"f3=1 f2=2", {20, 21, 22, 23}},          // whole lines
                                                   {"j2=2 n1=1", {0, 8, 12, 20}},            // a step on a slow axis
                                                   {"f1=3", {3, 7, 11, 15, 19, 23}},         // parts of lines
                                                   {"n2=2 n3=1", {0, 1, 2, 3, 4, 5, 6, 7}},  // several lines at once
                                                   {"j1=3 j2=2 f3=1", {12, 15, 20, 23}}}) {
        expect_good("qas window cube.H " + words + " > w.H");
        EXPECT_EQ(samples("w.H"), expected) << words;
        expect_good("cat cube.H | qas window " + words + " | qas cat - stdout=p.H");
        EXPECT_EQ(samples("p.H"), expected) << words;
    }
}

TEST_F(QasTool, WindowKeepsComplexSamplesTogetherAndLargeOnesInOrder) {
    files::Dataset waves;  // lines longer than a block, cut and stepped
    constexpr int n = 300000;
    waves.axis(1, n, "1", "0");
    waves.axis(2, 2, "1", "0");
    waves.header["esize"] = "8";
    waves.samples.resize(std::size_t{4} * n);
    for (std::size_t i = 0; i < waves.samples.size(); ++i) waves.samples[i] = static_cast<float>(i);
    waves.write(dir / "waves.H");
    expect_good("qas window waves.H f1=1 j1=2 n1=140000 > w.H");
    expect_good("qas window waves.H f1=5 > v.H");
    std::vector<float> stepped, shifted;
    for (std::size_t line = 0; line < 2; ++line) {
        for (std::size_t i = 0; i < 140000; ++i)
            for (std::size_t part : {0, 1}) stepped.push_back(waves.samples[2 * (line * n + 1 + 2 * i) + part]);
        for (std::size_t i = 5; i < n; ++i)
            for (std::size_t part : {0, 1}) shifted.push_back(waves.samples[2 * (line * n + i) + part]);
    }
    EXPECT_TRUE(samples("w.H") == stepped);
    EXPECT_TRUE(samples("v.H") == shifted);
    EXPECT_EQ(value("w.H", "esize"), "8");
}

TEST_F(QasTool, CatPutsTogetherAlongAnyAxis) {
    write_cube("cube.H");
    expect_good("qas window cube.H n1=1 n2=2 > a.H");  // 0 4 / 12 16
    expect_good("qas window cube.H n1=1 f2=2 > b.H");  // 8 / 20
    expect_good("qas cat a.H b.H a.H axis=2 > c.H");
    EXPECT_EQ(samples("c.H"), (std::vector<float>{0, 4, 8, 0, 4, 12, 16, 20, 12, 16}));
    EXPECT_EQ(value("c.H", "n2"), "5");
    expect_good("qas cat b.H b.H > c.H");
    EXPECT_EQ(samples("c.H"), (std::vector<float>{8, 20, 8, 20}));
    EXPECT_EQ(value("c.H", "n3"), "4");
    expect_good("qas cat b.H b.H axis=4 > c.H");
    EXPECT_EQ(value("c.H", "n3"), "2");
    EXPECT_EQ(value("c.H", "n4"), "2");
    expect_good("qas cat a.H < /dev/null | qas cat - b.H axis=2 | qas info > info");
    EXPECT_THAT(files::read_text(dir / "info"), HasSubstr("n2=3 "));
    EXPECT_THAT(shell("qas cat a.H b.H > c.H").err, HasSubstr("n2=2 in a.H, 1 in b.H: only axis=3 may differ"));
    EXPECT_THAT(shell("qas cat a.H axis=5 > c.H").err, HasSubstr("axis=5"));
}

TEST_F(QasTool, CatWritesBareSamplesInEitherOrder) {
    files::Dataset line;
    line.axis(1, 3, "1", "0");
    line.samples = {1, -2.5f, 3e30f};
    line.write(dir / "line.H");
    expect_good("qas cat raw=native line.H line.H > bytes");
    const std::string once = bytes_of(line.samples);
    EXPECT_EQ(files::read_text(dir / "bytes"), once + once);
    expect_good("qas cat raw=xdr line.H > bytes");
    EXPECT_EQ(files::read_text(dir / "bytes"), files::read_text(dir / "line.H@"));
    const Outcome bad = shell("qas cat raw=little line.H");
    EXPECT_EQ(bad.status, 23);
    EXPECT_EQ(bad.out, "") << "no message among the samples";
}

TEST_F(QasTool, HeadAppendsLinesThatWin) {
    write_cube("cube.H");
    const std::string before = files::read_text(dir / "cube.H");
    expect_good("qas head cube.H o1=1e3 n3=1 label1='say \"x\"'");
    const std::string after = files::read_text(dir / "cube.H");
    EXPECT_TRUE(after.starts_with(before)) << "a history is only appended to";
    EXPECT_THAT(after, HasSubstr("qas-head:   "));
    const Outcome run = shell("qas info cube.H");
    EXPECT_THAT(run.out, HasSubstr("n1=4 d1=1 o1=1000 end=1003 label1=\"say \"x\"\""));
    EXPECT_THAT(run.out, HasSubstr("n3=1 "));
    EXPECT_EQ(value("cube.H", "in"), dir / "cube.H@") << "the data stay where they are";
    expect_good("qas head < cube.H o2=7 > copy.H");
    EXPECT_EQ(value("copy.H", "o2"), "7");
    EXPECT_EQ(samples("copy.H").size(), 12u);
}

TEST_F(QasTool, HeadRefusesLinesThatWouldSpoilAHistory) {
    write_cube("cube.H");
    const std::string before = files::read_text(dir / "cube.H");
    for (const char* word : {"n1=0", "n1=-3", "n2=many", "d1=nan", "o3=1,2", "esize=3", "data_format=float", "par=x",
                             "a.b=1", "label1=", "'label1=a\nn1=9'", "\"label1=$(printf 'a\\004b')\"", "'' x=1"}) {
        EXPECT_EQ(shell(std::string("qas head cube.H ") + word).status, 23) << word;
        EXPECT_EQ(files::read_text(dir / "cube.H"), before) << word;
    }
    EXPECT_EQ(shell("qas head cube.H").status, 23);
    EXPECT_EQ(shell("qas head new.H n1=5").status, 23);
    EXPECT_FALSE(std::filesystem::exists(dir / "new.H"));
}

TEST_F(QasTool, NpyHasTheSlowestAxisFirstAndComesBackWithItsAxes) {
    write_cube("cube.H");
    expect_good("qas npy cube.H cube.npy");
    const std::string array = files::read_text(dir / "cube.npy");
    ASSERT_EQ(array.size(), 128u + 96u);
    EXPECT_THAT(array, HasSubstr("'fortran_order': False, 'shape': (2, 3, 4), }"));
    std::vector<float> expected(24);
    std::iota(expected.begin(), expected.end(), 0.0f);
    EXPECT_EQ(array.substr(128), bytes_of(expected));
    expect_good("qas from-npy cube.npy > back.H && qas diff cube.H back.H");
    EXPECT_EQ(samples("back.H"), expected);
    EXPECT_EQ(value("back.H", "o2"), "20");
    expect_good("qas npy < cube.H side=axes | qas from-npy side=axes o1=5 | qas window n1=2 > pipe.H");
    EXPECT_EQ(value("pipe.H", "d3"), "3");
    EXPECT_EQ(value("pipe.H", "o1"), "5");
    EXPECT_EQ(samples("pipe.H").size(), 12u);
}

TEST_F(QasTool, NpyKeepsComplexSamplesIntegersAndBytes) {
    files::Dataset waves;
    waves.axis(1, 2, "1", "0");
    waves.header["esize"] = "8";
    waves.samples = {1, 2, 3, -4};
    waves.write(dir / "waves.H");
    expect_good("qas npy waves.H waves.npy && qas from-npy waves.npy > back.H && qas diff waves.H back.H");
    EXPECT_THAT(files::read_text(dir / "waves.npy"), HasSubstr("c8"));
    EXPECT_EQ(samples("back.H"), waves.samples);
    EXPECT_EQ(value("back.H", "esize"), "8");
    files::write_text(dir / "int.bin", std::string("\0\0\1\2\xff\xff\xff\xfe", 8));
    write_header("int.H", "n1=2 in=./int.bin data_format=xdr_int\n");
    expect_good("qas npy int.H int.npy && qas from-npy int.npy > back.H && qas diff int.H back.H");
    EXPECT_THAT(shell("qas info int.H").out, HasSubstr("min=-2 max=258 "));
    EXPECT_EQ(files::read_text(value("back.H", "in")), files::read_text(dir / "int.bin"));
    write_header("byte.H", "n1=8 in=./int.bin data_format=xdr_byte\n");
    expect_good("qas npy byte.H byte.npy && qas from-npy byte.npy > back.H && qas diff byte.H back.H");
    EXPECT_EQ(files::read_text(value("back.H", "in")), files::read_text(dir / "int.bin"));
}

TEST_F(QasTool, FromNpyTakesEitherByteOrderEitherIndexOrderAndDoublePrecision) {
    const std::string c_order = "{'descr': '>f4', 'fortran_order': False, 'shape': (2, 3), }";
    files::write_text(dir / "big.npy", npy_file(c_order, bytes_of({1, 2, 3, 4, 5, 6}, true)));
    expect_good("qas from-npy big.npy > a.H");
    EXPECT_EQ(samples("a.H"), (std::vector<float>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(value("a.H", "n1"), "3");
    EXPECT_EQ(value("a.H", "n2"), "2");
    const std::string f_order = "{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }";
    files::write_text(dir / "fortran.npy", npy_file(f_order, bytes_of({1, 2, 3, 4, 5, 6})));
    expect_good("qas from-npy fortran.npy > a.H");
    EXPECT_EQ(value("a.H", "n1"), "2");
    EXPECT_EQ(value("a.H", "n2"), "3");
    std::string doubles;
    for (const double v : {0.1, -2.0, 1e-60, 3.0}) doubles.append(reinterpret_cast<const char*>(&v), 8);
    files::write_text(dir / "wide.npy",
                      npy_file("{'descr': '<c16', 'fortran_order': False, 'shape': (2,), }", doubles));
    expect_good("qas from-npy wide.npy > a.H");
    EXPECT_EQ(samples("a.H"), (std::vector<float>{0.1f, -2, 0, 3}));
    EXPECT_EQ(value("a.H", "esize"), "8");
}

TEST_F(QasTool, FromNpyRefusesWhatCannotBeKept) {
    const auto refused = [&](const std::string& bytes, const char* part) {
        files::write_text(dir / "x.npy", bytes);
        const Outcome run = shell("qas from-npy x.npy stdout=x.H");
        EXPECT_EQ(run.status, 23);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, HasSubstr(part));
        EXPECT_FALSE(std::filesystem::exists(dir / "x.H")) << part;
    };
    const std::string fine = "{'descr': '<f4', 'fortran_order': False, 'shape': (2,)}";
    refused("", "x.npy: not a .npy file");
    refused(npy_file(fine, "1234567"), "x.npy: its shape needs 8 bytes behind the header, there are 7");
    refused(npy_file("{'descr': '<f2', 'fortran_order': False, 'shape': (2,)}", "1234"), "dtype '<f2'");
    refused(npy_file("{'descr': '<f4', 'fortran_order': False, 'shape': (-2,)}", "12345678"), "axis of -2 samples");
    refused(npy_file("{'descr': '<f4', 'fortran_order': 1, 'shape': (2,)}", "12345678"), "True or False");
    refused(npy_file("{'descr': '<f4', 'fortran_order': False, 'shape': (1000000000000,)}", ""), "needs 4000000000000");
    const double large = 1e300;
    files::write_text(dir / "x.npy", npy_file("{'descr': '<f8', 'fortran_order': False, 'shape': (1,)}",
                                              std::string(reinterpret_cast<const char*>(&large), 8)));
    EXPECT_THAT(shell("qas from-npy x.npy > y.H").err, HasSubstr("1e+300 does not fit single precision"));
    files::write_text(dir / "x.npy", npy_file(fine, "123456789"));
    EXPECT_THAT(shell("qas from-npy x.npy > y.H").err, HasSubstr("warning: x.npy: 1 bytes behind the samples"));
    EXPECT_THAT(shell("head -c 60 x.npy | qas from-npy > y.H").err, HasSubstr("standard input"));
}

TEST_F(QasTool, DiffEndsLikeDiff) {
    write_cube("a.H");
    write_cube("b.H");
    const auto status = [&](const std::string& words) { return shell("qas diff " + words).status; };
    EXPECT_EQ(status("a.H b.H"), 0);
    std::vector<float> changed = samples("b.H");
    changed[17] += 0.5f;
    files::write_floats(dir / "b.H@", changed);
    const Outcome run = shell("qas diff a.H b.H");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.out, HasSubstr("relative_l2=0.00760373"));
    EXPECT_THAT(run.out, HasSubstr("largest=0.5 at f1=1 f2=1 f3=1 (17 and 17.5)"));
    EXPECT_EQ(status("a.H b.H tol=0.0077"), 0);
    EXPECT_EQ(status("a.H b.H tol=0.0075"), 1);
    EXPECT_EQ(status("a.H b.H max=0.5"), 0);
    EXPECT_EQ(status("a.H b.H max=0.49"), 1);
    EXPECT_EQ(status("a.H b.H tol=1 max=0.49"), 1);
    EXPECT_EQ(status("a.H b.H tol=-1"), 2);
    EXPECT_EQ(status("a.H b.H tol=x"), 2);
    EXPECT_EQ(status("a.H"), 2);
    EXPECT_EQ(status("a.H missing.H"), 2);
    EXPECT_EQ(status("- - < a.H"), 2);
    EXPECT_EQ(shell("cat a.H | qas diff - a.H").status, 0);
    expect_good("qas head b.H d2=2.1");
    EXPECT_THAT(shell("qas diff a.H b.H tol=1").out, HasSubstr("d2 is 2 and 2.1"));
    EXPECT_EQ(status("a.H b.H tol=1"), 1);
    expect_good("qas head b.H d2=2 n3=1");
    EXPECT_EQ(status("a.H b.H tol=1"), 1);
    expect_good("qas head b.H n1=2 n3=2 esize=8 && qas head a.H n1=2");
    EXPECT_EQ(status("a.H b.H tol=1"), 1) << "real and complex";
    std::filesystem::resize_file(dir / "b.H@", 90);
    EXPECT_EQ(status("a.H b.H"), 2) << "what cannot be read is trouble, whatever else differs";
}

TEST_F(QasTool, HistoryShowsTheChainOfPrograms) {
    write_cube("cube.H");
    expect_good("qas window cube.H f1=2 | qas head label1=x > new.H");
    expect_good("qas history new.H > list");
    const std::string list = files::read_text(dir / "list");
    EXPECT_THAT(list, ContainsRegex("^before any program:\n"));
    EXPECT_THAT(list, HasSubstr("\n1. qas-window   "));
    EXPECT_THAT(list, HasSubstr("\n   par  f1=2\n"));
    EXPECT_THAT(list, HasSubstr("\n2. qas-head   "));
    EXPECT_THAT(list, HasSubstr("\n        label1=\"x\"\n"));
    EXPECT_EQ(shell("qas history missing.H").status, 23);
    EXPECT_EQ(shell("set +o pipefail; qas window cube.H | qas history").status, 0);
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
        for (const char* line : {"qas window x.H", "qas cat x.H", "qas npy x.H", "qas head < x.H a=1"}) {
            const Outcome run = shell(line);
            EXPECT_EQ(run.status, 23) << line << ": " << c.header;
            if (std::string_view(line).starts_with("qas window")) {
                EXPECT_THAT(run.err, HasSubstr(c.part)) << c.header;
            }
        }
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
    EXPECT_EQ(shell(cut + " | qas diff - cube.H").status, 2);
    const Outcome info = shell(cut + " | qas info");
    EXPECT_THAT(info.out, HasSubstr("max=11 "));
    EXPECT_THAT(info.out, HasSubstr("too early"));
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
        {"info cube.H --all", "unknown flag --all"},
    };
    const std::string header = files::read_text(dir / "cube.H"), data = files::read_text(dir / "cube.H@");
    expect_good("mkdir sub && qas npy cube.H x.npy && qas cat cube.H > x.H");
    for (const auto& c : cases) {
        const Outcome run = shell(std::string("qas ") + c.line);
        EXPECT_EQ(run.status, 23) << c.line;
        EXPECT_THAT(run.err, HasSubstr(c.part)) << c.line;
        EXPECT_EQ(files::read_text(dir / "cube.H"), header) << c.line;
        EXPECT_EQ(files::read_text(dir / "cube.H@"), data) << c.line;
    }
}

TEST_F(QasTool, DataBehindTheHeaderAndInSeveralFilesAreReadAlike) {
    write_cube("cube.H");
    expect_good("qas window cube.H datapath=stdout > both.H && qas diff cube.H both.H");
    EXPECT_GT(std::filesystem::file_size(dir / "both.H"), 96u);
    const std::string data = files::read_text(dir / "cube.H@");
    files::write_text(dir / "one", data.substr(0, 40));
    files::write_text(dir / "two", data.substr(40));
    write_header("parts.H", "n1=4 d1=1 o1=10 n2=3 d2=2 o2=20 n3=2 d3=3 o3=30 in=\"./one;./two\"\n");
    expect_good("qas diff cube.H parts.H");
    EXPECT_THAT(shell("qas npy parts.H two").err, HasSubstr("two is a file of the input"));
    EXPECT_THAT(shell("qas info parts.H").out, HasSubstr("data: 96 bytes\n"));
}

TEST_F(QasTool, MemoryDoesNotGrowWithTheData) {
    const auto most_memory = [&](const std::string& header, const std::vector<std::string>& words) {
        std::vector<std::string> all{std::string(MORVANE_BIN_DIR) + "/qas"};
        all.insert(all.end(), words.begin(), words.end());
        for (std::string& word : all)
            if (word == "FILE") word = dir / header;
        const pid_t child = ::fork();
        if (child == 0) {
            std::vector<char*> argv;
            for (std::string& word : all) argv.push_back(word.data());
            argv.push_back(nullptr);
            const int null = ::open("/dev/null", O_RDWR);
            for (const int fd : {0, 1, 2}) ::dup2(null, fd);
            ::setenv("ASAN_OPTIONS", "quarantine_size_mb=1", 1);  // freed memory that it would hold back
            ::execv(argv[0], argv.data());
            ::_exit(99);
        }
        int status = -1;
        rusage usage{};
        ::wait4(child, &status, 0, &usage);
        EXPECT_EQ(status, 0) << words[0];
        return usage.ru_maxrss;  // KiB
    };
    for (const auto& [name, megabytes] : std::map<std::string, int>{{"small.H", 4}, {"large.H", 64}}) {
        files::write_text(dir / (name + "@"), "");
        std::filesystem::resize_file(dir / (name + "@"), std::uintmax_t{1} << 20 << (megabytes == 64 ? 6 : 2));
        write_header(name,
                     "n1=1024 n2=" + std::to_string(256 * megabytes) + " in=\"" + dir.text() + "/" + name + "@\"\n");
    }
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{"info", "--panels", "FILE"},
                                               {"diff", "FILE", "FILE"},
                                               {"npy", "FILE"},
                                               {"cat", "raw=xdr", "FILE"},
                                               {"window", "FILE", "j1=2", "datapath=stdout"}}) {
        const long small = most_memory("small.H", words), large = most_memory("large.H", words);
        EXPECT_LT(large - small, 30 * 1024) << words[0];
    }
}
