#include <sys/socket.h>

#include <future>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/jobs.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "tests/lib/corelibs/qas/workplace.h"

namespace {

/// A job master on a free port: takes a message of `wanted` bytes and answers with `receipt`.
class Master {
    std::string port_ = "0";
    const qas::Descriptor listener_ = qas::opensock1(port_, false, "127.0.0.1");
    std::future<std::string> message_;

public:
    explicit Master(const std::string& receipt, std::size_t wanted = 1024) {
        message_ = std::async(std::launch::async, [this, receipt, wanted] {
            const qas::Descriptor fd = qas::socklisten(listener_.get(), 60, nullptr);
            std::string bytes(wanted, '.');
            bytes.resize(static_cast<std::size_t>(::recv(fd.get(), bytes.data(), wanted, MSG_WAITALL)));
            ::send(fd.get(), receipt.data(), receipt.size(), MSG_NOSIGNAL);
            return bytes;
        });
    }
    /// What came; waits for it.
    std::string message() { return message_.get(); }
    std::vector<std::string> words(std::vector<std::string> more = {}) const {
        more.insert(more.end(),
                    {"qas.jobid=J7", "qas.mach_label=node3", "qas.master_ip=127.0.0.1", "qas.master_port=" + port_});
        return more;
    }
};

class Jobs : public Workplace {};

std::string padded(std::string text) {
    text += "EnDiT";
    text.resize(1024, '\0');
    return text;
}

}  // namespace

TEST_F(Jobs, SilentByDefault) {
    auto s = session({"qas.begin_par=1", "qas.end_par=1"});
    s->begin_prog();
    s->end_prog();
    auto t = session({"qas.begin_par=1", "qas.par_job=0", "qas.jobid=J", "qas.master_port=1"});
    t->begin_prog();
    session({"qas.jobid=J"})->begin_prog();
    EXPECT_EQ(errors(), "");
}

TEST_F(Jobs, MessagesOnTheWire) {
    const std::pair<const char*, void (qas::Session::*)()> moments[] = {{"record", &qas::Session::begin_prog},
                                                                        {"finish", &qas::Session::end_prog}};
    for (const auto& [kind, call] : moments) {
        Master master("12345");  // any receipt of five bytes does
        auto s = session(master.words({"qas.begin_par=1", "qas.end_par=1"}));
        ((*s).*call)();
        EXPECT_EQ(master.message(), padded(kind + std::string(":J7:node3:none")));
    }
    Master master("GOTIT");
    qas::Layer layer;
    prepare(layer, master.words());
    qas::qas_prog_stat(layer, "shots", 3, 10, 1);
    EXPECT_EQ(master.message(), padded("progress:J7:node3:shots finished=3 of 10"));
    EXPECT_EQ(errors(), "shots finished=3 of 10\n");
}

TEST_F(Jobs, SomeOfTheFourParametersOnly) {
    auto s = session({"qas.begin_par=1", "qas.jobid=J", "qas.master_ip=127.0.0.1", "qas.master_port=1"});
    EXPECT_EQ(refusal([&] { s->begin_prog(); }),
              "when running in socket mode must provide jobid,mach_label,master_ip, and master_port 1 0 1 1");
    EXPECT_EQ(qas::report_fatal(qas::Fatal("reason\n"), *s), 23);  // an error message gives up quietly
    EXPECT_EQ(errors(), "prog: reason\n");
}

TEST_F(Jobs, AMasterThatIsNotThere) {
    qas::Layer layer;
    prepare(layer, {"qas.jobid=J", "qas.mach_label=L", "qas.master_ip=no such host", "qas.master_port=9"});
    EXPECT_EQ(refusal([&] { qas::qas_exit_prog(layer); }), "Failed to connect with server");
    EXPECT_EQ(qas::qas_send_msg(layer, "error", "none"), 1);
}

TEST_F(Jobs, TextsUpTo1019Characters) {
    const std::string head = "progress:J7:node3:", text(1019 - head.size(), 't');
    qas::Layer layer;
    Master master("GOTIT");
    prepare(layer, master.words());
    qas::qas_progress_prog(layer, text);
    EXPECT_EQ(master.message(), head + text + "EnDiT");
    Master second("GOTIT", 0);
    qas::Layer other;
    prepare(other, second.words());
    EXPECT_EQ(refusal([&] { qas::qas_progress_prog(other, text + "t"); }), "to long of message ");
}

TEST_F(Jobs, AReceiptThatIsTooShort) {
    qas::Layer layer;
    Master master("GOT");
    prepare(layer, master.words());
    EXPECT_EQ(refusal([&] { qas::qas_exit_prog(layer); }), "trouble received message exit:J7:node3:none");
    EXPECT_EQ(errors(), "Mismatch in number of received bytess 3!=5 ");
    Master second("");
    qas::Layer other;
    prepare(other, second.words());
    EXPECT_EQ(qas::qas_send_msg(other, "error", "none"), 1);
}

class Diagnostics : public Workplace {};

TEST_F(Diagnostics, TheMessageReachesBothStreamsBehindTheProgramName) {
    set_output_file("o");
    EXPECT_EQ(qas::report_fatal(qas::Fatal("bad thing\n"), *session()), 23);
    EXPECT_EQ(errors(), "prog: bad thing\n");
    EXPECT_EQ(read_text("o"), "prog: bad thing\n");
    auto nameless = std::make_unique<qas::Session>(std::vector<std::string>{});
    nameless->set_streams(in_, out_, err_);
    qas::report_fatal(qas::Fatal("x\n"), *nameless);
    EXPECT_EQ(errors(), "prog: bad thing\nx\n");
    write_text("h", "n1=1\n");
    EXPECT_EQ(refusal([&] { nameless->from_aux<int>("h", "n1"); }),
              "Must call initpar() at the start of your program\n");
}

TEST_F(Diagnostics, ACommandLineThatCannotBeScannedIsStillReported) {
    auto s = session({"par=missing.p"});
    const std::string message = refusal([&] { s->getch<int>("x"); });
    EXPECT_EQ(qas::report_fatal(qas::Fatal(message), *s), 23);
    EXPECT_EQ(errors(), "prog: file() can't open file missing.p\n");
}

TEST_F(Diagnostics, TextForms) {
    EXPECT_EQ(refusal([] { qas::erexit("text   "); }), "text\n");
    for (const auto& [text, left] : {std::pair{"ab  ", "ab"}, {"    ", " "}, {"", ""}, {"ab", "ab"}})
        EXPECT_EQ(qas::kill_trailing(text, ' '), left);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(qas::qaswarn(7, "warn %d\n", 1), 7);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "warn 1\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warn 1\n");
}
