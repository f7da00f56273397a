#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <numeric>

#include "lib/corelibs/qas/files.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/io.h"
#include "lib/corelibs/qas/parameters.h"
#include "lib/corelibs/qas/transfer.h"
#include "tests/lib/corelibs/qas/workplace.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

/// Datasets that are read and written, spread over files, or taken in pieces.
class Updates : public Workplace {
protected:
    void prepare(qas::Layer& layer, std::vector<std::string> words) const {
        words.insert(words.begin(), "prog");
        qas::initpar(layer, std::move(words));
        layer.notes.err = err_;
        layer.out = out_;
        layer.in = in_;
    }
};

std::vector<float> ramp(std::size_t n) {
    std::vector<float> values(n);
    std::iota(values.begin(), values.end(), 0.0f);
    return values;
}

}  // namespace

TEST_F(Updates, ANewInOutDatasetReadsBackItsLinesAndSamples) {
    const std::vector<float> samples = ramp(4);
    auto s = session({"m=m.H", "datapath=./", "m.write_title=no"});
    s->auxinout("m");
    s->to_history("n1", 4, "m");
    EXPECT_EQ(s->from_aux<int>("m", "n1"), 4);
    s->to_history("n1", 2, "m");
    EXPECT_EQ(s->from_aux<int>("m", "n1"), 2);
    EXPECT_EQ(s->srite("m", samples.data(), 16), 16);
    EXPECT_EQ(s->sseek("m", 4, 0), 4);
    EXPECT_EQ(s->file_position("m"), 4);
    float value = 0;
    EXPECT_EQ(s->sreed("m", &value, 4), 4);
    EXPECT_EQ(value, 1.0f);
    s->hclose();
    EXPECT_EQ(read_file("m.H"), "\t\tn1=4\n\t\tn1=2\n\t\tsets next: in=\"./m.H@\"\n\t\tdata_format=\"xdr_float\"\n\n");
}

TEST_F(Updates, AnExistingInOutDatasetIsContinued) {
    write_file("m.H", "n1=2 in=\"d\" data_format=native_float\n");
    const std::vector<float> old{5, 6};
    write_file("d", std::string(reinterpret_cast<const char*>(old.data()), 8));
    {
        auto s = session({"m=m.H", "m.write_title=no"});
        s->auxinout("m");
        EXPECT_EQ(s->from_aux<int>("m", "n1"), 2);
        std::vector<float> back(2);
        EXPECT_EQ(s->sreed("m", back.data(), 8), 8);
        EXPECT_EQ(back, old);
        const float more = 7;
        s->srite("m", &more, 4);
        s->to_history("n1", 3, "m");
        EXPECT_EQ(s->sseek("m", 0, 0), 0);
        s->srite("m", &more, 4);
    }
    EXPECT_EQ(read_file("m.H"),
              "n1=2 in=\"d\" data_format=native_float\n\t\tsets next: in=\"d\"\n"
              "\t\tdata_format=\"native_float\"\n\t\tn1=3\n");
    std::vector<float> back(3);
    auto s = session();
    EXPECT_EQ(s->from_aux<int>("m.H", "n1"), 3);
    EXPECT_EQ(s->sreed("m.H", back.data(), 12), 12);
    EXPECT_EQ(back, (std::vector<float>{7, 6, 7}));
}

TEST_F(Updates, InOutHeadersWithoutDataGetADataFile) {
    for (const char* header : {"n1=2\n", "n1=2 in=-1\n"}) {
        write_file("m.H", header);
        auto s = session({"datapath=./"});
        s->auxinout("m.H");
        const float value = 3;
        EXPECT_EQ(s->srite("m.H", &value, 4), 4);
        EXPECT_EQ(read_file("m.H@"), xdr<float>({3}));
    }
}

TEST_F(Updates, InOutAndScratchTexts) {
    std::filesystem::create_directory("folder");
    const std::string not_regular = " dataset because it is not a regular file \n";
    for (const char* name : {"folder", "stdin", "stdout", "|cmd", "cmd|", "host:1"}) {
        auto s = session({"m=" + std::string(name)});
        EXPECT_EQ(fatal([&] { s->auxinout("m"); }),
                  "Headername \"" + std::string(name) + "\" for tag \"m\" cannot be opened as an in/out" + not_regular);
        EXPECT_EQ(fatal([&] { s->auxscr("m"); }),
                  "Headername \"" + std::string(name) + "\" for tag \"m\" cannot be opened as a scratch" + not_regular);
    }
    EXPECT_EQ(fatal([&] { session({"m=/no/such/m.H"})->auxinout("m"); }),
              "Headername \"/no/such/m.H\" for tag \"m\" cannot be opened read/write \n");
    EXPECT_THAT(errors(), HasSubstr("qasstrinouthead, openfile(): No such file or directory\n"));
    EXPECT_THAT(fatal([&] { session({"m=/no/such/m.H"})->auxscr("m"); }), HasSubstr("as a scratch dataset"));
    write_file("follow.H", "n1=1 in=stdin\n");
    write_file("itself.H", "n1=1 in=itself.H\n");
    for (const char* name : {"follow.H", "itself.H"})
        EXPECT_EQ(fatal([&] { session()->auxinout(name); }),
                  "tag \"" + std::string(name) + "\" in/out dataset cannot be a pipe or the same file as the header\n");
    float value = 0;
    write_file("gone.H", "n1=1 in=/no/such/data\n");
    auto s = session({"scr.out=/no/such/data"});
    s->auxinout("gone.H");
    EXPECT_THAT(fatal([&] { s->sreed("gone.H", &value, 4); }), StartsWith("sreed(): invalid input tag gone.H\n"));
    s->auxscr("scr");
    EXPECT_THAT(fatal([&] { s->srite("scr", &value, 4); }), StartsWith("srite(): invalid output tag scr\n"));
    EXPECT_THAT(errors(), EndsWith("unable to open input/output datafile /no/such/data for tag gone.H \n"
                                   "unable to open scratch datafile /no/such/data for tag scr \n"));
}

TEST_F(Updates, AScratchDatasetStartsEmpty) {
    write_file("scr", "n1=5\n");
    auto s = session({"datapath=./", "scr.write_title=no"});
    s->auxscr("scr");
    EXPECT_EQ(read_file("scr"), "");
    s->to_history("n1", 4, "scr");
    EXPECT_EQ(s->from_aux<int>("scr", "n1"), 4);
    const std::vector<float> samples = ramp(3);
    s->srite("scr", samples.data(), 12);
    s->sseek("scr", 8, 0);
    float value = 0;
    s->sreed("scr", &value, 4);
    EXPECT_EQ(value, 2.0f);
}

TEST_F(Updates, ALineThatIsWrittenAgainReplacesItself) {
    auto s = session({"g.write_title=n", "datapath=./"});
    s->to_history("n1", 1, "g");
    s->put_last("done", 1, "g");
    s->put_last("done", 100, "g");
    EXPECT_EQ(read_file("g"), "\t\tn1=1\n\t\tputlast: done=100\n");
    s->put_last("done", 7, "g");  // shorter
    EXPECT_EQ(read_file("g"), "\t\tn1=1\n\t\tputlast: done=7\n");
    s->put_last("other", 1, "g");
    s->put_last("done", 8, "g");
    s->to_history("n2", 2, "g");
    s->put_last("done", 9, "g");
    const std::string text =
        "\t\tn1=1\n\t\tputlast: done=7\n\t\tputlast: other=1\n\t\tputlast: done=8\n\t\tn2=2\n\t\tputlast: done=9\n";
    EXPECT_EQ(read_file("g"), text);
    s.reset();
    auto t = session({"g.write_title=n"});  // an in/out dataset goes on with the file as it finds it
    t->auxinout("g");
    t->put_last("done", 10, "g");
    EXPECT_EQ(read_file("g"), text.substr(0, text.size() - 2) + "10\n");
    EXPECT_EQ(t->from_aux<int>("g", "done"), 10);
    t->put_last<std::string>("long", std::string(400, 'v'), "g");  // further back than is looked
    t->put_last<std::string>("long", std::string(3, 'w'), "g");
    EXPECT_THAT(read_file("g"), EndsWith(std::string(400, 'v') + "\"\n\t\tputlast: long=\"www\"\n"));
}

TEST_F(Updates, OnlyTheLastLineOfTheFileIsReplaced) {
    set_output_file("o");
    auto s = session({"out.write_title=n", "out=d"});
    s->put_last("done", 1);
    std::fputs("printed by the program\n", out_);
    s->put_last("done", 2);
    EXPECT_THAT(read_file("o"), EndsWith("\t\tputlast: done=1\nprinted by the program\n\t\tputlast: done=2\n"));
    std::fclose(out_);
    out_ = std::fopen("o", "a");
    std::rewind(in_);
    auto t = session({"out.write_title=n", "out=d"});
    t->put_last("done", 3);
    t->put_last("done", 4);
    EXPECT_THAT(read_file("o"), EndsWith("\t\tputlast: done=3\n\t\tputlast: done=4\n"));
}

TEST_F(Updates, LookUpsInSeveralPlaces) {
    set_input("a=1 b=2 d=9\n");
    auto s = session({"a=10"});
    s->set_second_table("in", "c=3 b=4 d=5\n");
    EXPECT_EQ(s->hetch<int>("a"), 1);
    EXPECT_EQ(s->fetch<int>("a"), 10);
    EXPECT_EQ(s->fetch<int>("b"), 2);
    EXPECT_EQ(s->tetch<int>("a"), 10);
    EXPECT_EQ(s->tetch<int>("b"), 4);
    EXPECT_EQ(s->hetch<int>("c"), 3);  // behind the history
    EXPECT_EQ(s->hetch<int>("d"), 9);
    EXPECT_EQ(s->hetch<int>("none"), std::nullopt);
    s->getch_add_string("a=11");
    EXPECT_EQ(s->fetch<int>("a"), 11);
    std::rewind(in_);
    EXPECT_EQ(session({"a="})->tetch<int>("a"), std::nullopt);
}

TEST_F(Updates, CopyingAHistoryComesFirst) {
    write_file("h", "n1=1\n");
    set_input("");
    qas::Layer layer;
    prepare(layer, {"datapath=./"});
    const qas::streaminf& from = *qas::tag_info(layer, "h", qas::Mode::input);
    qas::auxputch(layer, "n1", 2, "g");
    EXPECT_EQ(fatal([&] { qas::qasstr_copyh(layer, from, *qas::tag_info(layer, "g", qas::Mode::output)); }),
              "cannot copy header to output tag \"g\" after it has been used \n");
}

TEST_F(Updates, NamesOfSeveralDataFiles) {
    const float value = 1;
    struct {
        const char* fault;
        std::vector<std::string> words;
        std::string names;
    } const rows[] = {
        {"all in one folder", {"nfiles=3", "datapath=/d/"}, "/d/g@;/d/g@1;/d/g@2"},
        {"as many as a folder takes",
         {"nfiles=3", "datapath=/a/;/b/", "dirsize=2,9", "filesize=1"},
         "/a/g@;/a/g@1;/b/g@2"},
        {"the last size counts for the rest",
         {"nfiles=4", "datapath=/a/;/b/", "dirsize=3", "filesize=1,2"},
         "/a/g@;/a/g@1;/b/g@2;/b/g@3"},
        {"folders full", {"nfiles=9", "datapath=/a/", "dirsize=2", "filesize=1"}, "/a/g@;/a/g@1"},
        {"one file, several folders", {"datapath=/a/;/b/"}, "/a/g@"},
    };
    for (auto row : rows) {
        SCOPED_TRACE(row.fault);
        row.words.push_back("g.write_title=n");
        auto s = session(row.words);
        s->auxhclose("g");
        EXPECT_THAT(read_file("g"), HasSubstr("in=\"" + row.names + "\"\n"));
    }
    const auto text = [&](std::vector<std::string> words) {
        words.push_back("datapath=./");
        return fatal([&] { session(words)->srite("h", &value, 4); });
    };
    EXPECT_EQ(text({"nfiles=1001"}), "nfiles to large, max 1000 \n");
    EXPECT_THAT(text({"nfiles=0"}), StartsWith("parameter nfiles=0: must be 1"));
    EXPECT_THAT(text({"filesize=0"}), StartsWith("parameter filesize: 0 megabytes"));
    EXPECT_THAT(text({"dirsize=5,-1"}), StartsWith("parameter dirsize: -1 megabytes"));
}

TEST_F(Updates, DataInSeveralFiles) {
    const std::vector<float> samples = ramp((5 << 20) / 8);  // 2.5 MiB
    const auto nbytes = static_cast<std::int64_t>(4 * samples.size());
    const std::string first = dir_.string() + "/a_g@", both = first + ";" + dir_.string() + "/b_g@1";
    const std::string prefix = "datapath=" + dir_.string() + "/a_;" + dir_.string() + "/b_";
    const std::vector<std::string> words{"nfiles=3", "filesize=1,1,2", "dirsize=1,9", prefix, "g.write_title=n"};
    {
        auto s = session(words);
        EXPECT_EQ(s->srite("g", samples.data(), 400000), 400000);
        EXPECT_THAT(read_file("g"), EndsWith("data_format=\"xdr_float\"\n\t\tsets next: in=\"" + first + "\"\n"));
        EXPECT_EQ(s->srite("g", samples.data() + 100000, 1200000), 1200000);
        EXPECT_THAT(read_file("g"), EndsWith("\t\tsets next: in=\"" + both + "\"\n"));
        EXPECT_EQ(std::filesystem::file_size("a_g@"), 1048576U);
        EXPECT_EQ(s->srite("g", samples.data() + 400000, nbytes - 1600000), nbytes - 1600000);
    }
    EXPECT_EQ(std::filesystem::file_size("b_g@1"), 1048576U);
    EXPECT_EQ(read_file("a_g@") + read_file("b_g@1") + read_file("b_g@2"), xdr(samples));
    auto s = session();
    EXPECT_EQ(s->data_size("g"), nbytes);
    std::vector<float> back(samples.size());
    EXPECT_EQ(s->sreed("g", back.data(), nbytes), nbytes);
    EXPECT_EQ(back, samples);
    const auto at = [&](std::int64_t offset, int whence) {
        const std::int64_t position = s->sseek("g", offset, whence);
        EXPECT_EQ(s->file_position("g"), position);
        float value = -1;
        s->sreed("g", &value, 4);
        return value;
    };
    EXPECT_EQ(at(0, 0), 0.0f);
    EXPECT_EQ(at(1048576 - 4, 0), 262143.0f);
    EXPECT_EQ(at(0, 1), 262144.0f);  // on over the end of the first file
    EXPECT_EQ(at(1048576, 0), 262144.0f);
    EXPECT_EQ(at(-8, 1), 262143.0f);
    EXPECT_EQ(at(-4, 2), samples.back());
    EXPECT_EQ(s->sseek("g", 2 * 1048576 + 8, 0), 2 * 1048576 + 8);
    EXPECT_EQ(fatal([&] { s->sseek("g", -1, 0); }),
              "multifd_seek(): seeking past start of all available files for tag \"g\" \n");
    EXPECT_EQ(s->sreed("g", back.data(), nbytes), nbytes - 2 * 1048576 - 8);
}

TEST_F(Updates, RewritingDataInSeveralFiles) {
    const std::vector<float> samples = ramp(300000);  // 1.2 MB, over two files
    auto s = session({"nfiles=3", "filesize=1", "datapath=./"});
    s->srite("g", samples.data(), 1200000);
    EXPECT_EQ(s->sseek("g", 0, 2), -1);  // an output has no end to seek from
    EXPECT_EQ(s->sseek("g", 1048572, 0), 1048572);
    const std::vector<float> two{-1, -2};
    EXPECT_EQ(s->srite("g", two.data(), 8), 8);
    EXPECT_EQ(s->file_position("g"), 1048580);
    std::vector<float> expected = samples;
    expected[262143] = -1;
    expected[262144] = -2;
    EXPECT_EQ(read_file("g@") + read_file("g@1"), xdr(expected));
    EXPECT_EQ(std::filesystem::file_size("g@2"), 0U);
    EXPECT_EQ(s->sseek("g", 0, 9), 1048580);
    EXPECT_THAT(errors(), HasSubstr("unknown seek type requested\n"));
    auto u = session({"nfiles=2", "filesize=1", "datapath=./"});
    u->auxinout("u");
    u->srite("u", samples.data(), 1200000);
    EXPECT_EQ(u->sseek("u", -4, 2), 1199996);
    float last = 0;
    EXPECT_EQ(u->sreed("u", &last, 4), 4);
    EXPECT_EQ(last, 299999.0f);
}

TEST_F(Updates, SeveralFilesTexts) {
    const std::vector<float> samples = ramp(300000);
    auto s = session({"nfiles=1", "g.out=a;b", "filesize=1", "h.out=c;follow_hdr"});
    EXPECT_EQ(s->srite("g", samples.data(), 1200000), 1200000);
    std::vector<float> more = ramp(300000);
    EXPECT_EQ(fatal([&] { s->srite("g", more.data(), 1200000); }),
              "xdr_rite(): I/O error on output for tag \"g\" -- ierr=110720 \n");  // 2 MiB hold no more
    EXPECT_EQ(fatal([&] { s->srite("h", samples.data(), 4); }),
              "follow_hdr is invalid for file descriptor I/O for tag \"h\"\n");
    write_file("in.H", "in=\"a;gone\"\n");
    EXPECT_THAT(fatal([&] { s->sreed("in.H", more.data(), 4); }),
                AllOf(StartsWith("sreed(): invalid input tag in.H\n"), HasSubstr("\"gone\"")));
    std::string names = "a";
    for (int i = 0; i < 1000; ++i) names += ";a";
    write_file("many.H", "in=\"" + names + "\"\n");
    EXPECT_THAT(fatal([&] { s->sreed("many.H", more.data(), 4); }), StartsWith("nfiles to large, max 1000 \n"));
    write_file("none.H", "in=\";;\"\n");
    EXPECT_EQ(fatal([&] { s->sreed("none.H", more.data(), 4); }), "Invalid dataset \";;\" for tag \"none.H\"\n");

    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf socket;
    socket.tagname = "sock";
    socket.entrytype = qas::STREAMSOCKOUT;
    socket.dataname = "a;b";
    EXPECT_EQ(fatal([&] { qas::multifd_io.open(layer, socket); }), "STREAMSOCKOUT can not be of multi-file type \n");
    EXPECT_THAT(errors(), EndsWith("Stream socket can not be broken into multiple files \n"));
}

TEST_F(Updates, AFileThatCannotBeRewoundEndsAMultiFileWrite) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    auto s = session({qas::strprintf("g.out=b;/proc/self/fd/%d", ends[1]), "filesize=1"});
    const std::vector<float> samples = ramp(300000);
    EXPECT_EQ(fatal([&] { s->srite("g", samples.data(), 1200000); }),
              "multifd_write() unable to seek to file start for tag \"g\", file 1 \n");
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(Updates, OtherFormatsForOneCall) {
    auto s = session({"datapath=./"});
    const std::vector<int> words{1, -2};
    EXPECT_EQ(s->srite("g", words.data(), 8), 8);
    EXPECT_EQ(s->srite2("g", words.data(), 8, "native_float"), 8);
    EXPECT_EQ(s->srite_raw("g", words.data(), 8), 8);
    EXPECT_EQ(s->srite2("g", "abc", 3, "xdr_byte"), 3);
    const std::string raw(reinterpret_cast<const char*>(words.data()), 8);
    EXPECT_EQ(read_file("g@"), xdr(words) + raw + raw + "abc");
    auto t = session();
    std::vector<int> back(2);
    EXPECT_EQ(t->sreed2("g", back.data(), 8, "xdr_int"), 8);
    EXPECT_EQ(back, words);
    EXPECT_EQ(t->sreed_raw("g", back.data(), 8), 8);
    EXPECT_EQ(back, words);
    EXPECT_EQ(t->sreed2("g", nullptr, 0, "xdr_int"), 0);
    EXPECT_THAT(fatal([&] { t->sreed2("g", back.data(), 8, "ascii"); }), StartsWith("unknown data format: ascii \n "));
    EXPECT_THAT(fatal([&] { s->srite2("g", back.data(), 8, ""); }), StartsWith("unknown data format:  \n "));
    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf& stream = *qas::tag_info(layer, "g", qas::Mode::input);
    EXPECT_EQ(fatal([&] { qas::sreed_xdr(layer, stream, back.data(), 8, 3); }),
              "xdr_reed(): tag \"g\" I don't grok this format\n");
    EXPECT_EQ(fatal([&] { qas::srite_xdr(layer, stream, back.data(), 8, -1); }),
              "xdr_rite(): tag \"g\" I don't grok this format\n");
}

TEST_F(Updates, WindowsOfAGrid) {
    const std::vector<float> samples = ramp(5 * 4 * 3);
    auto s = session({"datapath=./"});
    s->auxinout("g");
    s->srite("g", samples.data(), 240);
    const qas::Window rows[] = {
        {{5, 4, 3}, {5, 4, 3}, {0, 0, 0}, {1, 1, 1}, 4},
        {{5, 4, 3}, {2, 2, 2}, {1, 1, 1}, {1, 1, 1}, 4},
        {{5, 4, 3}, {2, 2, 2}, {0, 1, 0}, {3, 2, 2}, 4},
        {{5, 4, 3}, {1, 1, 1}, {4, 3, 2}, {9, 9, 9}, 4},
        {{60}, {20}, {1}, {3}, 4},
        {{5, 12}, {3, 2}, {0, 2}, {2, 5}, 4},
    };
    for (const qas::Window& window : rows) {
        std::vector<float> expected;
        std::vector<std::int64_t> n = window.n, first = window.first, step = window.step, grid = window.grid;
        for (auto* v : {&n, &grid}) v->resize(3, 1);
        first.resize(3, 0);
        step.resize(3, 1);
        for (std::int64_t k = 0; k < n[2]; ++k)
            for (std::int64_t j = 0; j < n[1]; ++j)
                for (std::int64_t i = 0; i < n[0]; ++i)
                    expected.push_back(
                        static_cast<float>(first[0] + i * step[0] +
                                           grid[0] * (first[1] + j * step[1] + grid[1] * (first[2] + k * step[2]))));
        std::vector<float> back(expected.size());
        EXPECT_EQ(s->sreed_window("g", window, back.data()), static_cast<std::int64_t>(4 * back.size()));
        EXPECT_EQ(back, expected);
        for (float& value : back) value = -value;
        EXPECT_EQ(s->srite_window("g", window, back.data()), static_cast<std::int64_t>(4 * back.size()));
        s->sseek("g", 0, 0);
        std::vector<float> all(60), changed = samples;
        for (const float value : expected) changed[static_cast<std::size_t>(value)] = -value;
        s->sreed("g", all.data(), 240);
        EXPECT_EQ(all, changed);
        s->sseek("g", 0, 0);
        s->srite("g", samples.data(), 240);
    }
}

TEST_F(Updates, WindowsWiderThanABlockAndBeyondTheEnd) {
    const std::vector<float> samples = ramp(700000);
    session({"datapath=./"})->srite("g", samples.data(), 2800000);
    auto s = session();
    std::vector<float> back(100000, -1);
    EXPECT_EQ(s->sreed_window("g", {{700000}, {100000}, {3}, {7}, 4}, back.data()), 400000);
    for (std::size_t i = 0; i < back.size(); ++i) ASSERT_EQ(back[i], samples[3 + 7 * i]);
    back.assign(3, -1);
    EXPECT_EQ(s->sreed_window("g", {{2000000}, {3}, {1}, {600000}, 4}, back.data()), 8);
    EXPECT_EQ(back, (std::vector<float>{1, 600001, -1}));
    EXPECT_EQ(s->sreed_window("g", {{700000, 2}, {1, 2}, {9, 0}, {1, 1}, 4}, back.data()), 4);
    const std::vector<qas::Window> wrong = {{{}, {}, {}, {}, 4},
                                            {{5}, {6}, {0}, {1}, 4},
                                            {{5}, {1}, {5}, {1}, 4},
                                            {{5}, {2}, {0}, {5}, 4},
                                            {{5}, {1}, {-1}, {1}, 4},
                                            {{5}, {1}, {0}, {0}, 4},
                                            {{5}, {0}, {0}, {1}, 4},
                                            {{5}, {1}, {0}, {1}, 0},
                                            {{5, 5}, {1}, {0}, {1}, 4},
                                            {{5}, {3}, {0}, {std::int64_t{1} << 62}, 4},
                                            {{std::int64_t{1} << 62}, {1}, {0}, {1}, 4}};
    for (const qas::Window& window : wrong)
        EXPECT_THAT(fatal([&] { s->sreed_window("g", window, back.data()); }), StartsWith("window of tag \"g\""));
}

TEST_F(Updates, SeekingByBlocks) {
    session({"datapath=./"})->srite("g", ramp(8).data(), 32);
    auto s = session();
    float value = -1;
    s->sreed("g", &value, 4);
    EXPECT_EQ(s->sseek_block("g", 3, 8, 0), 24);
    EXPECT_EQ(s->file_position("g"), 24);
    EXPECT_EQ(s->sseek_block("g", -2, 8, 1), 8);
    EXPECT_EQ(s->sseek_block("g", -1, 4, 2), 28);
    EXPECT_TRUE(s->sseekable("g"));
    EXPECT_EQ(s->sseek_block("g", std::int64_t{3} << 20, 1024, 0), std::int64_t{3} << 30);
    EXPECT_THAT(fatal([&] { s->sseek_block("g", std::int64_t{1} << 62, 8, 0); }), HasSubstr("out of range"));
    EXPECT_EQ(fatal([&] { s->file_position("none"); }), "Unknown tag \"none\" \n");
}

TEST_F(Updates, FilesByMode) {
    EXPECT_EQ(fatal([] { qas::file("none", 0); }), "file() can't open file none\n");
    EXPECT_EQ(fatal([] { qas::file("/no/such/f", 1); }), "file() can't create file /no/such/f\n");
    EXPECT_EQ(fatal([] { qas::file("/no/such/f", 2); }), "file() can't create file /no/such/f\n");
    write_file("f", "old");
    { const qas::Descriptor fd(qas::file("f", 2)); }
    EXPECT_EQ(read_file("f"), "old");
    { const qas::Descriptor fd(qas::file("f", 1)); }
    EXPECT_EQ(read_file("f"), "");
    { const qas::Descriptor fd(qas::file("g", 2)); }
    EXPECT_TRUE(std::filesystem::exists("g"));
}

TEST_F(Updates, DataNamesThatMeanAStreamInTheWrongPlace) {
    float value = 1;
    write_file("i.H", "in=stdout\n");
    auto s = session({"o.out=stdin", "p.out=stdout"});
    EXPECT_THAT(fatal([&] { s->sreed("i.H", &value, 4); }),
                StartsWith("unable to obtain input file \"stdout\" for tag \"i.H\"\n"));
    s->srite("o", &value, 4);  // a file of that name
    EXPECT_EQ(read_file("stdin"), xdr<float>({1}));
    std::filesystem::remove("stdin");
    std::filesystem::create_directory("stdin");
    auto t = session({"o.out=stdin"});
    EXPECT_THAT(fatal([&] { t->srite("o", &value, 4); }),
                StartsWith(" unable to open output datafile stdin for tag o \n"));
    for (const auto open : {&qas::Session::auxinout, &qas::Session::auxscr}) {
        auto u = session({"u.out=stdin"});
        ((*u).*open)("u");
        EXPECT_THAT(fatal([&] { u->srite("u", &value, 4); }), StartsWith("unable to open "));
    }
}

TEST_F(Updates, AFolderThatIsGone) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove(dir_ / "gone");
    auto s = session({"out=rel", "head=stderr"});
    EXPECT_THAT(fatal([&] { s->to_history("n1", 1); }), StartsWith("fullnm(): 2, No such file or directory\n"));
    std::filesystem::current_path(dir_);
}
