#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <numeric>

#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/parameters.h"
#include "lib/corelibs/qas/sockets.h"
#include "lib/corelibs/qas/sync.h"
#include "tests/lib/corelibs/qas/workplace.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

const std::vector<float> three{1.5f, -2.5f, 4.0f};

class Pipes : public Workplace {
protected:
    /// Makes a new pipe's reading end the standard input; returns the writing end.
    int pipe_input() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        std::fclose(in_);
        in_ = ::fdopen(ends[0], "r");
        return ends[1];
    }
    static void put(int fd, const std::string& bytes) {
        EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void prepare(qas::Layer& layer, std::vector<std::string> words) const {
        words.insert(words.begin(), "prog");
        qas::initpar(layer, std::move(words));
        layer.notes.err = err_;
        layer.out = out_;
        layer.in = in_;
        layer.retry_ms = 1;
    }
    /// Leaves room for `more` new descriptors.
    struct FewDescriptors {
        rlimit before{};
        explicit FewDescriptors(int more) {
            const int next = ::dup(0);
            ::close(next);
            ::getrlimit(RLIMIT_NOFILE, &before);
            const rlimit few{static_cast<rlim_t>(next + more), before.rlim_max};
            ::setrlimit(RLIMIT_NOFILE, &few);
        }
        ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before); }
    };
};

}  // namespace

TEST_F(Pipes, AnInputCommand) {
    write_file("all.H", "n1=3 in=stdin\n\n\f\f\4" + xdr(three));
    write_file("plain.H", "n1=2 in=/none\n");
    auto s = session({"rec=cat all.H|", "sou=sed p plain.H |"});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    std::vector<float> back(3);
    EXPECT_EQ(s->sreed("rec", back.data(), 12), 12);
    EXPECT_EQ(back, three);
    EXPECT_EQ(s->from_aux<int>("sou", "n1"), 2);
}

TEST_F(Pipes, AnInputCommandThatNeverEndsDoesNotHoldUpTheProgram) {
    write_file("head.H", "n1=3 in=stdin\n\n\f\f\4");
    ASSERT_EQ(::mkfifo("go", 0600), 0);
    auto s = session({"rec=cat head.H; exec cat go 2>/dev/null |"});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    s.reset();                        // the test's time limit tells
    ::close(::open("go", O_WRONLY));  // lets the command end
}

TEST_F(Pipes, AnOutputCommandGetsHeaderAndData) {
    {
        auto s = session({"grad=|cat > copy.H", "isoutstream=1"});
        s->to_history("n1", 3, "grad");
        s->srite("grad", three.data(), 12);
    }  // waits for the command
    EXPECT_THAT(read_file("copy.H"), EndsWith("\t\tn1=3\n\t\tqasstr_ready_out() : sets next in=\"stdin\"\n"
                                              "\t\tdata_format=\"xdr_float\"\n\n\f\f\4" +
                                              xdr(three)));
    std::vector<float> back(3);
    EXPECT_EQ(session()->sreed("copy.H", back.data(), 12), 12);
    EXPECT_EQ(back, three);
}

TEST_F(Pipes, AnOutputCommandThatEndsEarlyIsAFailingWrite) {
    auto s = session({"grad=|exit 0", "isoutstream=1"});
    const std::vector<float> panel(1 << 20);
    EXPECT_THAT(fatal([&] {
                    for (int i = 0; i < 8; ++i) {
                        s->to_history("n1", i, "grad");
                        s->srite("grad", panel.data(), 4 << 20);
                    }
                }),
                HasSubstr("Broken pipe"));
}

TEST_F(Pipes, CommandTexts) {
    EXPECT_EQ(fatal([&] { session({"rec=|cat x"})->from_aux<int>("rec", "n1"); }),
              "input pipe command '|cat x' doesn't end with '|' for tag rec \n");
    EXPECT_EQ(fatal([&] { session({"grad=cat x|"})->to_history("n1", 1, "grad"); }),
              "output pipe command 'cat x|' doesn't start with | for tag grad\n");
    auto s = session({"rec=cat x|", "grad=|cat x"});
    EXPECT_FALSE(s->exist_file("none"));
    s->hetch<int>("n1");  // what an output's name may look up is open
    std::string input, output;
    {
        const FewDescriptors none(0);  // nothing else in here: the sanitizers need descriptors, too
        input = fatal([&] { s->from_aux<int>("rec", "n1"); });
        output = fatal([&] { s->to_history("n1", 1, "grad"); });
    }
    EXPECT_EQ(input, "error in opening input pipe \"cat x\" for tag \"rec\" \n");
    EXPECT_EQ(output, "error in opening output pipe cat x for tag grad \n");
    EXPECT_THAT(errors(), HasSubstr("qasstrhead:openpipe() : Too many open files\n"));
}

TEST_F(Pipes, NothingIsStartedOrReachedForTheSakeOfAHistory) {
    set_input("grad=\"|touch ran\" sou=\"touch ran |\" illum=\"localhost:9\"\n");
    auto s = session({"datapath=./"});
    EXPECT_EQ(fatal([&] { s->to_history("n1", 1, "grad"); }),
              "tag \"grad\": the history of \"in\" names \"|touch ran\" as its header; commands and sockets are taken "
              "only from"
              " the command line or a par= file\n");
    EXPECT_THAT(fatal([&] { s->to_history("n1", 1, "illum"); }),
                AllOf(HasSubstr("tag \"illum\""), HasSubstr("localhost:9")));
    EXPECT_THAT(fatal([&] { s->auxinout("grad"); }), HasSubstr("not a regular file"));
    EXPECT_THAT(fatal([&] { s->from_aux<int>("sou", "n1"); }),
                HasSubstr("\"sou\""));  // inputs do not look there at all
    write_file("d.H", "in=\"touch ran|\"\n");
    char byte;
    EXPECT_THAT(fatal([&] { s->sreed("d.H", &byte, 1); }), StartsWith("sreed(): invalid input tag d.H\n"));
    write_file("ok.p", "Velout=\"|cat > made\"\n");
    session({"par=ok.p"})->to_history("n1", 1, "Velout");  // the user's own file
    EXPECT_TRUE(std::filesystem::exists("made"));
    EXPECT_FALSE(std::filesystem::exists("ran"));
}

TEST_F(Pipes, EndMarks) {
    using qas::EndMark;
    struct {
        const char* fault;
        std::string header;
        EndMark::Kind kind;
        std::string left;
        int process;
        const char *host, *service;
    } const rows[] = {
        {"data follow", "n1=3\n\f\f", EndMark::data_follow, "n1=3\n", 0, "", ""},
        {"nothing but the mark", "\f\f", EndMark::data_follow, "", 0, "", ""},
        {"one byte 12 is none", "n1=3\n\f", EndMark::none, "n1=3\n\f", 0, "", ""},
        {"too short", "000000012", EndMark::none, "000000012", 0, "", ""},
        {"nine digits, blank, nothing before", " 000000012", EndMark::number, "", 12, "", ""},
        {"a number alone", "n1=3\n 000000012", EndMark::number, "n1=3\n", 12, "", ""},
        {"ten digits have no blank before the last nine", "n1=3 1000000012", EndMark::none, "n1=3 1000000012", 0, "",
         ""},
        {"eight digits", "n1=3\n 00000012", EndMark::none, "n1=3\n 00000012", 0, "", ""},
        {"the whole mark", "n1=3\nPIPE here 4711 000000099", EndMark::handshake, "n1=3\n", 99, "here", "4711"},
        {"the last PIPE counts", "PIPE a b PIPE here 4711 000000099", EndMark::handshake, "PIPE a b ", 99, "here",
         "4711"},
        {"no address", "n1=3\nPIPE 000000099", EndMark::handshake, "n1=3\n", 99, "", ""},
        {"PIPE too far back", "PIPE h s" + std::string(300, ' ') + "000000099", EndMark::number,
         "PIPE h s" + std::string(299, ' '), 99, "", ""},
        {"PIPE just near enough", "PIPE h s" + std::string(293, ' ') + "000000099", EndMark::handshake, "", 99, "h",
         "s"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        const EndMark mark = qas::parse_end_mark(row.header);
        EXPECT_EQ(mark.kind, row.kind);
        EXPECT_EQ(row.header.substr(0, mark.cut), row.left);
        EXPECT_EQ(mark.process, row.process);
        EXPECT_EQ(mark.host, row.host);
        EXPECT_EQ(mark.service, row.service);
    }
}

TEST_F(Pipes, HeaderAndDataThroughAPipeBetweenTwoProcesses) {
    const int to_us = pipe_input();
    const pid_t writer = start_process([&] {
        qas::Session s(std::vector<std::string>{"writer", "timeout=60"});
        std::FILE* nothing = std::fopen("/dev/null", "r");
        s.set_streams(nothing, ::fdopen(to_us, "w"), stderr);
        s.to_history("n1", 3);
        s.srite("out", three.data(), 12);
        s.srite("out", three.data(), 4);
    });
    ::close(to_us);
    auto s = session();
    EXPECT_EQ(s->from_aux<int>("in", "n1"), 3);
    std::vector<float> back(4);
    EXPECT_EQ(s->sreed("in", back.data(), 16), 16);
    EXPECT_EQ(back, (std::vector<float>{1.5f, -2.5f, 4.0f, 1.5f}));
    EXPECT_EQ(exit_status(writer), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Pipes, AReaderThatDoesNotAnswerGetsTheDataAllTheSame) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::fclose(out_);
    out_ = ::fdopen(ends[1], "w");
    session({"timeout=1"})->srite("out", three.data(), 12);
    std::string bytes(4096, '\0');
    bytes.resize(static_cast<std::size_t>(::read(ends[0], bytes.data(), bytes.size())));
    const std::string mark = "PIPE " + qas::socket_host_name() + " ";
    EXPECT_THAT(bytes, AllOf(HasSubstr("\t\tdata_format=\"xdr_float\"\n" + mark),
                             EndsWith(qas::strprintf(" %09d\4", ::getpid()) + xdr(three))));
    ::close(ends[0]);
}

TEST_F(Pipes, AWaitEndsWithTheReadersSignal) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t writer = start_process([&] {
        qas::Session s(std::vector<std::string>{"writer", "timeout=0"});  // without the signal it would wait for ever
        std::FILE* nothing = std::fopen("/dev/null", "r");
        s.set_streams(nothing, ::fdopen(ends[1], "w"), stderr);
        s.srite("out", three.data(), 12);
    });
    ::close(ends[1]);
    std::string bytes;
    for (char c = 0; c != 4 && ::read(ends[0], &c, 1) == 1;) bytes += c;
    ASSERT_THAT(bytes, EndsWith("\4"));
    // The same header as a reader sees it that meets the number alone; the writing end is the writer's.
    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf stream;
    stream.header_source = qas::ByteSource::own(ends[0]);
    stream.headerbuf = "n1=3\n " + bytes.substr(bytes.size() - 10, 9);
    qas::syncin(layer, stream);
    EXPECT_EQ(stream.headerbuf, "n1=3\n");
    EXPECT_EQ(exit_status(writer), 0);
}

TEST_F(Pipes, OnlyTheWriterOfThisPipeIsSignalled) {
    const pid_t bystander = start_process([] { ::pause(); });
    const std::string number = qas::strprintf(" %09d\4", bystander);
    write_file("h.H", "n1=3" + number);
    EXPECT_EQ(session({"rec=h.H"})->from_aux<int>("rec", "n1"), 3);  // a number in a regular file
    const int to_us = pipe_input();
    put(to_us, "n1=3" + number);
    EXPECT_EQ(session()->from_aux<int>("in", "n1"),
              3);    // and in a pipe that is not the bystander's: it holds a copy of
    ::close(to_us);  // no end, having been started before
    std::fclose(in_);
    in_ = std::tmpfile();
    int sockets[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    put(sockets[1], "n1=3" + number);
    std::fclose(in_);
    in_ = ::fdopen(sockets[0], "r");
    EXPECT_EQ(session()->from_aux<int>("in", "n1"), 3);
    ::close(sockets[1]);
    ::kill(bystander, SIGTERM);
    EXPECT_EQ(exit_status(bystander), -SIGTERM);
}

TEST_F(Pipes, MarksAreAnsweredOnlyToTheWriter) {
    std::string service = "0";
    const qas::Descriptor listener = qas::opensock1(service, false, "127.0.0.1");
    ASSERT_GE(listener.get(), 0);
    const auto mark = [&](int process) {
        return qas::strprintf("n1=3\nPIPE localhost %s %09d\4", service.c_str(), process);
    };
    write_file("h.H", mark(::getpid()));
    EXPECT_EQ(session({"rec=h.H"})->from_aux<int>("rec", "n1"), 3);  // a mark in a file
    const int to_us = pipe_input();
    put(to_us, mark(1));  // a writer that is not the one at the other end
    EXPECT_EQ(session()->from_aux<int>("in", "n1"), 3);
    ::close(to_us);
    EXPECT_LT(qas::socklisten(listener.get(), 1, nullptr).get(), 0);  // nobody came
    EXPECT_EQ(errors(), "");
}

TEST_F(Pipes, HandshakesThatGoWrong) {
    std::string service = "0";
    const qas::Descriptor listener = qas::opensock1(service, false, "127.0.0.1");
    const int to_us = pipe_input();
    put(to_us, qas::strprintf("n1=3\nPIPE localhost %s %09d\4", service.c_str(), ::getpid()));
    const pid_t writer = start_process([&] {
        const qas::Descriptor reader = qas::socklisten(listener.get(), 60, nullptr);
        if (qas::strget(reader.get(), 6) != "GOTIT" || !qas::strput(reader.get(), "NAK")) ::_exit(1);
    });
    EXPECT_EQ(fatal([&] { session()->from_aux<int>("in", "n1"); }), "syncin() sync err\n");
    EXPECT_EQ(exit_status(writer), 0);
    ::close(to_us);

    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t reader = start_process([&] {
        std::string bytes;
        for (char c = 0; c != 4 && ::read(ends[0], &c, 1) == 1;) bytes += c;
        bytes.pop_back();
        qas::Notes notes;
        const qas::EndMark mark = qas::parse_end_mark(bytes);
        const qas::Descriptor fd = qas::opensock2(mark.host, mark.service, notes);
        qas::strput(fd.get(), "HELLO");
        qas::strget(fd.get(), 1);
    });
    std::fclose(out_);
    out_ = ::fdopen(ends[1], "w");
    ::close(ends[0]);
    EXPECT_EQ(fatal([&] { session({"timeout=60"})->srite("out", three.data(), 12); }),
              "syncout(): pipe synch failed!\n");
    EXPECT_EQ(exit_status(reader), 0);
}

TEST_F(Pipes, SocketsBetweenTwoProcesses) {
    const std::string path = (dir_ / "sock").string();
    const pid_t writer = start_process([&] {
        qas::Session s(std::vector<std::string>{"writer", "grad=::" + path, "isoutstream=1"});
        s.set_streams(in_, out_, err_);
        s.to_history("n1", 3, "grad");
        s.srite("grad", three.data(), 12);
    });
    auto s = session({"rec=unix:" + path});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    std::vector<float> back(3);
    EXPECT_EQ(s->sreed("rec", back.data(), 12), 12);
    EXPECT_EQ(back, three);
    EXPECT_EQ(exit_status(writer), 0);
}

TEST_F(Pipes, ASocketOutputKeepsItsHeaderUntilTheReaderComes) {
    auto s = session({"timeout=60"});
    const std::string address = s->auxsockout("grad");
    EXPECT_THAT(address, StartsWith(qas::socket_host_name() + ":"));
    s->to_history("n1", 3, "grad");
    std::vector<float> samples(std::size_t{4} << 20);  // more than the buffers of a connection hold
    std::iota(samples.begin(), samples.end(), 0.0f);
    const auto nbytes = static_cast<std::int64_t>(4 * samples.size());
    const pid_t reader = start_process([&] {
        qas::Session r(std::vector<std::string>{"reader", "rec=" + address});
        r.set_streams(in_, out_, stderr);
        std::vector<float> back(samples.size() + 1);
        if (r.from_aux<int>("rec", "n1") != 3) ::_exit(1);
        if (r.sreed("rec", back.data(), nbytes + 4) != nbytes ||
            !std::equal(samples.begin(), samples.end(), back.begin()))
            ::_exit(2);
    });
    s->srite("grad", samples.data(), nbytes);
    s.reset();  // closes the connection, which must not take with it what is still on its way
    EXPECT_EQ(exit_status(reader), 0);
    auto t = session({"timeout=1"});
    const std::string nobody = t->auxsockout("grad");
    EXPECT_EQ(fatal([&] { t->srite("grad", three.data(), 12); }),
              "open_outsok(): open socket \"" + nobody + "\" failed for tag \"grad\"\n  no reader came\n");
}

TEST_F(Pipes, SocketsListenOnTheLoopbackAddress) {
    const auto bound_to = [&](std::vector<std::string> words) {
        qas::Layer layer;
        prepare(layer, std::move(words));
        const int fd = qas::tag_info(layer, "grad", qas::Mode::socket_output)->listener.get();
        sockaddr_in address{};
        socklen_t length = sizeof address;
        EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        return ntohl(address.sin_addr.s_addr);
    };
    EXPECT_EQ(bound_to({}), INADDR_LOOPBACK);
    EXPECT_EQ(bound_to({"qas.listen=0.0.0.0"}), INADDR_ANY);
}

TEST_F(Pipes, SocketTexts) {
    std::string service = "0";
    { const qas::Descriptor gone = qas::opensock1(service, false, "127.0.0.1"); }
    {
        qas::Layer layer;
        prepare(layer, {"rec=localhost:" + service, "grad=localhost:" + service});
        EXPECT_EQ(fatal([&] { qas::tag_info(layer, "rec", qas::Mode::input); }),
                  "open_insok(): connect to socket \"localhost:" + service + "\" failed for tag \"rec\"\n");
        EXPECT_THAT(errors(), AllOf(StartsWith(" server not responding on localhost \n server not"),
                                    HasSubstr("qasstrhead:open_insok() : ")));
        EXPECT_EQ(fatal([&] { qas::tag_info(layer, "grad", qas::Mode::output); }),
                  "open_outsok(): open socket \"localhost:" + service + "\" failed for tag \"grad\"\n");
        EXPECT_THAT(errors(), HasSubstr("qasstrhead:open_outsok() : "));
    }
    auto s = session({"rec=no.such.host.invalid:1"});
    try {
        s->from_aux<int>("rec", "n1");
        FAIL();
    } catch (const qas::Exit& error) {
        EXPECT_EQ(error.status, 2);
        EXPECT_EQ(qas::report_fatal(error, *s), 2);
    }
    EXPECT_THAT(errors(), EndsWith("no.such.host.invalid: unknown host\n "));
    auto t = session({"rec=unix:sock"});
    t->exist_file("x");
    const FewDescriptors none(0);
    try {
        t->from_aux<int>("rec", "n1");
        FAIL();
    } catch (const qas::Exit& error) {
        EXPECT_EQ(error.status, 1);
    }
    EXPECT_THAT(errors(), EndsWith("opening stream socket : Too many open files\n"));
}

TEST_F(Pipes, BufferingAPipe) {
    write_file("all.H", "n1=3 in=stdin\n\n\f\f\4" + xdr(three));
    auto s = session({"rec=cat all.H|", "plain=all.H", "datapath=./;/none/"});
    EXPECT_EQ(s->make_unpipe("plain"), 0);
    EXPECT_EQ(s->make_unpipe("rec"), 0);
    EXPECT_TRUE(s->sseekable("rec"));
    float last = 0;
    EXPECT_EQ(s->sseek("rec", -4, 2), 8);
    EXPECT_EQ(s->sreed("rec", &last, 4), 4);
    EXPECT_EQ(last, 4.0f);
    EXPECT_EQ(s->sseek("rec", 0, 0), 0);
    EXPECT_EQ(s->sreed("rec", &last, 4), 4);
    EXPECT_EQ(last, 1.5f);
    for (const auto& entry : std::filesystem::directory_iterator("."))
        EXPECT_THAT(entry.path().string(), ::testing::Not(HasSubstr("Unpipe")));
}

TEST_F(Pipes, BufferingTexts) {
    write_file("all.H", "n1=3 in=stdin\n\n\f\f\4" + xdr(three));
    write_file("noin.H", "n1=3\n");
    write_file("nodata.H", "in=/no/such/data\n");
    auto s = session({"rec=cat all.H|", "datapath=/no/such/folder/"});
    EXPECT_EQ(
        fatal([&] { s->make_unpipe("nodata.H"); }),
        "make_unpipe: unable to open tag \"nodata.H\" \n  data file \"/no/such/data\" of header \"nodata.H\" of tag"
        " \"nodata.H\" (parameter nodata.H): No such file or directory\n");
    EXPECT_THAT(fatal([&] { s->make_unpipe("noin.H"); }), StartsWith("make_unpipe(): invalid input tag noin.H\n"));
    EXPECT_THAT(fatal([&] { s->make_unpipe("rec"); }), StartsWith("Unable to create scratch file to buffer a pipe\n"));
    std::string service = "0";
    const qas::Descriptor listener = qas::opensock1(service, false, "127.0.0.1");
    const pid_t writer = start_process([&] {  // its end is reset instead of closed
        const qas::Descriptor fd = qas::socklisten(listener.get(), 60, nullptr);
        const linger at_once{1, 0};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        const std::string head = "n1=3 in=stdin\n\n\f\f\4abc";
        ::send(fd.get(), head.data(), head.size(), 0);
        qas::strget(fd.get(), 1);
    });
    auto t = session({"rec=localhost:" + service, "datapath=./"});
    EXPECT_EQ(t->from_aux<int>("rec", "n1"), 3);
    char byte;
    EXPECT_EQ(t->sreed("rec", &byte, 0), 0);
    ::kill(writer, SIGKILL);
    exit_status(writer);
    EXPECT_THAT(fatal([&] { t->make_unpipe("rec"); }), StartsWith("make unpipe read failed for tag \"rec\" \n"));
}

TEST_F(Pipes, ATerminalAsStandardInput) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ::grantpt(master);
    ::unlockpt(master);
    std::fclose(in_);
    in_ = std::fopen(::ptsname(master), "r");
    ASSERT_NE(in_, nullptr);
    set_output_file("o.H");
    session({"out=x", "out.write_title=n"})->to_history("n1", 1);
    EXPECT_EQ(read_file("o.H"), "Input from a tty\t\tsets next: in=\"" + dir_.string() + "/x\"\n\t\tn1=1\n");
    ::close(master);
}

TEST_F(Pipes, AHeaderWithoutEnd) {
    auto s = session({"rec=yes |"});
    EXPECT_THAT(fatal([&] { s->from_aux<int>("rec", "n1"); }), HasSubstr("longer than 16 MiB"));
}
