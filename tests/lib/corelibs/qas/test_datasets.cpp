#include <sys/stat.h>

#include <thread>

#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "tests/lib/corelibs/qas/workplace.h"

using ::testing::MatchesRegex;

namespace {

using Words = std::vector<std::string>;
using Samples = std::vector<float>;

class Datasets : public Workplace {
protected:
    /// An input dataset with these header lines and these data bytes.
    void make_input(const std::string& name, const std::string& lines, const std::string& data) {
        write_text(name, lines + "\t\tsets next: in=\"" + dir_ + name + "@\"\n");
        write_text(name + "@", data);
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

TEST_F(Datasets, AnOutputByteForByteAndReadBack) {
    const Samples samples{1.0f, -2.5f, 1e-20f, 0.0f};
    auto s = session({"grad=g.H", "datapath=" + dir_ + "d_"});
    s->to_history("n1", 4, "grad");
    EXPECT_EQ(without_title(read_text("g.H")), "\n\nTITLE\n\t\tn1=4\n");  // on file at once
    s->to_history("n4", 1, "grad");
    s->to_history("d1", 0.25f, "grad");
    s->to_history("o1", 1.0 / 3.0, "grad");
    s->to_history("flag", true, "grad");
    s->to_history<std::string>("label1", "depth (m)  ", "grad");
    s->to_history<std::string>("quoted", "\"as it is\"", "grad");
    write(*s, "grad", samples);
    s->to_history("n4", 3, "grad");
    EXPECT_EQ(without_title(read_text("g.H")),
              "\n\nTITLE\n\t\tn1=4\n\t\tn4=1\n\t\td1=0.25\n\t\to1=0.333333333333333\n\t\tflag=yes\n"
              "\t\tlabel1=\"depth (m)\"\n\t\tquoted=\"as it is\"\n\t\tsets next: in=\"" +
                  dir_ + "d_g.H@\"\n\t\tdata_format=\"xdr_float\"\n\t\tn4=3\n");
    EXPECT_EQ(read_text("d_g.H@"), xdr(samples));

    auto t = session({"vel=g.H"});
    EXPECT_EQ(t->from_aux<int>("vel", "n1"), 4);
    EXPECT_EQ(t->from_aux<int>("vel", "n4"), 3);
    EXPECT_EQ(t->from_aux<float>("vel", "d2", 7.0f), 7.0f);
    EXPECT_THAT(refusal([&] { t->from_aux<int>("vel", "n2"); }),
                StartsWith("missing history value: n2 from file: vel\n"));
    EXPECT_EQ(read(*t, "vel", 2), Samples({1.0f, -2.5f}));
    EXPECT_EQ(read(*t, "vel", 2), Samples({1e-20f, 0.0f}));
    EXPECT_EQ(t->sseek("vel", 0, 0), 0);
    EXPECT_EQ(errors(), "");
    EXPECT_EQ(read(*t, "vel", 6), samples);  // a short count is normal
    const std::string once = errors();
    EXPECT_THAT(once, AllOf(HasSubstr("g.H@"), HasSubstr("expected 24 bytes, found 16")));
    EXPECT_EQ(read(*t, "vel", 1), Samples());
    EXPECT_EQ(errors(), once);
    seek(*t, "vel", {{-4, 2, 12}, {-8, 1, 4}});
    EXPECT_EQ(read(*t, "vel", 1), Samples({-2.5f}));
    seek(*t, "vel", {{-1, 0, -1}, {0, 3, 8}});
    EXPECT_THAT(errors(), AllOf(HasSubstr("fd_seek: Invalid argument"), EndsWith("unknown seek type requested\n")));
}

TEST_F(Datasets, HistoryOfOut) {
    set_input("n1=5\nsome text\n\t\tin=\"/data/a.H@\"\n");
    set_output_file("Hout.H");
    auto s = session({"niter=3", "datapath=/d/", "alt.write_title=no"});
    EXPECT_EQ(s->from_param<int>("niter"), 3);
    EXPECT_EQ(s->from_param<float>("trick", 0.14f), 0.14f);
    s->from_param<bool>("dso", false);
    s->from_param<std::string>("extrapolator", "ffd");
    s->from_param<std::string>("cgsolv", "      ");
    s->to_history("n1", 7);
    s->set_no_putch();
    s->from_param<int>("unseen", 1);
    s->to_history("unseen", 1);
    s->set_alternate_putch("alt");
    s->from_param<int>("nh", 4);
    s->set_yes_putch();
    s->to_history("o1", 0.0f);
    EXPECT_EQ(
        without_title(read_text("Hout.H")),
        "n1=5\nsome text\n\t\tin=\"/data/a.H@\"\n\n\nTITLE\n\t\tsets next: in=\"/d/out.H@\"\n\t\tFrom par: niter=3\n"
        "\t\tFrom par: trick=0.14\n\t\tFrom par: dso=no\n\t\tFrom par: extrapolator=\"ffd\"\n"
        "\t\tFrom par: cgsolv=\" \"\n\t\tn1=7\n\t\to1=0\n");
    EXPECT_EQ(read_text("alt"), "\t\tFrom par: nh=4\n");
    auto reader = session({"h=Hout.H"});
    EXPECT_EQ(reader->from_aux<int>("h", "niter"), 3);
    EXPECT_EQ(reader->from_aux<int>("h", "n1"), 7);
    EXPECT_EQ(reader->from_aux<std::string>("h", "in"), "/d/out.H@");
}

TEST_F(Datasets, WhereTheDataOfOutGo) {
    const std::string with_header = "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n";
    const std::string next = "\t\tsets next: in=";
    const struct {
        const char* fault;
        Words words;
        std::string line;
    } rows[] = {
        {"named by the parameter out, made absolute", {"out=o.dat"}, next + '"' + dir_ + "o.dat\"\n"},
        {"with the header", {"out=stdout"}, with_header},
        {"datapath says stdout", {"datapath=stdout"}, with_header},
        {"named like the header", {"datapath=/d/"}, next + "\"/d/o.H@\"\n"},
        {"a variable for the folder",
         {"datapath=$QASVAR/"},
         next + "\"$QASVAR/o.H@\"\n\t\t current environment QASVAR=\"/v\"\n"},
        {"header in a file of the parameter head", {"head=h.H", "datapath=/d/"}, next + "\"/d/h.H@\"\n"},
        {"header in a file, data on the standard output", {"head=h.H", "out=stdout"}, next + "\"stdout\"\n"},
        {"header named by the parameter stdout", {"stdout=h.H", "datapath=/d/"}, next + "\"/d/h.H@\"\n"},
    };
    ::setenv("QASVAR", "/v", 1);
    for (auto [fault, words, line] : rows) {
        SCOPED_TRACE(fault);
        set_output_file("o.H");
        words.push_back("out.write_title=y");
        session(words)->to_history("n1", 1);
        EXPECT_EQ(read_text(words[0].ends_with("=h.H") ? "h.H" : "o.H"), line + "\t\tn1=1\n");
    }
    ::unsetenv("QASVAR");
    session({"g=stdout", "head=h.H", "g.write_title=n"})->to_history("n2", 1, "g");  // head= is for any output
    EXPECT_EQ(read_text("h.H"), "\t\tn2=1\n");
}

TEST_F(Datasets, ANamelessOutputGetsAUniqueDataName) {
    auto s = session({"head=stderr", "datapath=./"});
    s->to_history("n1", 1);
    const std::string unique = errors().substr(errors().find("./prog@"), 13);
    EXPECT_THAT(unique, MatchesRegex("./prog@......"));
    write_text(unique, "precious");  // somebody takes the name before it is used
    EXPECT_THAT(refusal([&] { write(*s, "out", {1}); }), HasSubstr("File exists"));
    EXPECT_EQ(read_text(unique), "precious");
    std::rewind(err_);
    session({"head=stderr", "datapath=/no/such/folder/"})->to_history("n1", 1);  // asked for nowhere: no reason to end
    EXPECT_THAT(errors(), HasSubstr("sets next: in=\"/no/such/folder/prog@"));
}

TEST_F(Datasets, HeaderAndDataInOneFile) {
    set_input("n1=2\n");
    set_output_file("all.H");
    {
        auto s = session({"out=stdout"});
        s->to_history("n1", 3);
        EXPECT_EQ(s->sseek("out", 0, 0), 0);  // behind the header
        EXPECT_EQ(s->file_position("out"), 0);
        write(*s, "out", {1.5f, 2.5f});
        write(*s, "out", {4.0f});
        s->to_history("n1", 4);  // would land in the data
        EXPECT_THAT(errors(), HasSubstr("the history of tag \"out\" is complete"));
    }
    const Samples samples{1.5f, 2.5f, 4.0f};
    EXPECT_THAT(read_text("all.H"), EndsWith("data_format=\"xdr_float\"\n\n\f\f\4" + xdr(samples)));
    auto s = session({"rec=all.H"});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    EXPECT_EQ(s->data_size("rec"), 12);
    EXPECT_EQ(read(*s, "rec", 3), samples);
    seek(*s, "rec", {{4, 0, 4}, {4, 1, 8}});
    EXPECT_EQ(read(*s, "rec", 1), Samples({4.0f}));
    seek(*s, "rec", {{0, 0, 0}, {-4, 2, 8}, {-1, 0, -1}});  // not into the header
    EXPECT_THAT(errors(), HasSubstr("file_seek: Invalid argument"));
}

TEST_F(Datasets, InputHeaderOnThePipe) {
    const int to_us = pipe_input();
    put(to_us, "n1=3 in=stdin\n\n\f\f\4" + xdr<float>({1, 2, 3}));
    ::close(to_us);
    auto s = session();
    EXPECT_EQ(s->from_aux<int>("in", "n1"), 3);
    EXPECT_EQ(s->data_size("in"), -1);
    EXPECT_EQ(s->sseek("in", 0, 0), 0);
    EXPECT_EQ(read(*s, "in", 1), Samples({1}));
    seek(*s, "in", {{0, 0, -1}, {-1, 1, -1}, {0, 2, -1}, {4, 1, 8}});
    EXPECT_EQ(read(*s, "in", 1), Samples({3}));
    EXPECT_EQ(errors(),
              "backwards absolute seek on stream device \nbackwards relative seek on stream device \n"
              "seek relative to end on stream device \n");
}

TEST_F(Datasets, AHintWhenAnInputKeepsSilent) {
    const int to_us = pipe_input();
    std::thread writer([&] {
        while (errors().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        put(to_us, "n1=4\n");
        ::close(to_us);
    });
    qas::Layer layer;
    prepare(layer, {});
    layer.hint_after_ms = 20;
    EXPECT_EQ(qas::tag_info(layer, "in", qas::Mode::input)->headerbuf, "n1=4\n");
    writer.join();
    EXPECT_THAT(errors(), HasSubstr("waiting for the header of tag \"in\""));
}

TEST_F(Datasets, FormatsOfInputs) {
    const std::string data("\x3f\x80\x00\x00", 4), swapped(data.rbegin(), data.rend());
    for (const std::string format :
         {"xdr_float", "xdr_int", "xdr_byte", "native_float", "native_byte", "kplot", "tmc_float", "tmc_byte"}) {
        SCOPED_TRACE(format);
        make_input("v.H", "data_format=" + format + "\n", data);
        std::string back(4, '.');
        auto s = session({"vel=v.H"});
        EXPECT_EQ(s->sreed("vel", back.data(), 4), 4);
        EXPECT_EQ(back, format == "xdr_float" || format == "xdr_int" ? swapped : data);
        EXPECT_EQ(s->get_format("vel"), format);
    }
}

TEST_F(Datasets, FormatsOfOutputs) {
    auto s = session({"datapath=./"});
    s->to_history("n1", 1, "a");
    s->set_format("a", "native_float");
    write(*s, "a", {1});
    EXPECT_EQ(read_text("a@"), std::string("\x00\x00\x80\x3f", 4));
    EXPECT_THAT(read_text("a"), HasSubstr("data_format=\"native_float\"\n"));
    EXPECT_EQ(refusal([&] { s->set_format("a", "ascii"); }), "set_format( a , ascii ): unknown format ");
    set_input("data_format=native_float\n");
    set_output_file("o.H");
    auto t = session({"datapath=./"});
    t->to_history("n1", 1);
    EXPECT_EQ(t->get_format("out"), "native_float");
}

TEST_F(Datasets, CountsThatAreNoMultipleOfFour) {
    make_input("v.H", "", xdr<float>({1, 2, 3}));
    make_input("w.H", "", xdr<float>({1, 2, 3}).substr(0, 10));  // the file itself ends inside a sample
    auto s = session({"datapath=./"});
    for (const auto& [name, nbytes] : {std::pair{"v.H", 10}, {"w.H", 12}}) {
        Samples back(3, 9.0f);
        EXPECT_EQ(s->sreed(name, back.data(), nbytes), 10);
        EXPECT_EQ(back, Samples({1, 2, 9}));
    }
    EXPECT_EQ(s->srite("y", ramp(3).data(), 10), 10);
    EXPECT_EQ(read_text("y@"), xdr(ramp(2)));
}

TEST_F(Datasets, NothingMovesForACountOfZero) {
    auto s = session();
    EXPECT_EQ(s->srite("never", nullptr, 0), 0);
    EXPECT_EQ(s->sreed("never", nullptr, 0), 0);
    EXPECT_FALSE(std::filesystem::exists("never"));
    EXPECT_EQ(refusal([&] { s->sseek("never", 0, 0); }), "Unknown tag \"never\" \n");
}

TEST_F(Datasets, BadInputsEndWithOneMessageThatNamesTagFileAndKey) {
    ASSERT_EQ(::mkfifo("fifo", 0600), 0);  // opening it would wait for ever
    std::filesystem::create_directory("folder");
    write_text("a", "1234");
    std::string many = "a";
    for (int i = 0; i < 1000; ++i) many += ";a";
    const std::pair<std::string, std::string> rows[] = {
        {"n1=4",
         "sreed(): invalid input tag x.H\n  header \"x.H\" of tag \"x.H\" (parameter x.H) has no data: it holds"
         " no in=\n"},
        {"in=/no/data",
         "sreed(): invalid input tag x.H\n  data file \"/no/data\" of header \"x.H\" of tag \"x.H\""
         " (parameter x.H): No such file or directory\n"},
        {"in=fifo", "\"fifo\" of header \"x.H\""},
        {"in=\"a;/dev/zero\"", "\"/dev/zero\" of header \"x.H\" of tag \"x.H\" (parameter x.H): not a regular file"},
        {"in=\"a;gone\"", "data file \"gone\""},
        {"in=\"" + many + "\"", "nfiles to large, max 1000 \n  header \"x.H\""},
        {"in=\";;\"", "Invalid dataset \";;\" for tag \"x.H\"\n"},
        {"in=\"-1\"", "Invalid dataset \"-1\" for tag \"x.H\"\n"},
        {"in=stdout", "unable to obtain input file \"stdout\" for tag \"x.H\"\n  header"},
        {"in=\"touch ran|\"", "data file \"touch ran|\""},
        {"in=\"$QASVAR/v@\"", "Unable to obtain pathname variable QASVAR\n"},
        {"par=fifo", "par=fifo, named in a history, is not a regular file"},
        {"data_format=ascii in=a",
         "unknown data format: ascii \n xdr_float xdr_int xdr_byte native_float native_byte kplot tmc_float tmc_byte \n"
         "  data_format of header \"x.H\" of tag \"x.H\" (parameter x.H)\n"},
    };
    for (const auto& [header, message] : rows) {
        write_text("x.H", header + "\n");
        EXPECT_THAT(refusal([&] { read(*session(), "x.H", 1); }), Says(message)) << header;
    }
    EXPECT_THAT(errors(), HasSubstr("unable to obtain input file \"/no/data\" for tag \"x.H\"\n"));
    write_text("x.H", "n1=4 in=fifo\n");
    auto s = session({"vel=missing.H", "in=/dev/zero"});
    s->auxinout("x.H");
    EXPECT_THAT(refusal([&] { write(*s, "x.H", {1}); }), HasSubstr("not a regular file"));
    EXPECT_THAT(refusal([&] { s->sseek("x.H", 0, 0); }), StartsWith("sseek(): invalid tag x.H\n"));
    EXPECT_EQ(read(*s, "in", 1), Samples({0}));  // the user may
    EXPECT_EQ(refusal([&] { s->from_aux<int>("vel", "n1"); }),
              "Attempt to get parameter n1 from tag vel which is not a valid description file \n"
              "  header \"missing.H\" of tag \"vel\" (parameter vel): No such file or directory\n");
    EXPECT_THAT(refusal([&] { read(*s, "vel", 1); }), StartsWith("sreed(): invalid input tag vel\n"));
    EXPECT_THAT(refusal([&] { s->from_aux<int>("folder", "n1"); }), HasSubstr("Is a directory"));
    EXPECT_THAT(refusal([&] { s->from_aux<int>(std::string(300, 'x'), "n1"); }), StartsWith("Bad header name 'xxx"));
}

TEST_F(Datasets, AxesAreChecked) {
    make_input("v.H", "n1=3 d1=2.5 o1=-1\nn2=0 d2=1 o2=0 n3=-4 d3=1 o3=0 n4=5 d4=nan o4=0 n5=99999999999 d5=1 o5=0\n",
               xdr<float>({1, 2, 3}));
    auto s = session({"vel=v.H"});
    const morvane::Axis axis = s->from_aux_axis("vel", 1);
    EXPECT_EQ(axis.n, 3);
    EXPECT_EQ(axis.d, 2.5f);
    EXPECT_EQ(axis.o, -1.0f);
    const char* const texts[] = {"header \"v.H\" of tag \"vel\" (parameter vel): n2=0 must be 1 to ", "n3=-4 must be",
                                 "d4=nan must be", "n5=2147483647 must be", "missing history value: n6 from file: vel"};
    for (int k = 2; k <= 6; ++k) EXPECT_THAT(refusal([&] { s->from_aux_axis("vel", k); }), HasSubstr(texts[k - 2]));
    s->check_data_size("vel", 12, "n1");
    s->check_data_size("vel", 4000, "n1");  // a short file is a warning when it is read
    for (const auto& row : {std::pair{std::int64_t{1} << 30, "n1*n3 asks for 1073741824 bytes, its data are 12 bytes"},
                            {std::int64_t{1} << 60, "this machine has"},
                            {std::int64_t{-4}, "asks for -4 bytes"}})
        EXPECT_THAT(refusal([&] { s->check_data_size("vel", row.first, "n1*n3"); }), HasSubstr(row.second));
}

TEST_F(Datasets, OutputsThatCannotBeWritten) {
    for (const char* taken : {"stdin", "place"}) std::filesystem::create_directory(taken);
    const struct {
        Words words;
        std::string message, note = "";
    } rows[] = {
        {{"g=/no/such/g.H"},
         "cannot create output header \"/no/such/g.H\" for tag \"g\" (parameter g): No such file or directory\n",
         "qasstrhead, openfile(): No such file or directory\n"},
        {{"datapath=/no/such/"},
         "srite(): invalid output tag g\n  data file \"/no/such/g@\" of header \"g\" of tag \"g\" (parameter g): No "
         "such"
         " file or directory\n  data path \"/no/such/\" is from the parameter datapath; datapath=DIRECTORY/ sets it\n",
         " unable to open output datafile /no/such/g@ for tag g \n"},
        {{"g=/dev/full", "datapath=./"},
         "I/O error writing output history\n  header \"/dev/full\" of tag \"g\" (parameter g): No space left on "
         "device\n",
         "write_title: No space left on device\n"},
        {{"g=cat x|"}, "output pipe command 'cat x|' doesn't start with | for tag g\n"},
        {{"g.out=stdin"},
         " unable to open output datafile stdin for tag g \n  header \"g\" of tag \"g\" (parameter g): Is a "
         "directory\n"},
        {{"g.out=c;follow_hdr"}, "follow_hdr is invalid for file descriptor I/O for tag \"g\"\n"},
        {{"nfiles=1001"}, "nfiles to large, max 1000 \n"},
        {{"nfiles=0"}, "parameter nfiles=0: must be 1"},
        {{"filesize=0"}, "parameter filesize: 0 megabytes"},
        {{"dirsize=5,-1"}, "parameter dirsize: -1 megabytes"},
        {{"g=a;b"}, "output header \"a;b\" of tag \"g\" (parameter g): a \";\" in its name would part"},
        {{"g.out=a\nb"},
         "the name of the data file of header \"g\" of tag \"g\" (parameter g): character 3 of it is a control"
         " character (number 10), which a history cannot hold\n"},
        {{"nfiles=300", "filesize=1", "datapath=./some/folder/with/a/name/"},
         "the names of the 300 data files (nfiles, datapath) of header \"g\" of tag \"g\" (parameter g): 9490 "
         "characters"
         " with its quotes, of which a history can hold 8191\n"},
    };
    for (const auto& row : rows) {
        EXPECT_THAT(refusal([&] { write(*session(row.words), "g", {1}); }), Says(row.message));
        EXPECT_THAT(errors(), EndsWith(row.note));
    }
    for (const auto& row :
         {std::pair{"stdout=/no/h", "tag \"out\" (parameter stdout): No such file"},
          {"head=/no/h", "tag \"out\" (parameter head): No such file"},
          {"place", "tag \"place\" (the tag's own name; place=FILE gives another): Is a directory"}}) {
        const char* const tag = std::string(row.first) == "place" ? "place" : "out";
        EXPECT_THAT(refusal([&] { session({row.first})->to_history("n1", 1, tag); }), HasSubstr(row.second));
    }
    EXPECT_THAT(refusal([&] { session({"data_format=odd"})->to_history("n1", 1); }),
                StartsWith("unknown data format: odd \n "));
    EXPECT_THAT(
        refusal([&] { session({"stdout=x"})->to_history("title", std::string("a\4b")); }),
        HasSubstr("(parameter stdout): the value of title: character 2 of it is a control character (number 4)"));
    EXPECT_THAT(refusal([&] { session({"stdout=x"})->from_param("sufx", std::string(8190, 's')); }),
                HasSubstr("the value of sufx: 8192 characters"));
    set_input("n1=1\n");
    auto s = session({"stdout=/dev/full", "out=x"});
    EXPECT_THAT(refusal([&] { s->to_history("n1", 1); }), StartsWith("I/O error writing output history\n"));
    EXPECT_THAT(errors(), EndsWith("qasstr_copyh(): No space left on device\n"));
}

TEST_F(Datasets, NamesAndTextsWithQuotesReadBack) {
    for (const std::string name : {"a\"b\"\"c", "\"front", "it's", "\"whole\"\"", " blank s"}) {
        const std::string header = "g=" + qas::quoted_text(name);
        auto s = session({header, "datapath=./" + std::string(name == "it's" ? "" : "d_")});
        s->to_history("label1", name, "g");
        write(*s, "g", {1, 2});
        auto t = session({header});
        EXPECT_EQ(t->from_aux<std::string>("g", "label1"), name);
        EXPECT_EQ(read(*t, "g", 2), Samples({1, 2})) << name;
    }
}

TEST_F(Datasets, OutputsMayNotOverwriteDatasetsInUse) {
    using Call = void (*)(qas::Session&);
    make_input("m.H", "n1=1 \n", xdr<float>({5}));
    write_text("parts.H", "n1=1 in=\"p.H@;p.H@1\"\n");
    write_text("p.H@", "1234");
    write_text("p.H@1", "5678");
    std::filesystem::create_directory("sub");
    std::filesystem::create_hard_link("m.H@", "hard");
    const std::string of_vel = "header \"m.H\" of tag \"vel\" (parameter vel): give ";
    const std::string data_of_vel = "is the data file of " + of_vel;
    const Call line = [](qas::Session& s) { s.to_history("n1", 1, "g"); };
    const Call record = [](qas::Session& s) { s.from_param<int>("nh", 1); };
    const Call two_lines = [](qas::Session& s) {
        s.to_history("n1", 1, "g");
        s.to_history("n1", 1, "h");
    };
    const Call scratch = [](qas::Session& s) { s.auxscr("g"); };
    const Call in_out = [](qas::Session& s) { s.auxinout("g"); };
    const struct {
        Words words;
        Call call;
        std::string part;
    } refused[] = {
        {{"g=./m.H"},
         line,
         "output header \"./m.H\" of tag \"g\" (parameter g) is the file of " + of_vel + "it another name\n"},
        {{"g=m.H@"}, line, "(parameter g) " + data_of_vel},
        {{"g=sub/m.H"},
         line,
         "output data file \"" + dir_ + "m.H@\" for tag \"g\" " + data_of_vel + "g.out=FILE or another datapath=\n"},
        {{"g=x.H", "g.out=hard"}, line, data_of_vel},
        {{"g=x.H", "g.out=sub/../m.H"}, line, "is the file of " + of_vel},
        {{"g=x.H", "g.out=x.H"}, line, "is the file of header \"x.H\" of tag \"g\""},
        {{"g=sub/p.H", "nfiles=2", "vel=parts.H"}, line, "output data file \"" + dir_ + "p.H@"},
        {{"g=x.H", "g.out=p.H@1", "vel=parts.H"}, line, "is the data file of header \"parts.H\""},
        {{"out=m.H@", "stdout=x.H"}, record, "give out=FILE or another datapath="},
        {{"stdin=m.H", "stdout=m.H"}, record, "of tag \"out\" (parameter stdout) is the file of"},
        {{"g=sub/y.H", "h=y.H"},  // neither exists yet
         two_lines,
         "output data file \"" + dir_ + "y.H@\" for tag \"h\" is the data file of header \"sub/y.H\""},
        {{"g=sub/m.H"}, scratch, data_of_vel},
        {{"g=sub/m.H"}, in_out, data_of_vel},
    };
    for (const auto& row : refused) {
        SCOPED_TRACE(::testing::PrintToString(row.words));
        Words words{"vel=m.H", "datapath=" + dir_};
        words.insert(words.end(), row.words.begin(), row.words.end());
        auto s = session(words);
        s->from_aux<int>("vel", "n1");
        EXPECT_THAT(refusal([&] { row.call(*s); }), HasSubstr(row.part));
        EXPECT_EQ(read_text("m.H@") + read_text("p.H@") + read_text("p.H@1"), xdr<float>({5}) + "12345678");
        EXPECT_THAT(read_text("m.H"), StartsWith("n1=1 \n"));
        for (const char* name : {"x.H", "sub/m.H", "sub/p.H"}) EXPECT_FALSE(std::filesystem::exists(name)) << name;
    }
    auto s = session({"vel=m.H", "g=/dev/null", "h=/dev/null", "out=/dev/null", "head=stderr", "i=x.H",
                      "p=|cat > piped", "isoutstream=1", "datapath=" + dir_});
    write_text("x.H", "in=m.H@ n1=1\n");
    EXPECT_EQ(s->from_aux<int>("vel", "n1"), 1);
    s->auxinout("i");  // reads and rewrites what another tag reads
    for (const char* tag : {"g", "h", "out", "p", "i"}) write(*s, tag, {1});
    EXPECT_EQ(read_text("m.H@"), xdr<float>({1}));
}

TEST_F(Datasets, ClosingHeaders) {
    write_text("g", std::string(500, 'o'));  // an earlier run's, longer
    write_text("g@", std::string(500, 'o'));
    auto s = session({"datapath=./", "g.write_title=no"});
    s->to_history("n1", 1, "g");
    EXPECT_EQ(read_text("g@"), "") << "old samples under a new history";
    s->auxhclose("g");
    EXPECT_EQ(read_text("g"), "\t\tn1=1\n\t\tsets next: in=\"./g@\"\n\t\tdata_format=\"xdr_float\"\n\n");
    s->auxhclose("g");
    EXPECT_EQ(errors(),
              "WARNING: Multiple closes of output header with tag \"g\"\n or close called after first write\n");
    write(*s, "g", {1});
    s->auxclose("g");
    EXPECT_EQ(read_text("g@").size(), 4U);
    EXPECT_EQ(refusal([&] { s->sseek("g", 0, 0); }), "Unknown tag \"g\" \n");
    EXPECT_EQ(s->from_aux<int>("g", "n1"), 1);  // now an input
}

TEST_F(Datasets, TagsUsedTheWrongWayRound) {
    make_input("v.H", "n1=1\n", xdr<float>({5}));
    auto s = session({"vel=v.H", "datapath=./"});
    s->to_history("n1", 1, "o");
    EXPECT_THAT(refusal([&] { s->from_aux<int>("o", "n1"); }),
                StartsWith("Attempt to get parameter n1 from tag o which is"));
    EXPECT_THAT(refusal([&] { read(*s, "o", 1); }), StartsWith("sreed(): invalid input tag o\n"));
    EXPECT_EQ(s->from_aux<int>("vel", "n1"), 1);
    EXPECT_THAT(refusal([&] { write(*s, "vel", {1}); }), StartsWith("srite(): invalid output tag vel\n"));
    EXPECT_THAT(refusal([&] { s->to_history("n1", 2, "vel"); }), HasSubstr("in use as an input"));
}

TEST_F(Datasets, WhatIsCopiedOfTheInputHistory) {
    write_text("v.H", "n1=4 in=x\4");
    write_text("old.H", "n1=7\n");
    for (const auto& [word, text] : {std::pair{"noheader=yes", "No input header "}, {"stdin=v.H", "n1=4 in=x"}}) {
        set_output_file("o.H");
        session({word, "out=x", "out.write_title=n"})->to_history("n1", 1);
        EXPECT_EQ(read_text("o.H"), text + ("\t\tsets next: in=\"" + dir_) + "x\"\n\t\tn1=1\n");
    }
    EXPECT_EQ(
        refusal([&] {
            session({"stdin=missing.H", "stdout=old.H", "data_format=xdr_int", "out=x"})->to_history("n1", 1);
        }),
        " error copying header to output history\n  header \"missing.H\" of tag \"in\" (parameter stdin): No such file"
        " or directory\n");
    EXPECT_EQ(read_text("old.H"), "n1=7\n");
}

TEST_F(Datasets, AnOutputHeaderMayBeNamedByTheInputHistory) {
    set_input("grad=from_history.H\n");
    for (const char* text : {"", "n1=1 in=x\n"}) {  // a header may be overwritten, as when a run is repeated
        std::rewind(in_);
        write_text("from_history.H", text);
        auto s = session({"datapath=./"});
        EXPECT_EQ(
            refusal([&] { s->to_history("n1", 3, "grad"); }),
            "tag \"grad\": only the history of header \"stdin\" of tag \"in\" (parameter stdin) names a header for it,"
            " \"from_history.H\": name one on the command line with grad=\n");
        EXPECT_EQ(read_text("from_history.H"), text);
        s->inherit_outputs({"grad"});
        s->to_history("n1", 2, "grad");
        EXPECT_THAT(read_text("from_history.H"), EndsWith("\t\tn1=2\n"));
        EXPECT_THAT(errors(),
                    HasSubstr("tag \"grad\": its header \"from_history.H\" is named by the history of header"));
    }
    EXPECT_FALSE(std::filesystem::exists("grad"));
    std::rewind(in_);
    write_text("from_history.H", "dear diary\n");
    const std::string refused =
        "tag \"grad\": the history of header \"stdin\" of tag \"in\" (parameter stdin) names \"from_history.H\" as its "
        "header,"
        " which is a file and";
    auto s = session({"datapath=./"});
    s->inherit_outputs({"grad"});
    EXPECT_THAT(refusal([&] { s->to_history("n1", 1, "grad"); }), StartsWith(refused));
    EXPECT_THAT(refusal([&] { s->auxinout("grad"); }), StartsWith(refused));
    s->auxscr("grad");  // only the command line names scratch datasets
    EXPECT_TRUE(std::filesystem::exists("grad"));
    EXPECT_EQ(read_text("from_history.H"), "dear diary\n");
}

TEST_F(Datasets, FoldersInVariables) {
    std::filesystem::create_directory("sub");
    write_text("sub/v@", xdr<float>({5}));
    write_text("v.H", "in=\"$QASVAR/v@\" QASVAR=sub\n");
    write_text("w.H", "in=\"$QASVAR/v@\"\n");
    EXPECT_EQ(read(*session(), "v.H", 1), Samples({5}));  // from the header itself
    EXPECT_EQ(read(*session({"QASVAR=sub"}), "w.H", 1), Samples({5}));
    ::setenv("QASVAR", (dir_ + "sub").c_str(), 1);
    EXPECT_EQ(read(*session(), "w.H", 1), Samples({5}));
    ::unsetenv("QASVAR");
}

TEST_F(Datasets, WhereTheDataPathComesFrom) {
    const auto path = [&](Words words = {}) {
        qas::Layer layer;
        prepare(layer, words);
        return qas::datapath(layer).prefix;
    };
    EXPECT_EQ(path(), "/tmp//" + qas::user_name() + "/_");
    std::filesystem::create_directory("home");
    ::setenv("HOME", (dir_ + "home").c_str(), 1);
    write_text("home/.datapath", "datapath=/from/home/\n");
    EXPECT_EQ(path(), "/from/home/");
    write_text(".datapath", "datapath=/from/here/\n");
    EXPECT_EQ(path(), "/from/here/");
    ::setenv("DATAPATH", "/from/env/", 1);
    EXPECT_EQ(path(), "/from/env/");
    EXPECT_EQ(path({"datapath=/from/word/"}), "/from/word/");
    ::unsetenv("DATAPATH");
    write_text(".datapath", "host datapath=/a/\n");
    EXPECT_THAT(refusal([&] { path(); }), StartsWith(" Error reading .datapath file"));
}

TEST_F(Datasets, TheFolderOfTheDefaultDataPathIsMade) {
    const char* const before = std::getenv("USER");
    const std::string user = before ? before : "";
    ::setenv("USER", ("morvane_test_" + std::to_string(::getpid())).c_str(), 1);  // counts where nobody logged in
    const std::filesystem::path folder = "/tmp/" + qas::user_name();
    const bool there = std::filesystem::exists(folder);
    const std::string name = "morvane_test_" + std::to_string(::getpid()) + ".H";
    write(*session({"g=" + name}), "g", {1, 2});
    EXPECT_EQ(read(*session(), name, 2), Samples({1, 2}));
    EXPECT_TRUE(std::filesystem::remove(folder / ("_" + name + "@")));
    if (!there) std::filesystem::remove(folder);
    before ? ::setenv("USER", user.c_str(), 1) : ::unsetenv("USER");
}

TEST_F(Datasets, ReadpathTakesTheLastLineOfTheHost) {
    EXPECT_EQ(qas::readpath("datapath=/a/\nmyhost datapath=/b/\nmyhost datapath=/c/\n", "myhost"), "/c/");
    EXPECT_EQ(qas::readpath("datapath=/a/\nother datapath=/b/\n", "myhost"), "/a/");
    EXPECT_EQ(qas::readpath(" datapath=/a/ myhost", "myhost"), "/a/");
    for (const char* text : {"", "\n", "datapath=", "path=/a/", "myhost datapath=/b/"})
        EXPECT_EQ(refusal([&] { qas::readpath(text, "myhost"); }), " Error reading .datapath file") << text;
}
