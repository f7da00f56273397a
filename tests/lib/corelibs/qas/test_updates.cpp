#include <fcntl.h>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "lib/corelibs/qas/tags/history_lines.h"
#include "lib/corelibs/qas/tags/transfer.h"
#include "tests/lib/corelibs/qas/workplace.h"

namespace {

using Words = std::vector<std::string>;
using Samples = std::vector<float>;

/// Datasets that are read and written, spread over files, or taken in pieces.
class Updates : public Workplace {};

}  // namespace

TEST_F(Updates, NewInOutAndScratchDatasetsReadBackTheirLinesAndSamples) {
    write_text("scr", "n1=5\n");  // a scratch dataset starts empty
    auto s = session({"datapath=./", "m.write_title=no", "scr.write_title=no"});
    s->auxinout("m");
    s->auxscr("scr");
    for (const std::string tag : {"m", "scr"}) {
        EXPECT_EQ(read_text(tag), "");
        for (const int n : {4, 2}) {
            s->to_history("n1", n, tag);
            EXPECT_EQ(s->from_aux<int>(tag, "n1"), n);
        }
        write(*s, tag, ramp(4));
        EXPECT_EQ(s->sseek(tag, 4, 0), 4);
        EXPECT_EQ(s->file_position(tag), 4);
        EXPECT_EQ(read(*s, tag, 1), Samples({1}));
    }
    s->hclose();
    EXPECT_EQ(read_text("m"), "\t\tn1=4\n\t\tn1=2\n\t\tsets next: in=\"./m@\"\n\t\tdata_format=\"xdr_float\"\n\n");
}

TEST_F(Updates, AnExistingInOutDatasetIsContinued) {
    write_text("m.H", "n1=2 in=\"d\" data_format=native_float\n");
    write_text("d", files::bytes_of<float>({5, 6}));
    {
        auto s = session({"m=m.H", "m.write_title=no"});
        s->auxinout("m");
        EXPECT_EQ(s->from_aux<int>("m", "n1"), 2);
        EXPECT_EQ(read(*s, "m", 2), Samples({5, 6}));
        write(*s, "m", {7});
        s->to_history("n1", 3, "m");
        EXPECT_EQ(s->sseek("m", 0, 0), 0);
        write(*s, "m", {8});
    }
    EXPECT_EQ(read_text("m.H"),
              "n1=2 in=\"d\" data_format=native_float\n\t\tsets next: in=\"d\"\n"
              "\t\tdata_format=\"native_float\"\n\t\tn1=3\n");
    EXPECT_EQ(read_text("d"), files::bytes_of<float>({8, 6, 7}));
}

TEST_F(Updates, InOutHeadersWithoutDataGetADataFile) {
    for (const char* header : {"n1=2\n", "n1=2 in=-1\n"}) {
        write_text("m.H", header);
        auto s = session({"datapath=./"});
        s->auxinout("m.H");
        write(*s, "m.H", {3});
        EXPECT_EQ(read_text("m.H@"), xdr<float>({3}));
        std::filesystem::remove("m.H@");
    }
}

TEST_F(Updates, InOutAndScratchTexts) {
    std::filesystem::create_directory("folder");
    for (const std::string name : {"folder", "stdin", "stdout", "|cmd", "cmd|", "host:1"}) {
        auto s = session({"m=" + name});
        const std::string start = "Headername \"" + name + "\" for tag \"m\" cannot be opened as ";
        const std::string end = " dataset because it is not a regular file \n";
        EXPECT_EQ(refusal([&] { s->auxinout("m"); }), start + "an in/out" + end);
        EXPECT_EQ(refusal([&] { s->auxscr("m"); }), start + "a scratch" + end);
    }
    EXPECT_EQ(refusal([&] { session({"m=/no/such/m.H"})->auxinout("m"); }),
              "Headername \"/no/such/m.H\" for tag \"m\" cannot be opened read/write \n");
    EXPECT_THAT(errors(), HasSubstr("qasstrinouthead, openfile(): No such file or directory\n"));
    EXPECT_THAT(refusal([&] { session({"m=/no/such/m.H"})->auxscr("m"); }), HasSubstr("as a scratch dataset"));
    write_text("follow.H", "n1=1 in=stdin\n");
    write_text("itself.H", "n1=1 in=itself.H\n");
    for (const std::string name : {"follow.H", "itself.H"})
        EXPECT_EQ(refusal([&] { session()->auxinout(name); }),
                  "tag \"" + name + "\" in/out dataset cannot be a pipe or the same file as the header\n");
    write_text("gone.H", "n1=1 in=/no/such/data\n");
    auto s = session({"scr.out=/no/such/data"});
    s->auxinout("gone.H");
    EXPECT_THAT(refusal([&] { read(*s, "gone.H", 1); }), StartsWith("sreed(): invalid input tag gone.H\n"));
    s->auxscr("scr");
    EXPECT_THAT(refusal([&] { write(*s, "scr", {1}); }), StartsWith("srite(): invalid output tag scr\n"));
    EXPECT_THAT(errors(), EndsWith("unable to open input/output datafile /no/such/data for tag gone.H \n"
                                   "unable to open scratch datafile /no/such/data for tag scr \n"));
}

TEST_F(Updates, ALineThatIsWrittenAgainReplacesItself) {
    auto s = session({"g.write_title=n", "datapath=./"});
    s->to_history("n1", 1, "g");
    for (const int value : {1, 100, 7}) {  // longer and shorter
        s->put_last("done", value, "g");
        EXPECT_EQ(read_text("g"), "\t\tn1=1\n\t\tputlast: done=" + std::to_string(value) + "\n");
    }
    s->put_last("other", 1, "g");
    s->put_last("done", 8, "g");
    s->to_history("n2", 2, "g");
    s->put_last("done", 9, "g");
    const std::string text =
        "\t\tn1=1\n\t\tputlast: done=7\n\t\tputlast: other=1\n\t\tputlast: done=8\n\t\tn2=2\n\t\tputlast: done=";
    EXPECT_EQ(read_text("g"), text + "9\n");
    s.reset();
    auto t = session({"g.write_title=n"});  // an in/out dataset goes on with the file as it finds it
    t->auxinout("g");
    t->put_last("done", 10, "g");
    EXPECT_EQ(read_text("g"), text + "10\n");
    EXPECT_EQ(t->from_aux<int>("g", "done"), 10);
    const std::string text_of_400(400, 'v');
    t->put_last<std::string>("long", text_of_400, "g");  // further back than is looked
    t->put_last<std::string>("long", "www", "g");
    EXPECT_THAT(read_text("g"), EndsWith(text_of_400 + "\"\n\t\tputlast: long=\"www\"\n"));
}

TEST_F(Updates, OnlyTheLastLineOfTheFileIsReplaced) {
    set_output_file("o");
    auto s = session({"out.write_title=n", "out=d"});
    s->put_last("done", 1);
    std::fputs("printed by the program\n", out_);
    s->put_last("done", 2);
    EXPECT_THAT(read_text("o"), EndsWith("\t\tputlast: done=1\nprinted by the program\n\t\tputlast: done=2\n"));
    set_output_file("o", "a");
    auto t = session({"out.write_title=n", "out=d"});
    t->put_last("done", 3);
    t->put_last("done", 4);
    EXPECT_THAT(read_text("o"), EndsWith("\t\tputlast: done=3\n\t\tputlast: done=4\n"));
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
    EXPECT_EQ(session({"a="})->tetch<int>("a"), std::nullopt);
}

TEST_F(Updates, CopyingAHistoryComesFirst) {
    write_text("h", "n1=1\n");
    qas::Layer layer;
    prepare(layer, {"datapath=./"});
    const qas::streaminf& from = *qas::tag_info(layer, "h", qas::Mode::input);
    qas::auxputch(layer, "n1", 2, "g");
    EXPECT_EQ(refusal([&] { qas::qasstr_copyh(layer, from, *qas::tag_info(layer, "g", qas::Mode::output)); }),
              "cannot copy header to output tag \"g\" after it has been used \n");
}

TEST_F(Updates, NamesOfSeveralDataFiles) {
    const std::pair<Words, std::string> names[] = {
        {{"nfiles=3", "datapath=/d/"}, "/d/g@;/d/g@1;/d/g@2"},
        {{"nfiles=3", "datapath=/a/;/b/", "dirsize=2,9", "filesize=1"}, "/a/g@;/a/g@1;/b/g@2"},
        {{"nfiles=4", "datapath=/a/;/b/", "dirsize=3", "filesize=1,2"}, "/a/g@;/a/g@1;/b/g@2;/b/g@3"},
        {{"nfiles=9", "datapath=/a/", "dirsize=2", "filesize=1"}, "/a/g@;/a/g@1"},  // full
        {{"datapath=/a/;/b/"}, "/a/g@"},
    };
    for (const auto& [words, expected] : names) {
        session(words)->auxhclose("g");
        EXPECT_THAT(read_text("g"), HasSubstr("in=\"" + expected + "\"\n"));
    }
}

TEST_F(Updates, DataInSeveralFiles) {
    const Samples samples = ramp((5 << 20) / 8);  // 2.5 MiB
    const auto nbytes = static_cast<std::int64_t>(4 * samples.size());
    const std::string first = dir_ + "a_g@", both = first + ";" + dir_ + "b_g@1";
    const std::string prefix = "datapath=" + dir_ + "a_;" + dir_ + "b_";
    {
        auto s = session({"nfiles=3", "filesize=1,1,2", "dirsize=1,9", prefix, "g.write_title=n"});
        EXPECT_EQ(s->srite("g", samples.data(), 400000), 400000);
        EXPECT_THAT(read_text("g"), EndsWith("data_format=\"xdr_float\"\n\t\tsets next: in=\"" + first + "\"\n"));
        EXPECT_EQ(s->srite("g", samples.data() + 100000, 1200000), 1200000);
        EXPECT_THAT(read_text("g"), EndsWith("\t\tsets next: in=\"" + both + "\"\n"));
        EXPECT_EQ(std::filesystem::file_size("a_g@"), 1048576U);
        EXPECT_EQ(s->srite("g", samples.data() + 400000, nbytes - 1600000), nbytes - 1600000);
    }
    EXPECT_EQ(std::filesystem::file_size("b_g@1"), 1048576U);
    EXPECT_EQ(read_text("a_g@") + read_text("b_g@1") + read_text("b_g@2"), xdr(samples));
    auto s = session();
    EXPECT_EQ(s->data_size("g"), nbytes);
    EXPECT_EQ(read(*s, "g", samples.size()), samples);
    for (const Seek& to : {Seek{0, 0, 0},
                           {1048572, 0, 1048572},
                           {0, 1, 1048576},  // over the end of the first file
                           {1048576, 0, 1048576},
                           {-8, 1, 1048572},
                           {-4, 2, nbytes - 4}}) {
        seek(*s, "g", {to});
        EXPECT_EQ(s->file_position("g"), to.position);
        EXPECT_EQ(read(*s, "g", 1), Samples({static_cast<float>(to.position / 4)}));
    }
    EXPECT_EQ(s->sseek("g", 2 * 1048576 + 8, 0), 2 * 1048576 + 8);
    EXPECT_EQ(refusal([&] { s->sseek("g", -1, 0); }),
              "multifd_seek(): seeking past start of all available files for tag \"g\" \n");
    EXPECT_EQ(read(*s, "g", samples.size()), Samples(samples.begin() + 2 * 262144 + 2, samples.end()));
}

TEST_F(Updates, RewritingDataInSeveralFiles) {
    Samples samples = ramp(300000);  // 1.2 MB, over two files
    auto s = session({"nfiles=3", "filesize=1", "datapath=./"});
    write(*s, "g", samples);
    EXPECT_EQ(s->sseek("g", 0, 2), -1);  // an output has no end to seek from
    EXPECT_EQ(s->sseek("g", 1048572, 0), 1048572);
    write(*s, "g", {-1, -2});
    EXPECT_EQ(s->file_position("g"), 1048580);
    samples[262143] = -1;
    samples[262144] = -2;
    EXPECT_EQ(read_text("g@") + read_text("g@1"), xdr(samples));
    EXPECT_EQ(std::filesystem::file_size("g@2"), 0U);
    EXPECT_EQ(s->sseek("g", 0, 9), 1048580);
    EXPECT_THAT(errors(), HasSubstr("unknown seek type requested\n"));
    s->auxinout("u");
    write(*s, "u", samples);
    EXPECT_EQ(s->sseek("u", -4, 2), 1199996);
    EXPECT_EQ(read(*s, "u", 1), Samples({299999}));
}

TEST_F(Updates, SeveralFilesTexts) {
    int ends[2];  // a pipe cannot be rewound
    ASSERT_EQ(::pipe(ends), 0);
    auto s = session({"filesize=1", "g.out=a;b", qas::strprintf("p.out=b;/proc/self/fd/%d", ends[1])});
    const Samples samples = ramp(300000);
    write(*s, "g", samples);
    EXPECT_EQ(refusal([&] { write(*s, "g", samples); }),
              "xdr_rite(): I/O error on output for tag \"g\" -- ierr=110720 \n");  // 2 MiB hold no more
    s->auxclose("g");
    EXPECT_EQ(refusal([&] { write(*s, "p", samples); }),
              "multifd_write() unable to seek to file start for tag \"p\", file 1 \n");
    for (const int end : ends) ::close(end);
    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf socket;
    socket.entrytype = qas::STREAMSOCKOUT;
    socket.dataname = "a;b";
    EXPECT_EQ(refusal([&] { qas::multifd_io.open(layer, socket); }), "STREAMSOCKOUT can not be of multi-file type \n");
    EXPECT_THAT(errors(), EndsWith("Stream socket can not be broken into multiple files \n"));
}

TEST_F(Updates, OtherFormatsForOneCall) {
    auto s = session({"datapath=./"});
    const std::vector<int> words{1, -2};
    EXPECT_EQ(s->srite("g", words.data(), 8), 8);
    EXPECT_EQ(s->srite2("g", words.data(), 8, "native_float"), 8);
    EXPECT_EQ(s->srite_raw("g", words.data(), 8), 8);
    EXPECT_EQ(s->srite2("g", "abc", 3, "xdr_byte"), 3);
    const std::string raw = files::bytes_of(words);
    EXPECT_EQ(read_text("g@"), xdr(words) + raw + raw + "abc");
    auto t = session();
    std::vector<int> back(2);
    EXPECT_EQ(t->sreed2("g", back.data(), 8, "xdr_int"), 8);
    EXPECT_EQ(back, words);
    EXPECT_EQ(t->sreed_raw("g", back.data(), 8), 8);
    EXPECT_EQ(back, words);
    EXPECT_EQ(t->sreed2("g", nullptr, 0, "xdr_int"), 0);
    EXPECT_THAT(refusal([&] { t->sreed2("g", back.data(), 8, "ascii"); }),
                StartsWith("unknown data format: ascii \n "));
    EXPECT_THAT(refusal([&] { s->srite2("g", back.data(), 8, ""); }), StartsWith("unknown data format:  \n "));
    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf& stream = *qas::tag_info(layer, "g", qas::Mode::input);
    EXPECT_EQ(refusal([&] { qas::sreed_xdr(layer, stream, back.data(), 8, 3); }),
              "xdr_reed(): tag \"g\" I don't grok this format\n");
    EXPECT_EQ(refusal([&] { qas::srite_xdr(layer, stream, back.data(), 8, -1); }),
              "xdr_rite(): tag \"g\" I don't grok this format\n");
}

TEST_F(Updates, WindowsOfAGrid) {
    const Samples samples = ramp(5 * 4 * 3);
    auto s = session({"datapath=./"});
    s->auxinout("g");
    const qas::Window windows[] = {
        {{5, 4, 3}, {5, 4, 3}, {0, 0, 0}, {1, 1, 1}, 4},   {{5, 4, 3}, {2, 2, 2}, {1, 1, 1}, {1, 1, 1}, 4},
        {{5, 4, 3}, {2, 2, 2}, {0, 1, 0}, {3, 2, 2}, 4},   {{5, 4, 3}, {1, 1, 1}, {4, 3, 2}, {9, 9, 9}, 4},
        {{60, 1, 1}, {20, 1, 1}, {1, 0, 0}, {3, 1, 1}, 4}, {{5, 12, 1}, {3, 2, 1}, {0, 2, 0}, {2, 5, 1}, 4},
    };
    for (const qas::Window& window : windows) {
        s->sseek("g", 0, 0);
        write(*s, "g", samples);
        const auto& [grid, n, first, step, esize] = window;
        Samples expected, changed = samples;
        for (std::int64_t k = first[2]; k < first[2] + n[2] * step[2]; k += step[2])
            for (std::int64_t j = first[1]; j < first[1] + n[1] * step[1]; j += step[1])
                for (std::int64_t i = first[0]; i < first[0] + n[0] * step[0]; i += step[0])
                    expected.push_back(static_cast<float>(i + grid[0] * (j + grid[1] * k)));
        for (const float value : expected) changed[static_cast<std::size_t>(value)] = -value;
        Samples back(expected.size());
        EXPECT_EQ(s->sreed_window("g", window, back.data()), static_cast<std::int64_t>(4 * back.size()));
        EXPECT_EQ(back, expected);
        for (float& value : back) value = -value;
        EXPECT_EQ(s->srite_window("g", window, back.data()), static_cast<std::int64_t>(4 * back.size()));
        s->sseek("g", 0, 0);
        EXPECT_EQ(read(*s, "g", 60), changed);
    }
}

TEST_F(Updates, WindowsWiderThanABlockAndBeyondTheEnd) {
    const Samples samples = ramp(700000);
    auto s = session({"datapath=./"});
    s->auxinout("g");
    write(*s, "g", samples);
    Samples back(100000, -1);
    EXPECT_EQ(s->sreed_window("g", {{700000}, {100000}, {3}, {7}, 4}, back.data()), 400000);
    for (std::size_t i = 0; i < back.size(); ++i) ASSERT_EQ(back[i], samples[3 + 7 * i]);
    back.assign(3, -1);
    EXPECT_EQ(s->sreed_window("g", {{2000000}, {3}, {1}, {600000}, 4}, back.data()), 8);
    EXPECT_EQ(back, Samples({1, 600001, -1}));
    EXPECT_EQ(s->sreed_window("g", {{700000, 2}, {1, 2}, {9, 0}, {1, 1}, 4}, back.data()), 4);
    const qas::Window wrong[] = {{{}, {}, {}, {}, 4},
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
        EXPECT_THAT(refusal([&] { s->sreed_window("g", window, back.data()); }), StartsWith("window of tag \"g\""));
}

TEST_F(Updates, SeekingByBlocks) {
    write(*session({"datapath=./"}), "g", ramp(8));
    auto s = session();
    read(*s, "g", 1);
    EXPECT_EQ(s->sseek_block("g", 3, 8, 0), 24);
    EXPECT_EQ(s->file_position("g"), 24);
    EXPECT_EQ(s->sseek_block("g", -2, 8, 1), 8);
    EXPECT_EQ(s->sseek_block("g", -1, 4, 2), 28);
    EXPECT_TRUE(s->sseekable("g"));
    EXPECT_EQ(s->sseek_block("g", std::int64_t{3} << 20, 1024, 0), std::int64_t{3} << 30);
    EXPECT_THAT(refusal([&] { s->sseek_block("g", std::int64_t{1} << 62, 8, 0); }), HasSubstr("out of range"));
    EXPECT_EQ(refusal([&] { s->file_position("none"); }), "Unknown tag \"none\" \n");
}

TEST_F(Updates, FilesByMode) {
    EXPECT_EQ(refusal([] { qas::file("none", 0); }), "file() can't open file none\n");
    for (const int mode : {1, 2})
        EXPECT_EQ(refusal([&] { qas::file("/no/such/f", mode); }), "file() can't create file /no/such/f\n");
    write_text("f", "old");
    for (const auto& [mode, left] : {std::pair{2, "old"}, {1, ""}}) {
        const qas::Descriptor fd(qas::file("f", mode));
        EXPECT_EQ(read_text("f"), left);
    }
    const qas::Descriptor fd(qas::file("g", 2));
    EXPECT_TRUE(std::filesystem::exists("g"));
}

TEST_F(Updates, DataNamesThatMeanAStreamInTheWrongPlace) {
    write(*session({"o.out=stdin"}), "o", {1});  // a file of that name
    EXPECT_EQ(read_text("stdin"), xdr<float>({1}));
    std::filesystem::remove("stdin");
    std::filesystem::create_directory("stdin");
    auto s = session({"u.out=stdin", "v.out=stdin"});
    s->auxinout("u");
    s->auxscr("v");
    for (const char* tag : {"u", "v"})
        EXPECT_THAT(refusal([&] { write(*s, tag, {1}); }), StartsWith("unable to open "));
}

TEST_F(Updates, AFolderThatIsGone) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove(dir_ + "gone");
    auto s = session({"out=rel", "head=stderr"});
    EXPECT_THAT(refusal([&] { s->to_history("n1", 1); }), StartsWith("fullnm(): 2, No such file or directory\n"));
}
