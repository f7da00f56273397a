#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/records/sync.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "tests/lib/corelibs/qas/workplace.h"

namespace {

const std::vector<float> three{1.5f, -2.5f, 4.0f};
const std::string data_follow = "n1=3 in=stdin\n\n\f\f\4";

class Pipes : public Workplace {
protected:
    void SetUp() override { write_text("all.H", data_follow + xdr(three)); }

    /// Starts a program whose standard output is this pipe.
    template <class Call>
    static pid_t start_writer(int pipe, const std::string& timeout, const Call& call) {
        const pid_t writer = start_process([&] {
            qas::Session s(std::vector<std::string>{"writer", timeout});
            s.set_streams(std::fopen("/dev/null", "r"), ::fdopen(pipe, "w"), stderr);
            call(s);
        });
        ::close(pipe);
        return writer;
    }
    /// Reads a header up to its end mark.
    static std::string read_header(int fd) {
        std::string bytes;
        for (char c = 0; ::read(fd, &c, 1) == 1 && c != 4;) bytes += c;
        return bytes;
    }
};

}  // namespace

TEST_F(Pipes, AnInputCommandThatNeverEndsDoesNotHoldUpTheProgram) {
    ASSERT_EQ(::mkfifo("go", 0600), 0);
    auto s = session({"rec=cat all.H; exec cat go 2>/dev/null |"});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    EXPECT_EQ(read(*s, "rec", 3), three);
    s.reset();                        // the test's time limit tells
    ::close(::open("go", O_WRONLY));  // lets the command end
}

TEST_F(Pipes, AnOutputCommandGetsHeaderAndData) {
    {
        auto s = session({"grad=|cat > copy.H", "isoutstream=1"});
        s->to_history("n1", 3, "grad");
        write(*s, "grad", three);
    }  // waits for the command
    EXPECT_THAT(read_text("copy.H"), EndsWith("\t\tn1=3\n\t\tqasstr_ready_out() : sets next in=\"stdin\"\n"
                                              "\t\tdata_format=\"xdr_float\"\n\n\f\f\4" +
                                              xdr(three)));
    EXPECT_EQ(read(*session(), "copy.H", 3), three);
}

TEST_F(Pipes, AnOutputCommandThatEndsEarlyIsAFailingWrite) {
    auto s = session({"grad=|exit 0", "isoutstream=1"});
    const std::string message = refusal([&] {
        for (int i = 0; i < 8; ++i) write(*s, "grad", ramp(1 << 20));
    });
    EXPECT_THAT(message, HasSubstr("Broken pipe"));
}

TEST_F(Pipes, CommandTexts) {
    EXPECT_EQ(refusal([&] { session({"rec=|cat x"})->from_aux<int>("rec", "n1"); }),
              "input pipe command '|cat x' doesn't end with '|' for tag rec \n");
    auto s = session({"rec=cat x|", "grad=|cat x"});
    s->hetch<int>("n1");  // what an output's name may look up is open
    std::string input, output;
    {
        const Limit none = no_descriptors();
        input = refusal([&] { s->from_aux<int>("rec", "n1"); });
        output = refusal([&] { s->to_history("n1", 1, "grad"); });
    }
    EXPECT_EQ(input, "error in opening input pipe \"cat x\" for tag \"rec\" \n");
    EXPECT_EQ(output, "error in opening output pipe cat x for tag grad \n");
    EXPECT_THAT(errors(), HasSubstr("qasstrhead:openpipe() : Too many open files\n"));
}

TEST_F(Pipes, NothingIsStartedOrReachedForTheSakeOfAHistory) {
    set_input("grad=\"|touch ran\" sou=\"touch ran |\" illum=\"localhost:9\"\n");
    auto s = session({"datapath=./"});
    EXPECT_EQ(refusal([&] { s->to_history("n1", 1, "grad"); }),
              "tag \"grad\": the history of \"in\" names \"|touch ran\" as its header; commands and sockets are taken "
              "only from the command line or a par= file\n");
    EXPECT_THAT(refusal([&] { s->to_history("n1", 1, "illum"); }),
                AllOf(HasSubstr("tag \"illum\""), HasSubstr("localhost:9")));
    EXPECT_THAT(refusal([&] { s->auxinout("grad"); }), HasSubstr("not a regular file"));
    EXPECT_THAT(refusal([&] { s->from_aux<int>("sou", "n1"); }),
                HasSubstr("\"sou\""));  // inputs do not look there
    write_text("ok.p", "Velout=\"|cat > made\"\n");
    session({"par=ok.p"})->to_history("n1", 1, "Velout");  // the user's own file
    EXPECT_TRUE(std::filesystem::exists("made"));
    EXPECT_FALSE(std::filesystem::exists("ran"));
}

TEST_F(Pipes, EndMarks) {
    using qas::EndMark;
    const std::string before = "PIPE h s", far(300, ' '), near(293, ' ');
    const struct {
        std::string header;
        EndMark::Kind kind;
        std::string left;
        int process = 0;
        std::string host = "", service = "";
    } rows[] = {
        {"n1=3\n\f\f", EndMark::data_follow, "n1=3\n"},
        {"\f\f", EndMark::data_follow, ""},
        {"n1=3\n\f", EndMark::none, "n1=3\n\f"},
        {"000000012", EndMark::none, "000000012"},
        {" 000000012", EndMark::number, "", 12},
        {"n1=3\n 000000012", EndMark::number, "n1=3\n", 12},
        {"n1=3 1000000012", EndMark::none, "n1=3 1000000012"},
        {"n1=3\n 00000012", EndMark::none, "n1=3\n 00000012"},
        {"n1=3\nPIPE here 4711 000000099", EndMark::handshake, "n1=3\n", 99, "here", "4711"},
        {"PIPE a b PIPE here 4711 000000099", EndMark::handshake, "PIPE a b ", 99, "here", "4711"},
        {"n1=3\nPIPE 000000099", EndMark::handshake, "n1=3\n", 99},
        {before + far + "000000099", EndMark::number, before + far.substr(1), 99},
        {before + near + "000000099", EndMark::handshake, "", 99, "h", "s"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.header);
        const EndMark mark = qas::parse_end_mark(row.header);
        EXPECT_EQ(mark.kind, row.kind);
        EXPECT_EQ(row.header.substr(0, mark.cut), row.left);
        EXPECT_EQ(mark.process, row.process);
        EXPECT_EQ(mark.host, row.host);
        EXPECT_EQ(mark.service, row.service);
    }
}

TEST_F(Pipes, HeaderAndDataThroughAPipeBetweenTwoProcesses) {
    const pid_t writer = start_writer(pipe_input(), "timeout=60", [](qas::Session& s) {
        s.to_history("n1", 3);
        write(s, "out", three);
        write(s, "out", {7});
    });
    auto s = session();
    EXPECT_EQ(s->from_aux<int>("in", "n1"), 3);
    EXPECT_EQ(read(*s, "in", 4), (std::vector<float>{1.5f, -2.5f, 4.0f, 7.0f}));
    EXPECT_EQ(exit_status(writer), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(Pipes, AReaderThatDoesNotAnswerGetsTheDataAllTheSame) {
    const int from_us = pipe_output();
    write(*session({"timeout=1"}), "out", three);
    EXPECT_THAT(read_header(from_us), AllOf(HasSubstr("\t\tdata_format=\"xdr_float\"\nPIPE " + qas::host_name() + " "),
                                            EndsWith(qas::strprintf(" %09d", ::getpid()))));
    std::string bytes(100, '\0');
    bytes.resize(static_cast<std::size_t>(::read(from_us, bytes.data(), bytes.size())));
    EXPECT_EQ(bytes, xdr(three));
    ::close(from_us);
}

TEST_F(Pipes, AWaitEndsWithTheReadersSignal) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t writer =  // without the signal it would wait for ever
        start_writer(ends[1], "timeout=0", [](qas::Session& s) { write(s, "out", three); });
    // The same header as a reader sees it that meets the number alone; the writing end is the writer's.
    const std::string header = read_header(ends[0]);
    qas::Layer layer;
    prepare(layer, {});
    qas::streaminf stream;
    stream.header_source = qas::ByteSource::own(ends[0]);
    stream.headerbuf = "n1=3\n" + header.substr(header.size() - 10);
    qas::syncin(layer, stream);
    EXPECT_EQ(stream.headerbuf, "n1=3\n");
    EXPECT_EQ(exit_status(writer), 0);
}

TEST_F(Pipes, OnlyTheWriterOfThisPipeIsSignalled) {
    const pid_t bystander = start_process([] { ::pause(); });
    const std::string header = qas::strprintf("n1=3 %09d\4", bystander);
    write_text("h.H", header);
    EXPECT_EQ(session({"rec=h.H"})->from_aux<int>("rec", "n1"), 3);  // a number in a regular file
    const int to_us = pipe_input();  // a pipe of which the bystander, having been started before, holds no end
    put(to_us, header);
    EXPECT_EQ(session()->from_aux<int>("in", "n1"), 3);
    ::close(to_us);
    int sockets[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    put(sockets[1], header);
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
    write_text("h.H", mark(::getpid()));
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
    EXPECT_EQ(refusal([&] { session()->from_aux<int>("in", "n1"); }), "syncin() sync err\n");
    EXPECT_EQ(exit_status(writer), 0);
    ::close(to_us);

    const int from_us = pipe_output();
    const pid_t reader = start_process([&] {
        qas::Notes notes;
        const qas::EndMark mark = qas::parse_end_mark(read_header(from_us));
        const qas::Descriptor fd = qas::opensock2(mark.host, mark.service, notes);
        qas::strput(fd.get(), "HELLO");
        qas::strget(fd.get(), 1);
    });
    ::close(from_us);
    EXPECT_EQ(refusal([&] { write(*session({"timeout=60"}), "out", three); }), "syncout(): pipe synch failed!\n");
    EXPECT_EQ(exit_status(reader), 0);
}

TEST_F(Pipes, SocketsBetweenTwoProcesses) {
    const std::string path = dir_ + "sock";
    const pid_t writer = start_process([&] {
        auto s = session({"grad=::" + path, "isoutstream=1"});
        s->to_history("n1", 3, "grad");
        write(*s, "grad", three);
    });
    auto s = session({"rec=unix:" + path});
    EXPECT_EQ(s->from_aux<int>("rec", "n1"), 3);
    EXPECT_EQ(read(*s, "rec", 3), three);
    EXPECT_EQ(exit_status(writer), 0);
}

TEST_F(Pipes, ASocketOutputKeepsItsHeaderUntilTheReaderComes) {
    auto s = session({"timeout=60"});
    const std::string address = s->auxsockout("grad");
    EXPECT_THAT(address, StartsWith(qas::host_name() + ":"));
    s->to_history("n1", 3, "grad");
    const std::vector<float> samples = ramp(std::size_t{4} << 20);  // more than the buffers of a connection hold
    const pid_t reader = start_process([&] {
        auto r = session({"rec=" + address});
        if (r->from_aux<int>("rec", "n1") != 3) ::_exit(2);
        if (read(*r, "rec", samples.size() + 1) != samples) ::_exit(3);
    });
    write(*s, "grad", samples);
    s.reset();  // closes the connection, which must not take with it what is still on its way
    EXPECT_EQ(exit_status(reader), 0);
    auto t = session({"timeout=1"});
    const std::string nobody = t->auxsockout("grad");
    EXPECT_EQ(refusal([&] { write(*t, "grad", three); }),
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
        EXPECT_EQ(refusal([&] { qas::tag_info(layer, "rec", qas::Mode::input); }),
                  "open_insok(): connect to socket \"localhost:" + service + "\" failed for tag \"rec\"\n");
        EXPECT_THAT(errors(), AllOf(StartsWith(" server not responding on localhost \n server not"),
                                    HasSubstr("qasstrhead:open_insok() : ")));
        EXPECT_EQ(refusal([&] { qas::tag_info(layer, "grad", qas::Mode::output); }),
                  "open_outsok(): open socket \"localhost:" + service + "\" failed for tag \"grad\"\n");
        EXPECT_THAT(errors(), HasSubstr("qasstrhead:open_outsok() : "));
    }
    const auto status_of = [](qas::Session& s) {
        try {
            s.from_aux<int>("rec", "n1");
        } catch (const qas::Exit& error) {
            return qas::report_fatal(error, s);
        }
        return 0;
    };
    EXPECT_EQ(status_of(*session({"rec=no.such.host.invalid:1"})), 2);
    EXPECT_THAT(errors(), EndsWith("no.such.host.invalid: unknown host\n "));
    auto s = session({"rec=unix:sock"});
    s->exist_file("x");
    {
        const Limit none = no_descriptors();
        EXPECT_EQ(status_of(*s), 1);
    }
    EXPECT_THAT(errors(), EndsWith("opening stream socket : Too many open files\n"));
}

TEST_F(Pipes, BufferingAPipe) {
    auto s = session({"rec=cat all.H|", "plain=all.H", "datapath=./;/none/"});
    EXPECT_EQ(s->make_unpipe("plain"), 0);
    EXPECT_EQ(s->make_unpipe("rec"), 0);
    EXPECT_TRUE(s->sseekable("rec"));
    EXPECT_EQ(read(*s, "rec", 1), std::vector<float>{1.5f});
    EXPECT_EQ(s->sseek("rec", -4, 2), 8);
    EXPECT_EQ(read(*s, "rec", 2), std::vector<float>{4.0f});
    for (const auto& entry : std::filesystem::directory_iterator("."))
        EXPECT_THAT(entry.path().string(), ::testing::Not(HasSubstr("Unpipe")));
}

TEST_F(Pipes, BufferingTexts) {
    write_text("noin.H", "n1=3\n");
    write_text("nodata.H", "in=/no/such/data\n");
    auto s = session({"rec=cat all.H|", "datapath=/no/such/folder/"});
    EXPECT_EQ(
        refusal([&] { s->make_unpipe("nodata.H"); }),
        "make_unpipe: unable to open tag \"nodata.H\" \n  data file \"/no/such/data\" of header \"nodata.H\" of tag"
        " \"nodata.H\" (parameter nodata.H): No such file or directory\n");
    EXPECT_THAT(refusal([&] { s->make_unpipe("noin.H"); }), StartsWith("make_unpipe(): invalid input tag noin.H\n"));
    EXPECT_THAT(refusal([&] { s->make_unpipe("rec"); }),
                StartsWith("Unable to create scratch file to buffer a pipe\n"));
    std::string service = "0";
    const qas::Descriptor listener = qas::opensock1(service, false, "127.0.0.1");
    const pid_t writer = start_process([&] {  // its end is reset instead of closed
        const qas::Descriptor fd = qas::socklisten(listener.get(), 60, nullptr);
        const linger at_once{1, 0};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        put(fd.get(), data_follow + "abc");
        qas::strget(fd.get(), 1);
    });
    auto t = session({"rec=localhost:" + service, "datapath=./"});
    EXPECT_EQ(t->from_aux<int>("rec", "n1"), 3);
    ::kill(writer, SIGKILL);
    exit_status(writer);
    EXPECT_THAT(refusal([&] { t->make_unpipe("rec"); }), StartsWith("make unpipe read failed for tag \"rec\" \n"));
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
    EXPECT_EQ(read_text("o.H"), "Input from a tty\t\tsets next: in=\"" + dir_ + "x\"\n\t\tn1=1\n");
    ::close(master);
}

TEST_F(Pipes, AHeaderWithoutEnd) {
    auto s = session({"rec=yes |"});
    EXPECT_THAT(refusal([&] { s->from_aux<int>("rec", "n1"); }), HasSubstr("longer than 16 MiB"));
}
