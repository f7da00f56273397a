#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>

#include "lib/corelibs/qas/data_names.h"
#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/headers.h"
#include "tests/lib/corelibs/qas/workplace.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

class Datasets : public Workplace {
protected:
    /// An input dataset "vel.H" with these header lines and these data bytes.
    void make_input(const std::string& name, const std::string& lines, const std::string& data) {
        write_file(name, lines + "\t\tsets next: in=\"" + (dir_ / (name + "@")).string() + "\"\n");
        write_file(name + "@", data);
    }
    /// `text` with the title's line replaced by "TITLE\n".
    static std::string without_title(std::string text) {
        const std::size_t at = text.find("prog:   ");
        if (at == std::string::npos) return text;
        EXPECT_THAT(text.substr(at, text.find('\n', at) + 1 - at),
                    MatchesRegex("prog:   [^@ ]*@[^ ]+   ... ... [ 123][0-9] ..:..:.. ....\n"));
        return text.replace(at, text.find('\n', at) - at, "TITLE");
    }
};

}  // namespace

TEST_F(Datasets, AnOutputHeaderByteForByte) {
    auto s = session({"grad=g.H", "datapath=" + dir_.string() + "/d_"});
    s->to_history("n1", 3, "grad");
    EXPECT_EQ(without_title(read_file("g.H")), "\n\nTITLE\n\t\tn1=3\n");  // on file at once
    s->to_history("d1", 0.25f, "grad");
    s->to_history("o1", 1.0 / 3.0, "grad");
    s->to_history("flag", true, "grad");
    s->to_history<std::string>("label1", "depth (m)  ", "grad");
    s->to_history<std::string>("quoted", "\"as it is\"", "grad");
    const std::vector<float> samples{1.0f, -2.5f, 1e-20f};
    EXPECT_EQ(s->srite("grad", samples.data(), 12), 12);
    s->to_history("n4", 2, "grad");
    EXPECT_EQ(without_title(read_file("g.H")),
              "\n\nTITLE\n\t\tn1=3\n\t\td1=0.25\n\t\to1=0.333333333333333\n\t\tflag=yes\n\t\tlabel1=\"depth (m)\"\n"
              "\t\tquoted=\"as it is\"\n\t\tsets next: in=\"" +
                  dir_.string() + "/d_g.H@\"\n\t\tdata_format=\"xdr_float\"\n\t\tn4=2\n");
    EXPECT_EQ(read_file("d_g.H@"), xdr(samples));
}

TEST_F(Datasets, WhatWasWrittenReadsBack) {
    const std::vector<float> samples{1.0f, -2.5f, 3e10f, 0.0f};
    {
        auto s = session({"datapath=./"});
        s->to_history("n1", 4, "x.H");
        s->to_history("n4", 1, "x.H");
        s->srite("x.H", samples.data(), 16);
        s->to_history("n4", 3, "x.H");
    }
    auto s = session({"vel=x.H"});
    EXPECT_EQ(s->from_aux<int>("vel", "n1"), 4);
    EXPECT_EQ(s->from_aux<int>("vel", "n4"), 3);
    EXPECT_EQ(s->from_aux<float>("vel", "d1", 7.0f), 7.0f);
    EXPECT_THAT(fatal([&] { s->from_aux<int>("vel", "n2"); }),
                StartsWith("missing history value: n2 from file: vel\n"));
    std::vector<float> back(6, 9.0f);
    EXPECT_EQ(s->sreed("vel", back.data(), 8), 8);
    EXPECT_EQ(s->sreed("vel", back.data() + 2, 8), 8);
    EXPECT_EQ(back, (std::vector<float>{1.0f, -2.5f, 3e10f, 0.0f, 9.0f, 9.0f}));
    EXPECT_EQ(s->sseek("vel", 0, 0), 0);
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(s->sreed("vel", back.data(), 24), 16);  // a short count is normal
    EXPECT_EQ(back[4], 9.0f);
    EXPECT_THAT(errors(), AllOf(HasSubstr("x.H@"), HasSubstr("expected 24 bytes, found 16")));
    const std::string once = errors();
    EXPECT_EQ(s->sreed("vel", back.data(), 4), 0);
    EXPECT_EQ(errors(), once);
    EXPECT_EQ(s->sseek("vel", -4, 2), 12);
    EXPECT_EQ(s->sseek("vel", -8, 1), 4);
    EXPECT_EQ(s->sreed("vel", back.data(), 4), 4);
    EXPECT_EQ(back[0], -2.5f);
    EXPECT_EQ(s->sseek("vel", -1, 0), -1);
    EXPECT_THAT(errors(), HasSubstr("fd_seek: Invalid argument"));
    EXPECT_EQ(s->sseek("vel", 0, 3), 8);
    EXPECT_THAT(errors(), HasSubstr("unknown seek type requested\n"));
}

TEST_F(Datasets, HistoryOfOut) {
    set_input("n1=5\nsome text\n\t\tin=\"/data/a.H@\"\n");
    set_output_file("Hout.H");
    auto s = session({"niter=3", "datapath=/d/"});
    EXPECT_EQ(s->from_param<int>("niter"), 3);
    EXPECT_EQ(s->from_param<float>("trick", 0.14f), 0.14f);
    s->from_param<bool>("dso", false);
    s->from_param<std::string>("extrapolator", "ffd");
    s->from_param<std::string>("cgsolv", "      ");
    s->to_history("n1", 7);
    s->set_no_putch();
    s->from_param<int>("unseen", 1);
    s->to_history("unseen", 1);
    s->set_yes_putch();
    s->to_history("o1", 0.0f);
    EXPECT_EQ(
        without_title(read_file("Hout.H")),
        "n1=5\nsome text\n\t\tin=\"/data/a.H@\"\n\n\nTITLE\n\t\tsets next: in=\"/d/out.H@\"\n\t\tFrom par: niter=3\n"
        "\t\tFrom par: trick=0.14\n\t\tFrom par: dso=no\n\t\tFrom par: extrapolator=\"ffd\"\n"
        "\t\tFrom par: cgsolv=\" \"\n\t\tn1=7\n\t\to1=0\n");
    auto reader = session({"h=Hout.H"});
    EXPECT_EQ(reader->from_aux<int>("h", "niter"), 3);
    EXPECT_EQ(reader->from_aux<int>("h", "n1"), 7);
    EXPECT_EQ(reader->from_aux<std::string>("h", "in"), "/d/out.H@");
}

TEST_F(Datasets, OutputRecordsMayGoElsewhere) {
    auto s = session({"datapath=./", "alt.write_title=no"});
    s->set_alternate_putch("alt");
    s->from_param<int>("nh", 4);
    EXPECT_EQ(read_file("alt"), "\t\tFrom par: nh=4\n");
}

TEST_F(Datasets, WhereTheDataOfOutGo) {
    struct {
        const char* fault;
        std::vector<std::string> words;
        std::string line;
    } const rows[] = {
        {"named by the parameter out, made absolute",
         {"out=o.dat"},
         "\t\tsets next: in=\"" + dir_.string() + "/o.dat\"\n"},
        {"with the header", {"out=stdout"}, "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n"},
        {"datapath says stdout", {"datapath=stdout"}, "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n"},
        {"named like the header", {"datapath=/d/"}, "\t\tsets next: in=\"/d/o.H@\"\n"},
        {"a variable for the folder",
         {"datapath=$QASVAR/"},
         "\t\tsets next: in=\"$QASVAR/o.H@\"\n\t\t current environment"
         " QASVAR=\"/v\"\n"},
        {"header in a file of the parameter head", {"head=h.H", "datapath=/d/"}, "\t\tsets next: in=\"/d/h.H@\"\n"},
        {"header in a file, data on the standard output", {"head=h.H", "out=stdout"}, "\t\tsets next: in=\"stdout\"\n"},
        {"header named by the parameter stdout", {"stdout=h.H", "datapath=/d/"}, "\t\tsets next: in=\"/d/h.H@\"\n"},
    };
    ::setenv("QASVAR", "/v", 1);
    for (auto row : rows) {
        SCOPED_TRACE(row.fault);
        set_output_file("o.H");
        row.words.push_back("out.write_title=y");
        const bool own_header = row.words[0].starts_with("head") || row.words[0].starts_with("stdout");
        session(row.words)->to_history("n1", 1);
        EXPECT_EQ(read_file(own_header ? "h.H" : "o.H"), row.line + "\t\tn1=1\n");
    }
    ::unsetenv("QASVAR");
}

TEST_F(Datasets, HeadNamesTheHeaderOfAnyOutputOnTheStandardOutput) {
    session({"g=stdout", "head=h.H", "g.write_title=n"})->to_history("n1", 1, "g");
    EXPECT_EQ(read_file("h.H"), "\t\tn1=1\n");
}

TEST_F(Datasets, ANamelessOutputGetsAUniqueDataName) {
    auto s = session({"head=stderr", "datapath=./"});
    s->to_history("n1", 1);
    const std::string unique = errors().substr(errors().find("./prog@"), 13);
    EXPECT_THAT(unique, MatchesRegex("./prog@......"));
    write_file(unique, "precious");  // somebody takes the name before it is used
    const float one = 1.0f;
    EXPECT_THAT(fatal([&] { s->srite("out", &one, 4); }), HasSubstr("File exists"));
    EXPECT_EQ(read_file(unique), "precious");
    std::rewind(err_);
    auto t = session({"head=stderr", "datapath=/no/such/folder/"});  // asked for nowhere: no reason to end
    t->to_history("n1", 1);
    EXPECT_THAT(errors(), HasSubstr("sets next: in=\"/no/such/folder/prog@"));
}

TEST_F(Datasets, HeaderAndDataInOneFile) {
    set_input("n1=2\n");
    set_output_file("all.H");
    const std::vector<float> samples{1.5f, 2.5f, 4.0f};
    {
        auto s = session({"out=stdout"});
        s->to_history("n1", 3);
        EXPECT_EQ(s->sseek("out", 0, 0), 0);  // behind the header
        EXPECT_EQ(s->file_position("out"), 0);
        EXPECT_EQ(s->srite("out", samples.data(), 8), 8);
        EXPECT_EQ(s->srite("out", samples.data() + 2, 4), 4);
        s->to_history("n1", 4);  // would land in the data
        EXPECT_THAT(errors(), HasSubstr("the history of tag \"out\" is complete"));
    }
    EXPECT_THAT(read_file("all.H"), EndsWith("data_format=\"xdr_float\"\n\n\f\f\4" + xdr(samples)));
    auto s = session({"rec=all.H"});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    EXPECT_EQ(s->data_size("rec"), 12);
    std::vector<float> back(3);
    EXPECT_EQ(s->sreed("rec", back.data(), 12), 12);
    EXPECT_EQ(back, samples);
    EXPECT_EQ(s->sseek("rec", 4, 0), 4);
    EXPECT_EQ(s->sseek("rec", 4, 1), 8);
    EXPECT_EQ(s->sreed("rec", back.data(), 4), 4);
    EXPECT_EQ(back[0], 4.0f);
    EXPECT_EQ(s->sseek("rec", 0, 0), 0);
    EXPECT_EQ(s->sseek("rec", -4, 2), 8);
    EXPECT_EQ(s->sseek("rec", -1, 0), -1);  // not into the header
    EXPECT_THAT(errors(), HasSubstr("file_seek: Invalid argument"));
}

TEST_F(Datasets, InputHeaderOnThePipe) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const std::string bytes = "n1=3 in=stdin\n\n\f\f\4" + xdr<float>({1, 2, 3});
    ASSERT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(ends[1]);
    std::fclose(in_);
    in_ = ::fdopen(ends[0], "r");
    auto s = session();
    EXPECT_EQ(s->from_aux<int>("in", "n1"), 3);
    EXPECT_EQ(s->data_size("in"), -1);
    std::vector<float> back(3);
    EXPECT_EQ(s->sseek("in", 0, 0), 0);
    EXPECT_EQ(s->sreed("in", back.data(), 4), 4);
    EXPECT_EQ(s->sseek("in", 0, 0), -1);
    EXPECT_EQ(s->sseek("in", -1, 1), -1);
    EXPECT_EQ(s->sseek("in", 0, 2), -1);
    EXPECT_EQ(s->sseek("in", 4, 1), 8);
    EXPECT_EQ(s->sreed("in", back.data(), 4), 4);
    EXPECT_EQ(back[0], 3.0f);
    EXPECT_EQ(errors(),
              "backwards absolute seek on stream device \nbackwards relative seek on stream device \n"
              "seek relative to end on stream device \n");
}

TEST_F(Datasets, AHintWhenAnInputKeepsSilent) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::fclose(in_);
    in_ = ::fdopen(ends[0], "r");
    std::thread writer([&] {
        while (errors().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(::write(ends[1], "n1=4\n", 5), 5);
        ::close(ends[1]);
    });
    qas::Layer layer;
    layer.argv = {"prog"};
    layer.hint_after_ms = 20;
    layer.in = in_;
    layer.notes.err = err_;
    EXPECT_EQ(qas::tag_info(layer, "in", qas::Mode::input)->headerbuf, "n1=4\n");
    writer.join();
    EXPECT_THAT(errors(), HasSubstr("waiting for the header of tag \"in\""));
}

TEST_F(Datasets, FormatsOfInputs) {
    const std::string data("\x3f\x80\x00\x00", 4);
    struct {
        const char *format, *expected;
    } const rows[] = {
        {"xdr_float", "\x00\x00\x80\x3f"},    {"xdr_int", "\x00\x00\x80\x3f"},     {"xdr_byte", "\x3f\x80\x00\x00"},
        {"native_float", "\x3f\x80\x00\x00"}, {"native_byte", "\x3f\x80\x00\x00"}, {"kplot", "\x3f\x80\x00\x00"},
        {"tmc_float", "\x3f\x80\x00\x00"},    {"tmc_byte", "\x3f\x80\x00\x00"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        make_input("v.H", std::string("data_format=") + row.format + "\n", data);
        std::string back(4, '.');
        auto s = session({"vel=v.H"});
        EXPECT_EQ(s->sreed("vel", back.data(), 4), 4);
        EXPECT_EQ(back, std::string(row.expected, 4));
        EXPECT_EQ(s->get_format("vel"), row.format);
    }
    make_input("v.H", "data_format=ascii\n", data);
    EXPECT_THAT(
        fatal([&] { session({"vel=v.H"})->from_aux<int>("vel", "n1"); }),
        StartsWith("unknown data format: ascii \n xdr_float xdr_int xdr_byte native_float native_byte kplot tmc_float "
                   "tmc_byte \n  data_format of header \"v.H\" of tag \"vel\""));
}

TEST_F(Datasets, FormatsOfOutputs) {
    const float one = 1.0f;
    auto s = session({"datapath=./"});
    s->to_history("n1", 1, "a");
    s->set_format("a", "native_float");
    s->srite("a", &one, 4);
    EXPECT_EQ(read_file("a@"), std::string("\x00\x00\x80\x3f", 4));
    EXPECT_THAT(read_file("a"), HasSubstr("data_format=\"native_float\"\n"));
    EXPECT_EQ(fatal([&] { s->set_format("a", "ascii"); }), "set_format( a , ascii ): unknown format ");
    set_input("data_format=native_float\n");
    set_output_file("o.H");
    auto t = session({"datapath=./"});
    t->to_history("n1", 1);
    EXPECT_EQ(t->get_format("out"), "native_float");
    std::rewind(in_);
    EXPECT_THAT(fatal([&] { session({"data_format=odd"})->to_history("n1", 1); }),
                StartsWith("unknown data format: odd \n "));
}

TEST_F(Datasets, CountsThatAreNoMultipleOfFour) {
    make_input("v.H", "", xdr<float>({1, 2, 3}));
    std::vector<float> back(3, 9.0f);
    auto s = session({"vel=v.H", "datapath=./"});
    EXPECT_EQ(s->sreed("vel", back.data(), 10), 10);
    EXPECT_EQ(back, (std::vector<float>{1, 2, 9}));
    EXPECT_EQ(s->srite("y", back.data(), 10), 10);
    EXPECT_EQ(read_file("y@"), xdr<float>({1, 2}));
    make_input("w.H", "", xdr<float>({1, 2, 3}).substr(0, 10));  // the file itself ends inside a sample
    auto t = session({"vel=w.H"});
    back.assign(3, 9.0f);
    EXPECT_EQ(t->sreed("vel", back.data(), 12), 10);
    EXPECT_EQ(back, (std::vector<float>{1, 2, 9}));
}

TEST_F(Datasets, NothingMovesForACountOfZero) {
    auto s = session();
    EXPECT_EQ(s->srite("never", nullptr, 0), 0);
    EXPECT_EQ(s->sreed("never", nullptr, 0), 0);
    EXPECT_FALSE(std::filesystem::exists("never"));
    EXPECT_EQ(fatal([&] { s->sseek("never", 0, 0); }), "Unknown tag \"never\" \n");
}

TEST_F(Datasets, PanelsLargerThanTheConversionBlock) {
    std::vector<float> samples(300001);
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<float>(i) * 0.5f;
    const auto nbytes = static_cast<std::int64_t>(4 * samples.size());
    session({"datapath=./"})->srite("big", samples.data(), nbytes);
    EXPECT_EQ(read_file("big@"), xdr(samples));
    std::vector<float> back(samples.size());
    EXPECT_EQ(session()->sreed("big", back.data(), nbytes), nbytes);
    EXPECT_EQ(back, samples);
}

TEST_F(Datasets, SwapWordsAtAnyAlignment) {
    std::string bytes = "?abcdefghijklmnop", target(bytes.size(), '.');
    qas::swap_words(bytes.data() + 1, target.data() + 1, 3);
    EXPECT_EQ(target, ".dcbahgfelkji....");
    qas::swap_words(target.data() + 1, target.data() + 1, 3);
    EXPECT_EQ(target, ".abcdefghijkl....");
}

TEST_F(Datasets, BadInputsEndWithOneMessageThatNamesTagFileAndKey) {
    make_input("nodata.H", "", "");
    std::filesystem::remove("nodata.H@");
    write_file("noin.H", "n1=4\n");
    std::filesystem::create_directory("folder");
    auto s = session({"vel=missing.H", "rec=noin.H", "sou=nodata.H", "dir=folder"});
    EXPECT_EQ(fatal([&] { s->from_aux<int>("vel", "n1"); }),
              "Attempt to get parameter n1 from tag vel which is not a valid description file \n"
              "  header \"missing.H\" of tag \"vel\" (parameter vel): No such file or directory\n");
    char byte;
    EXPECT_THAT(fatal([&] { s->sreed("vel", &byte, 1); }), StartsWith("sreed(): invalid input tag vel\n"));
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 4);
    EXPECT_EQ(
        fatal([&] { s->sreed("rec", &byte, 1); }),
        "sreed(): invalid input tag rec\n  header \"noin.H\" of tag \"rec\" (parameter rec) has no data: it holds no"
        " in=\n");
    EXPECT_THAT(fatal([&] { s->sseek("rec", 0, 0); }), StartsWith("sseek(): invalid tag rec\n"));
    EXPECT_THAT(fatal([&] { s->sreed("sou", &byte, 1); }), AllOf(StartsWith("sreed(): invalid input tag sou\n"),
                                                                 HasSubstr("nodata.H@"), HasSubstr("No such file")));
    EXPECT_EQ(errors(), "unable to obtain input file \"" + dir_.string() + "/nodata.H@\" for tag \"sou\"\n");
    EXPECT_THAT(fatal([&] { s->from_aux<int>("dir", "n1"); }), HasSubstr("Is a directory"));
    EXPECT_THAT(fatal([&] { s->from_aux<int>(std::string(300, 'x'), "n1"); }), StartsWith("Bad header name 'xxx"));
}

TEST_F(Datasets, HeadersNameRegularFilesOnly) {
    float value = 0;
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);  // opening it would wait for ever
    write_file("h", "in=fifo\n");
    write_file("z", "in=\"a;/dev/zero\"\n");
    write_file("a", "1234");
    write_file("p", "par=fifo\n");
    EXPECT_THAT(fatal([&] { session()->sreed("h", &value, 4); }), HasSubstr("\"fifo\" of header \"h\""));
    EXPECT_THAT(fatal([&] { session()->sreed("z", &value, 4); }), HasSubstr("/dev/zero\" of header \"z\" of tag \"z\""
                                                                            " (parameter z): not a regular file"));
    EXPECT_THAT(fatal([&] { session()->from_aux<int>("p", "n1"); }), StartsWith("par=fifo, named in a history"));
    auto s = session();
    s->auxinout("h");
    EXPECT_THAT(fatal([&] { s->srite("h", &value, 4); }), HasSubstr("not a regular file"));
    EXPECT_EQ(session({"in=/dev/zero"})->sreed("in", &value, 4), 4);  // the user may
}

TEST_F(Datasets, AxesAreChecked) {
    make_input("v.H", "n1=3 d1=2.5 o1=-1\nn2=0 d2=1 o2=0 n3=-4 d3=1 o3=0 n4=5 d4=nan o4=0 n5=99999999999 d5=1 o5=0\n",
               xdr<float>({1, 2, 3}));
    auto s = session({"vel=v.H"});
    const Axis axis = s->from_aux_axis("vel", 1);
    EXPECT_EQ(axis.n, 3);
    EXPECT_EQ(axis.d, 2.5f);
    EXPECT_EQ(axis.o, -1.0f);
    EXPECT_THAT(fatal([&] { s->from_aux_axis("vel", 2); }),
                StartsWith("header \"v.H\" of tag \"vel\" (parameter vel): n2=0 must be 1 to "));
    EXPECT_THAT(fatal([&] { s->from_aux_axis("vel", 3); }), HasSubstr("n3=-4 must be"));
    EXPECT_THAT(fatal([&] { s->from_aux_axis("vel", 4); }), HasSubstr("d4=nan must be"));
    EXPECT_THAT(fatal([&] { s->from_aux_axis("vel", 5); }), HasSubstr("n5=2147483647 must be"));
    EXPECT_THAT(fatal([&] { s->from_aux_axis("vel", 6); }), StartsWith("missing history value: n6 from file: vel"));
    s->check_data_size("vel", 12, "n1");
    s->check_data_size("vel", 4000, "n1");  // a short file is a warning when it is read
    EXPECT_THAT(fatal([&] { s->check_data_size("vel", std::int64_t{1} << 30, "n1*n3"); }),
                HasSubstr("n1*n3 asks for 1073741824 bytes, its data are 12 bytes"));
    EXPECT_THAT(fatal([&] { s->check_data_size("vel", std::int64_t{1} << 60, "n1*n3"); }),
                HasSubstr("this machine has"));
    EXPECT_THAT(fatal([&] { s->check_data_size("vel", -4, "n1*n3"); }), HasSubstr("asks for -4 bytes"));
}

TEST_F(Datasets, OutputsThatCannotBeWritten) {
    const float one = 1.0f;
    auto s = session({"a=/no/such/a.H", "datapath=/no/such/"});
    EXPECT_EQ(fatal([&] { s->to_history("n1", 1, "a"); }),
              "cannot create output header \"/no/such/a.H\" for tag \"a\" (parameter a): No such file or directory\n");
    EXPECT_EQ(errors(), "qasstrhead, openfile(): No such file or directory\n");
    s->to_history("n1", 1, "b");
    EXPECT_EQ(
        fatal([&] { s->srite("b", &one, 4); }),
        "srite(): invalid output tag b\n  data file \"/no/such/b@\" of header \"b\" of tag \"b\" (parameter b): No such"
        " file or directory\n  data path \"/no/such/\" is from the parameter datapath; datapath=DIRECTORY/ sets it\n");
    EXPECT_THAT(errors(), HasSubstr(" unable to open output datafile /no/such/b@ for tag b \n"));
}

TEST_F(Datasets, AFullDiskEndsWithAMessage) {
    const std::vector<float> panel(1000, 1.0f);
    auto s = session({"a.out=/dev/full", "b=/dev/full", "datapath=./"});
    EXPECT_THAT(fatal([&] { s->srite("a", panel.data(), 4000); }),
                AllOf(StartsWith("info_rite() : I/O error, tag \"a\"\n"), HasSubstr("/dev/full"),
                      HasSubstr("No space left on device")));
    EXPECT_THAT(fatal([&] { s->to_history("n1", 1, "b"); }), AllOf(StartsWith("I/O error writing output history\n"),
                                                                   HasSubstr("parameter b"), HasSubstr("No space")));
    EXPECT_THAT(errors(), EndsWith("write_title: No space left on device\n"));
    set_input("n1=1\n");
    EXPECT_THAT(fatal([&] {
                    session({"stdout=/dev/full", "out=x"})->to_history("n1", 1);
                }),
                StartsWith("I/O error writing output history\n"));
    EXPECT_THAT(errors(), EndsWith("qasstr_copyh(): No space left on device\n"));
}

TEST_F(Datasets, WhatWasCompleteBeforeALimitStaysReadable) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const std::vector<float> panel(1000, 2.0f);
    auto s = session({"datapath=./"});
    s->to_history("n1", 1000, "g");
    s->to_history("n4", 1, "g");
    s->srite("g", panel.data(), 4000);
    rlimit small = before;
    small.rlim_cur = 6000;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    s->to_history("n4", 2, "g");
    const std::string message = fatal([&] { s->srite("g", panel.data(), 4000); });
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_THAT(message, AllOf(HasSubstr("tag \"g\""), HasSubstr("after 6000 bytes"), HasSubstr("File too large")));
    std::vector<float> back(2000, 0.0f);
    auto t = session();
    EXPECT_EQ(t->from_aux<int>("g", "n4"), 2);
    EXPECT_EQ(t->sreed("g", back.data(), 8000), 6000);
    EXPECT_EQ(back[1499], 2.0f);
}

TEST_F(Datasets, OutputsMayNotOverwriteDatasetsInUse) {
    using Words = std::vector<std::string>;
    using Call = void (*)(qas::Session&);
    make_input("m.H", "n1=1 \n", xdr<float>({5}));
    write_file("parts.H", "n1=1 in=\"p.H@;p.H@1\"\n");
    write_file("p.H@", "1234");
    write_file("p.H@1", "5678");
    std::filesystem::create_directory("sub");
    std::filesystem::create_hard_link("m.H@", "hard");
    const std::string here = dir_.string() + "/";
    const std::string of_vel = "header \"m.H\" of tag \"vel\" (parameter vel): give ";
    const Call line = [](qas::Session& s) { s.to_history("n1", 1, "g"); };
    const Call record = [](qas::Session& s) { s.from_param<int>("nh", 1); };
    struct {
        const char* fault;
        Words words;
        Call call;
        std::string part;
    } const refused[] = {
        {"header is a header",
         {"g=./m.H"},
         line,
         "output header \"./m.H\" of tag \"g\" (parameter g) is the file of " + of_vel + "it another name\n"},
        {"header is a data file", {"g=m.H@"}, line, "(parameter g) is the data file of " + of_vel},
        {"data under one datapath",
         {"g=sub/m.H"},
         line,
         "output data file \"" + here + "m.H@\" for tag \"g\" is the data file of " + of_vel +
             "g.out=FILE or another datapath=\n"},
        {"data file by a link", {"g=x.H", "g.out=hard"}, line, "is the data file of " + of_vel},
        {"data file is a header", {"g=x.H", "g.out=sub/../m.H"}, line, "is the file of " + of_vel},
        {"data file is the own header", {"g=x.H", "g.out=x.H"}, line, "is the file of header \"x.H\" of tag \"g\""},
        {"the second of several files",
         {"g=sub/p.H", "nfiles=2", "vel=parts.H"},
         line,
         "output data file \"" + here + "p.H@"},
        {"one of several of the input",
         {"g=x.H", "g.out=p.H@1", "vel=parts.H"},
         line,
         "is the data file of header \"parts.H\""},
        {"the data of out", {"out=m.H@", "stdout=x.H"}, record, "give out=FILE or another datapath="},
        {"header of out and of in",
         {"stdin=m.H", "stdout=m.H"},
         record,
         "of tag \"out\" (parameter stdout) is the file of"},
        {"two outputs that do not exist yet",
         {"g=sub/y.H", "h=y.H"},
         [](qas::Session& s) {
             s.to_history("n1", 1, "g");
             s.to_history("n1", 1, "h");
         },
         "output data file \"" + here + "y.H@\" for tag \"h\" is the data file of header \"sub/y.H\""},
        {"a scratch dataset", {"g=sub/m.H"}, [](qas::Session& s) { s.auxscr("g"); }, "is the data file of " + of_vel},
        {"a new in/out dataset",
         {"g=sub/m.H"},
         [](qas::Session& s) { s.auxinout("g"); },
         "is the data file of " + of_vel},
    };
    for (const auto& row : refused) {
        SCOPED_TRACE(row.fault);
        Words words{"vel=m.H", "datapath=" + here};
        words.insert(words.end(), row.words.begin(), row.words.end());
        auto s = session(words);
        s->from_aux<int>("vel", "n1");
        EXPECT_THAT(fatal([&] { row.call(*s); }), HasSubstr(row.part));
        EXPECT_EQ(read_file("m.H@") + read_file("p.H@") + read_file("p.H@1"), xdr<float>({5}) + "12345678");
        EXPECT_THAT(read_file("m.H"), StartsWith("n1=1 \n"));
        for (const char* name : {"x.H", "sub/m.H", "sub/p.H"}) EXPECT_FALSE(std::filesystem::exists(name)) << name;
    }
    const float one = 1.0f;
    auto s = session({"vel=m.H", "g=/dev/null", "h=/dev/null", "out=/dev/null", "head=stderr", "i=x.H",
                      "p=|cat > piped", "isoutstream=1", "datapath=" + here});
    write_file("x.H", "in=m.H@ n1=1\n");
    EXPECT_EQ(s->from_aux<int>("vel", "n1"), 1);
    s->auxinout("i");  // reads and rewrites what another tag reads
    for (const char* tag : {"g", "h", "out", "p", "i"}) EXPECT_EQ(s->srite(tag, &one, 4), 4) << tag;
    EXPECT_EQ(read_file("m.H@"), xdr<float>({1}));
}

TEST_F(Datasets, RunningAgainOverwrites) {
    const float one = 1.0f;
    for (int run = 0; run < 2; ++run) {
        auto s = session({"datapath=./", "g.write_title=no"});
        s->to_history("n4", 1, "g");
        s->srite("g", &one, 4);
    }
    EXPECT_EQ(read_file("g@").size(), 4U);
    EXPECT_EQ(read_file("g"), "\t\tn4=1\n\t\tsets next: in=\"./g@\"\n\t\tdata_format=\"xdr_float\"\n");
}

TEST_F(Datasets, ClosingHeaders) {
    auto s = session({"datapath=./", "g.write_title=no"});
    s->to_history("n1", 1, "g");
    s->auxhclose("g");
    EXPECT_EQ(read_file("g"), "\t\tn1=1\n\t\tsets next: in=\"./g@\"\n\t\tdata_format=\"xdr_float\"\n\n");
    s->auxhclose("g");
    EXPECT_EQ(errors(),
              "WARNING: Multiple closes of output header with tag \"g\"\n or close called after first write\n");
    const float one = 1.0f;
    s->srite("g", &one, 4);
    s->auxclose("g");
    EXPECT_EQ(fatal([&] { s->sseek("g", 0, 0); }), "Unknown tag \"g\" \n");
    EXPECT_EQ(s->from_aux<int>("g", "n1"), 1);  // now an input
}

TEST_F(Datasets, TagsUsedTheWrongWayRound) {
    make_input("v.H", "n1=1\n", xdr<float>({5}));
    auto s = session({"vel=v.H", "datapath=./"});
    s->to_history("n1", 1, "o");
    float value = 0;
    EXPECT_THAT(fatal([&] { s->from_aux<int>("o", "n1"); }),
                StartsWith("Attempt to get parameter n1 from tag o which is"));
    EXPECT_THAT(fatal([&] { s->sreed("o", &value, 4); }), StartsWith("sreed(): invalid input tag o\n"));
    EXPECT_EQ(s->from_aux<int>("vel", "n1"), 1);
    EXPECT_THAT(fatal([&] { s->srite("vel", &value, 4); }), StartsWith("srite(): invalid output tag vel\n"));
    EXPECT_THAT(fatal([&] { s->to_history("n1", 2, "vel"); }), HasSubstr("in use as an input"));
}

TEST_F(Datasets, FixedInputHeaders) {
    set_output_file("o.H");
    session({"noheader=yes", "out=x", "out.write_title=n"})->to_history("n1", 1);
    EXPECT_EQ(read_file("o.H"), "No input header \t\tsets next: in=\"" + dir_.string() + "/x\"\n\t\tn1=1\n");
    set_output_file("o.H");
    write_file("old.H", "n1=7\n");
    EXPECT_EQ(fatal([&] {
                  session({"stdin=missing.H", "stdout=old.H", "data_format=xdr_int", "out=x"})->to_history("n1", 1);
              }),
              " error copying header to output history\n  header \"missing.H\" of tag \"in\" (parameter stdin): No "
              "such file or"
              " directory\n");
    EXPECT_EQ(read_file("old.H"), "n1=7\n");
}

TEST_F(Datasets, HeaderLengthLeavesOutTheEndMark) {
    write_file("v.H", std::string("n1=4 in=x\4"));
    set_output_file("o.H");
    session({"stdin=v.H", "out=x", "out.write_title=n"})->to_history("n2", 1);
    EXPECT_THAT(read_file("o.H"), StartsWith("n1=4 in=x\t\tsets next: "));
}

TEST_F(Datasets, AnOutputHeaderMayBeNamedByTheInputHistory) {
    set_input("grad=from_history.H\n");
    session({"datapath=./"})->to_history("n1", 1, "grad");
    EXPECT_TRUE(std::filesystem::exists("from_history.H"));
    EXPECT_FALSE(std::filesystem::exists("grad"));
    for (const char* text : {"", "n1=1 in=x\n"}) {  // a header may be overwritten, as when a run is repeated
        std::rewind(in_);
        write_file("from_history.H", text);
        session({"datapath=./"})->to_history("n1", 2, "grad");
        EXPECT_THAT(read_file("from_history.H"), EndsWith("\t\tn1=2\n"));
    }
    std::rewind(in_);
    write_file("from_history.H", "dear diary\n");
    const std::string refused =
        "tag \"grad\": the history of \"in\" names \"from_history.H\" as its header, which is a file and";
    auto s = session({"datapath=./"});
    EXPECT_THAT(fatal([&] { s->to_history("n1", 1, "grad"); }), StartsWith(refused));
    EXPECT_THAT(fatal([&] { s->auxinout("grad"); }), StartsWith(refused));
    s->auxscr("grad");  // only the command line names scratch datasets
    EXPECT_TRUE(std::filesystem::exists("grad"));
    EXPECT_EQ(read_file("from_history.H"), "dear diary\n");
}

TEST_F(Datasets, TwoSessionsAtOnce) {
    auto a = session({"nh=1"}), b = session({"nh=2"});
    EXPECT_EQ(a->getch<int>("nh"), 1);
    EXPECT_EQ(b->getch<int>("nh"), 2);
}

TEST_F(Datasets, NamesOfDataFiles) {
    qas::Layer layer;
    EXPECT_EQ(qas::expand_name("./a"), "./a");
    EXPECT_EQ(qas::expand_name("/a"), "/a");
    EXPECT_EQ(qas::expand_name("$A/b"), "$A/b");
    EXPECT_EQ(qas::expand_name("a"), dir_.string() + "/a");
    EXPECT_EQ(qas::qas_tail("/a/b.H"), "b.H");
    EXPECT_EQ(qas::qas_tail("b.H"), "b.H");
    EXPECT_EQ(qas::envhead("$AB/c"), "AB");
    EXPECT_EQ(qas::envhead("$AB"), "AB");
    EXPECT_EQ(qas::envhead("AB/c"), "");
    EXPECT_EQ(qas::makenames(layer, "/d/", "vel.H", false), "/d/vel.H@");
    EXPECT_THAT(qas::makenames(layer, dir_.string() + "/", "vel.H", true), MatchesRegex(".*/vel.H@......"));
}

TEST_F(Datasets, FoldersInVariables) {
    std::filesystem::create_directory("sub");
    write_file("sub/v@", xdr<float>({5}));
    write_file("v.H", "in=\"$QASVAR/v@\" QASVAR=sub\n");
    float value = 0;
    EXPECT_EQ(session()->sreed("v.H", &value, 4), 4);  // from the header itself
    write_file("w.H", "in=\"$QASVAR/v@\"\n");
    EXPECT_EQ(session({"QASVAR=sub"})->sreed("w.H", &value, 4), 4);
    EXPECT_EQ(fatal([&] { session()->sreed("w.H", &value, 4); }), "Unable to obtain pathname variable QASVAR\n");
    ::setenv("QASVAR", (dir_ / "sub").c_str(), 1);
    EXPECT_EQ(session()->sreed("w.H", &value, 4), 4);
    ::unsetenv("QASVAR");
    EXPECT_EQ(value, 5.0f);
    write_file("x.H", "in=\"-1\"\n");
    EXPECT_EQ(fatal([&] { session()->sreed("x.H", &value, 4); }), "Invalid dataset \"-1\" for tag \"x.H\"\n");
}

TEST_F(Datasets, WhereTheDataPathComesFrom) {
    const auto path = [&](std::vector<std::string> words = {}) {
        qas::Layer layer;
        layer.argv = {"prog"};
        layer.argv.insert(layer.argv.end(), words.begin(), words.end());
        return qas::datapath(layer).prefix;
    };
    const std::string user = qas::user_name();
    EXPECT_EQ(path(), "/tmp//" + user + "/_");
    std::filesystem::create_directory("home");
    ::setenv("HOME", (dir_ / "home").c_str(), 1);
    write_file("home/.datapath", "datapath=/from/home/\n");
    EXPECT_EQ(path(), "/from/home/");
    write_file(".datapath", "datapath=/from/here/\n");
    EXPECT_EQ(path(), "/from/here/");
    ::setenv("DATAPATH", "/from/env/", 1);
    EXPECT_EQ(path(), "/from/env/");
    EXPECT_EQ(path({"datapath=/from/word/"}), "/from/word/");
    ::unsetenv("DATAPATH");
    write_file(".datapath", "host datapath=/a/\n");
    EXPECT_THAT(fatal([&] { path(); }), StartsWith(" Error reading .datapath file"));
}

TEST_F(Datasets, ReadpathTakesTheLastLineOfTheHost) {
    EXPECT_EQ(qas::readpath("datapath=/a/\nmyhost datapath=/b/\n", "myhost"), "/b/");
    EXPECT_EQ(qas::readpath("datapath=/a/\nmyhost datapath=/b/\nmyhost datapath=/c/\n", "myhost"), "/c/");
    EXPECT_EQ(qas::readpath("datapath=/a/\nother datapath=/b/\n", "myhost"), "/a/");
    EXPECT_EQ(qas::readpath(" datapath=/a/ myhost", "myhost"), "/a/");
    for (const char* text : {"", "\n", "datapath=", "path=/a/", "myhost datapath=/b/"})
        EXPECT_EQ(fatal([&] { qas::readpath(text, "myhost"); }), " Error reading .datapath file") << text;
}
