#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "lib/corelibs/qas/jobs.h"
#include "lib/corelibs/qas/parameters.h"
#include "tests/lib/corelibs/qas/workplace.h"

using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

/// A job master on a free port: takes one message and answers with `receipt`.
class Master {
    int listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    std::thread thread_;

public:
    int port = 0;
    std::string message;

    explicit Master(std::string receipt, std::size_t wanted = 1024) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(listener_, 1);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        thread_ = std::thread([this, receipt = std::move(receipt), wanted] {
            const int fd = ::accept(listener_, nullptr, nullptr);
            char block[1024];
            while (message.size() < wanted) {
                const ssize_t got = ::recv(fd, block, sizeof block, 0);
                if (got <= 0) break;
                message.append(block, static_cast<std::size_t>(got));
            }
            EXPECT_EQ(::send(fd, receipt.data(), receipt.size(), MSG_NOSIGNAL), static_cast<ssize_t>(receipt.size()));
            ::close(fd);
        });
    }
    void finish() {
        if (thread_.joinable()) thread_.join();
    }
    ~Master() {
        finish();
        ::close(listener_);
    }
    std::vector<std::string> words(std::vector<std::string> more) const {
        for (const std::string& word :
             {std::string("qas.jobid=J7"), std::string("qas.mach_label=node3"), std::string("qas.master_ip=127.0.0.1"),
              "qas.master_port=" + std::to_string(port)})
            more.push_back(word);
        return more;
    }
};

class Jobs : public Workplace {
protected:
    void prepare(qas::Layer& layer, std::vector<std::string> words) const {
        words.insert(words.begin(), "prog");
        qas::initpar(layer, std::move(words));
        layer.notes.err = err_;
        layer.out = out_;
    }
};

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
    EXPECT_EQ(errors(), "");
}

TEST_F(Jobs, MessagesOnTheWire) {
    {
        Master master("GOTIT");
        session(master.words({"qas.begin_par=1"}))->begin_prog();
        master.finish();
        EXPECT_EQ(master.message, padded("record:J7:node3:none"));
    }
    {
        Master master("GOTIT");
        session(master.words({"qas.end_par=1"}))->end_prog();
        master.finish();
        EXPECT_EQ(master.message, padded("finish:J7:node3:none"));
    }
    {
        Master master("GOTIT");
        qas::Layer layer;
        prepare(layer, master.words({}));
        qas::qas_prog_stat(layer, "shots", 3, 10, 1);
        master.finish();
        EXPECT_EQ(master.message, padded("progress:J7:node3:shots finished=3 of 10"));
        EXPECT_EQ(errors(), "shots finished=3 of 10\n");
    }
}

TEST_F(Jobs, SomeOfTheFourParametersOnly) {
    auto s = session({"qas.begin_par=1", "qas.jobid=J", "qas.master_ip=127.0.0.1", "qas.master_port=1"});
    EXPECT_EQ(fatal([&] { s->begin_prog(); }),
              "when running in socket mode must provide jobid,mach_label,master_ip, and master_port 1 0 1 1");
    EXPECT_EQ(qas::report_fatal(qas::Fatal("reason\n"), *s), 23);  // an error message gives up quietly
    EXPECT_EQ(errors(), "prog: reason\n");
}

TEST_F(Jobs, AMasterThatIsNotThere) {
    Master gone("12345");
    { session(gone.words({"qas.begin_par=1"}))->begin_prog(); }
    gone.finish();
    qas::Layer layer;
    prepare(layer, {"qas.jobid=J", "qas.mach_label=L", "qas.master_ip=no such host", "qas.master_port=9"});
    EXPECT_EQ(fatal([&] { qas::qas_exit_prog(layer); }), "Failed to connect with server");
    EXPECT_EQ(qas::qas_send_msg(layer, "error", "none"), 1);
}

TEST_F(Jobs, TextsUpTo1019Characters) {
    qas::Layer layer;
    Master master("GOTIT");
    prepare(layer, master.words({}));
    const std::string head = "progress:J7:node3:";
    const std::string text(1019 - head.size(), 't');
    qas::qas_progress_prog(layer, text);
    master.finish();
    EXPECT_EQ(master.message, head + text + "EnDiT");
    Master second("GOTIT", 0);
    qas::Layer other;
    prepare(other, second.words({}));
    EXPECT_EQ(fatal([&] { qas::qas_progress_prog(other, text + "t"); }), "to long of message ");
}

TEST_F(Jobs, AReceiptThatIsTooShort) {
    qas::Layer layer;
    Master master("GOT");
    prepare(layer, master.words({}));
    EXPECT_EQ(fatal([&] { qas::qas_exit_prog(layer); }), "trouble received message exit:J7:node3:none");
    EXPECT_EQ(errors(), "Mismatch in number of received bytess 3!=5 ");
    Master second("");
    qas::Layer other;
    prepare(other, second.words({}));
    EXPECT_EQ(qas::qas_send_msg(other, "error", "none"), 1);
}

class Diagnostics : public Workplace {};

TEST_F(Diagnostics, TheMessageReachesBothStreamsBehindTheProgramName) {
    set_output_file("o");
    EXPECT_EQ(qas::report_fatal(qas::Fatal("bad thing\n"), *session()), 23);
    EXPECT_EQ(errors(), "prog: bad thing\n");
    EXPECT_EQ(read_file("o"), "prog: bad thing\n");
    auto nameless = std::make_unique<qas::Session>(std::vector<std::string>{});
    nameless->set_streams(in_, out_, err_);
    qas::report_fatal(qas::Fatal("x\n"), *nameless);
    EXPECT_EQ(errors(), "prog: bad thing\nx\n");
    write_file("h", "n1=1\n");
    EXPECT_EQ(fatal([&] { nameless->from_aux<int>("h", "n1"); }), "Must call initpar() at the start of your program\n");
}

TEST_F(Diagnostics, ACommandLineThatCannotBeScannedIsStillReported) {
    auto s = session({"par=missing.p"});
    try {
        s->getch<int>("x");
        FAIL();
    } catch (const qas::Fatal& error) {
        EXPECT_EQ(qas::report_fatal(error, *s), 23);
    }
    EXPECT_EQ(errors(), "prog: file() can't open file missing.p\n");
}

TEST_F(Diagnostics, TextForms) {
    EXPECT_EQ(fatal([] { qas::erexit("text   "); }), "text\n");
    EXPECT_EQ(fatal([] { qas::qaserr("%s %d", "text", 3); }), "text 3");
    EXPECT_EQ(qas::kill_trailing("ab  ", ' '), "ab");
    EXPECT_EQ(qas::kill_trailing("    ", ' '), " ");
    EXPECT_EQ(qas::kill_trailing("", ' '), "");
    EXPECT_EQ(qas::kill_trailing("ab", ' '), "ab");
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(qas::qaswarn(7, "warn %d\n", 1), 7);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "warn 1\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warn 1\n");
}
