#include <fcntl.h>
#include <linux/limits.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <csignal>
#include <random>
#include <set>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/jobs.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "tests/lib/corelibs/qas/workplace.h"

namespace {

/// A device that fails: calls on files whose name ends with `suffix` move `room` more bytes, at most `piece` at once,
/// and then give `error`.
struct Fault {
    std::string suffix;
    std::size_t room = 0;
    int error = 0;  // 0: the device works
    std::size_t piece = SIZE_MAX;
};
Fault write_fault, read_fault, send_fault;
int seek_error = 0;
std::string sync_fault;           // fsync fails on files whose name ends with it
std::vector<std::string> synced;  // what else it was called for

std::string name_of(int fd) {
    char name[PATH_MAX];
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), name, sizeof name);
    return std::string(name, length > 0 ? static_cast<std::size_t>(length) : 0);
}

ssize_t faulty_call(Fault& fault, int fd, std::size_t count, long number, void* buffer, int flags = 0) {
    if (fault.error != 0) {
        if (name_of(fd).ends_with(fault.suffix)) {
            if (fault.room == 0) {
                errno = fault.error;
                return -1;
            }
            count = std::min({count, fault.room, fault.piece});
            fault.room -= count;
        }
    }
    return ::syscall(number, fd, buffer, count, flags, nullptr, 0);
}

}  // namespace

// The calls of the whole test program go through here.
extern "C" {
ssize_t write(int fd, const void* buffer, std::size_t count) {
    return faulty_call(write_fault, fd, count, SYS_write, const_cast<void*>(buffer));
}
ssize_t read(int fd, void* buffer, std::size_t count) {
    return faulty_call(read_fault, fd, count, SYS_read, buffer);
}
off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (seek_error != 0) {
        errno = seek_error;
        return -1;
    }
    return ::syscall(SYS_lseek, fd, offset, whence);
}
int fsync(int fd) {
    if (!sync_fault.empty() && name_of(fd).ends_with(sync_fault)) {
        errno = EIO;
        return -1;
    }
    synced.push_back(name_of(fd));
    return 0;
}
ssize_t send(int fd, const void* buffer, std::size_t count, int flags) {
    return faulty_call(send_fault, fd, count, SYS_sendto, const_cast<void*>(buffer), flags);
}
}

namespace {

const std::string head = "n1=1 in=stdin\n\n\f\f\4";

class Faults : public Workplace {
protected:
    void TearDown() override {
        write_fault = read_fault = send_fault = {};
        seek_error = 0;
        sync_fault.clear();
        synced.clear();
    }
};

/// A large buffer that costs little memory: one block mapped again and again, `size` a multiple of its 16 MiB.
char* map_repeated_block(std::size_t size) {
    constexpr std::size_t block = std::size_t{16} << 20;
    const int fd = ::memfd_create("block", 0);
    EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(block)), 0);
    char* base =
        static_cast<char*>(::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    for (std::size_t at = 0; at < size; at += block)
        ::mmap(base + at, block, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    ::close(fd);
    return base;
}

}  // namespace

TEST_F(Faults, WritesThatFail) {
    const std::vector<float> panel = ramp(1000);
    for (const int error : {ENOSPC, EIO}) {
        write_fault = {"g@", 6000, error};
        auto s = session({"datapath=./"});
        write(*s, "g", panel);
        s->to_history("n4", 2, "g");
        EXPECT_EQ(refusal([&] { write(*s, "g", panel); }),
                  "info_rite() : I/O error, tag \"g\"\n  data file \"./g@\", after 6000 bytes: " +
                      std::string(std::strerror(error)) + "\n");
        write_fault = {};
        auto t = session();
        EXPECT_EQ(t->from_aux<int>("g", "n4"), 2);
        EXPECT_EQ(read(*t, "g", 1000), panel);  // what was complete
        EXPECT_EQ(read(*t, "g", 1000), ramp(500));
    }
    EXPECT_THAT(errors(), HasSubstr("fd_write(): Input/output error\n"));
}

TEST_F(Faults, CallsThatMoveLessThanAsked) {
    for (const std::size_t piece : {1U, 3U, 999U}) {  // the file takes and gives the bytes in pieces
        write_fault = read_fault = {"g@", SIZE_MAX, EIO, piece};
        write(*session({"datapath=./"}), "g", ramp(1000));
        EXPECT_EQ(read_text("g@"), xdr(ramp(1000)));
        EXPECT_EQ(read(*session(), "g", 1000), ramp(1000));
    }
}

TEST_F(Faults, ReadsThatFail) {
    write(*session({"datapath=./"}), "g", ramp(1000));
    write_text("all.H", head + xdr(ramp(1000)));
    write_text("multi.H", "in=\"g@;g@\"\n");
    read_fault = {"g@", 400, EIO};
    auto s = session();
    EXPECT_EQ(read(*s, "g", 100), ramp(100));
    EXPECT_EQ(refusal([&] { read(*s, "g", 100); }),
              "fd_read() : I/O error, tag \"g\"\n  data file \"./g@\": Input/output error\n");
    EXPECT_THAT(refusal([&] { read(*s, "multi.H", 2000); }),
                StartsWith("multifd_read() : I/O error, tag \"multi.H\" file number 0\n"));
    read_fault = {};
    auto t = session();
    read(*t, "multi.H", 1);
    seek_error = EIO;
    EXPECT_EQ(refusal([&] { read(*t, "multi.H", 2000); }),
              "multifd_read() unable to seek to file start for tag \"multi.H\", file 1 \n");
    EXPECT_EQ(t->sseek("multi.H", 0, 0), -1);
    seek_error = 0;
    EXPECT_EQ(s->from_aux<int>("all.H", "n1"), 1);
    read_fault = {"all.H", 0, EIO};
    EXPECT_THAT(refusal([&] { read(*s, "all.H", 100); }), StartsWith("file_read() : I/O error, tag \"all.H\"\n"));
    for (const char* routine : {"fd_read()", "multifd_read()", "multifd_seek", "file_read()"})
        EXPECT_THAT(errors(), HasSubstr(std::string(routine) + ": Input/output error\n"));
    EXPECT_THAT(refusal([&] { session()->from_aux<int>("all.H", "n1"); }),
                HasSubstr("cannot be read: Input/output error"));
}

TEST_F(Faults, AProgramWithoutStandardStreams) {
    const pid_t program = start_process([&] {
        for (const int fd : {0, 1, 2}) ::close(fd);
        qas::Session s(std::vector<std::string>{"prog", "datapath=./", "g.write_title=n"});
        s.to_history("n1", 1, "g");
        s.from_param<int>("nh", 3);
        std::printf("not into the dataset\n");
        std::fflush(stdout);
    });
    EXPECT_EQ(exit_status(program), 0);
    EXPECT_EQ(read_text("g"), "\t\tn1=1\n");
}

TEST_F(Faults, StreamsThatFail) {
    set_output_file("out.H");
    auto s = session({"g=stdout", "g.out=stdout", "o.out=stdin"});
    s->to_history("n1", 1, "g");
    std::signal(SIGXFSZ, SIG_IGN);
    std::string message;
    {
        const Limit small(RLIMIT_FSIZE, 4000);
        message = refusal([&] { write(*s, "g", ramp(1000)); });
    }
    EXPECT_THAT(message, StartsWith("file_write() : I/O error, tag \"g\"\n"));
    write_fault = {"/stdin", SIZE_MAX, EIO, 0};  // a file of that name
    EXPECT_EQ(refusal([&] { write(*s, "o", {1}); }), "xdr_rite(): I/O error on output for tag \"o\" -- ierr=0 \n");
    EXPECT_THAT(errors(), EndsWith("unexpected eof for tag o\n"));

    const int to_us = pipe_input();
    put(to_us, head);
    auto t = session();
    EXPECT_EQ(t->from_aux<int>("in", "n1"), 1);
    read_fault = {"]", 0, EIO};
    EXPECT_EQ(refusal([&] { t->sseek("in", 100, 0); }), "sseek(): I/O error in seek for tag \"in\"\n");
    ::close(to_us);
}

TEST_F(Faults, AHeaderLineIsThereWholeOrNotAtAll) {
    std::signal(SIGXFSZ, SIG_IGN);
    std::set<std::string> whole{""};
    const auto write_header = [&](bool look) {
        auto s = session({"datapath=./", "g.write_title=n"});
        const auto seen = [&] {
            if (look) whole.insert(read_text("g"));
        };
        for (const int n : {25, 250}) s->to_history("n1", n, "g"), seen();
        s->put_last("done", 12, "g"), seen();
        s->put_last("done", 1234, "g"), seen();  // in place, and longer
        write(*s, "g", {1});
    };
    write_header(true);
    const std::string last = read_text("g");
    whole.insert(last);
    whole.insert(last.substr(0, last.find("\t\tdata_format")));
    for (std::size_t room = 0; room < last.size(); ++room) {
        const Limit disk(RLIMIT_FSIZE, room);
        EXPECT_THAT(refusal([&] { write_header(false); }), StartsWith("I/O error writing output history\n"));
        EXPECT_TRUE(whole.contains(read_text("g"))) << room << ": " << read_text("g");
    }
}

TEST_F(Faults, WhatIsFinishedIsOnTheDiskDataFirst) {
    using Call = void (*)(qas::Session&);
    const Call ends[] = {[](qas::Session& s) { s.finish_outputs(); }, [](qas::Session& s) { s.auxclose("g"); }};
    for (const Call& end : ends) {
        for (const char* fault : {"", "/g@", "/g"}) {
            auto s = session({"datapath=./"});
            write(*s, "g", {1});
            sync_fault = fault;
            synced.clear();
            const std::string message = refusal([&] { end(*s); });
            if (sync_fault.empty()) {
                EXPECT_EQ(message, "accepted");
                synced.resize(4);
                const std::string folder = dir_.substr(0, dir_.size() - 1);
                EXPECT_EQ(synced, (std::vector<std::string>{dir_ + "g@", folder, dir_ + "g", folder}));
            } else {
                EXPECT_THAT(message,
                            AllOf(HasSubstr("header \"g\" of tag \"g\" (parameter g) cannot be put on the disk:"),
                                  EndsWith("Input/output error\n")));
            }
        }
    }
    sync_fault.clear();
    auto s = session({"datapath=./", "h=|cat > /dev/null; exit 3", "isoutstream=1"});
    write(*s, "g", {1});
    s->finish_outputs();
    EXPECT_THAT(refusal([&] { write(*s, "g", {2}); }), HasSubstr("is finished"));
    EXPECT_EQ(read_text("g@"), xdr<float>({1}));
    write(*s, "h", {1});
    EXPECT_THAT(refusal([&] { s->finish_outputs(); }), HasSubstr("(parameter h): the command failed"));
}

TEST_F(Faults, AFullDiskMovesTheDataToTheNextFile) {
    const std::vector<float> samples = ramp(500000);
    for (const int error : {ENOSPC, EDQUOT}) {
        write_fault = {"g@", 1000000, error};
        {
            auto s = session({"nfiles=3", "filesize=2", "datapath=./"});
            EXPECT_EQ(s->srite("g", samples.data(), 1600000), 1600000);
            EXPECT_EQ(s->srite("g", samples.data() + 400000, 400000), 400000);
        }
        EXPECT_EQ(std::filesystem::file_size("g@"), 1000000U);
        EXPECT_THAT(read_text("g"), EndsWith("in=\"./g@;./g@1\"\n"));
        EXPECT_EQ(read(*session(), "g", 500000), samples);
    }
    write_fault = {"g@1", 0, ENOSPC};  // nothing fits there: the file is passed over
    {
        auto s = session({"nfiles=3", "filesize=1", "datapath=./"});
        write(*s, "g", samples);
        EXPECT_EQ(s->sseek("g", 1048576, 0), 1048576);  // positions do not count what it lacks
        write(*s, "g", {-1});
    }
    EXPECT_THAT(read_text("g"), EndsWith("in=\"./g@;./g@2\"\n"));
    auto s = session({"nfiles=2", "datapath=./"});
    read(*s, "g", 1);
    EXPECT_EQ(s->sseek("g", 1048576, 0), 1048576);
    EXPECT_EQ(read(*s, "g", 1), std::vector<float>{-1});
    write_fault = {"", 1000, ENOSPC};  // no room anywhere
    EXPECT_THAT(refusal([&] { write(*s, "h", ramp(1000)); }),
                StartsWith("xdr_rite(): I/O error on output for tag \"h\" -- ierr=1000 \n"));
    write_fault = {"k@", 1000, EIO};  // anything else ends the run
    EXPECT_EQ(refusal([&] { write(*s, "k", ramp(1000)); }),
              "multifd_write() : I/O error, tag \"k\" file number 0\n  \"./k@\": Input/output error\n");
}

TEST_F(Faults, AScratchFileForAPipeThatCannotBeWritten) {
    write_text("all.H", head + "data");
    auto s = session({"rec=cat all.H|", "datapath=./"});
    write_fault = {"(deleted)", 0, ENOSPC};
    EXPECT_THAT(refusal([&] { s->make_unpipe("rec"); }), StartsWith("make_unpipe: write failed for tag \"rec\" \n"));
}

TEST_F(Faults, AJobMasterThatTakesHalfAMessage) {
    std::string port = "0";
    const qas::Descriptor listener = qas::opensock1(port, false, "127.0.0.1");
    qas::Layer layer;
    prepare(layer, {"qas.jobid=J", "qas.mach_label=L", "qas.master_ip=127.0.0.1", "qas.master_port=" + port});
    send_fault = {"", 100, EPIPE};
    EXPECT_EQ(refusal([&] { qas::qas_exit_prog(layer); }), "trouble sending message exit:J:L:none \n");
    EXPECT_EQ(errors(), "Mismatch in number of sent bytes 100 !=1024 \n");
    EXPECT_EQ(qas::qas_send_msg(layer, "error", "none"), 1);
    std::string message;
    int quiet = 0;
    {
        const Limit none = no_descriptors();
        message = refusal([&] { qas::qas_exit_prog(layer); });
        quiet = qas::qas_send_msg(layer, "error", "none");
    }
    EXPECT_EQ(message, "Failed to create socket \n");
    EXPECT_EQ(quiet, 1);
}

TEST_F(Faults, AWriterKilledAtAnyMomentLeavesADatasetThatReadsBack) {
    constexpr std::int64_t n = 5000;
    constexpr std::int64_t panel_bytes = 4 * n;
    std::mt19937 random(4711);
    int seen_short = 0, seen_panels = 0;
    for (int run = 0; run < 200; ++run) {
        const bool several = run % 2 == 1;
        std::filesystem::remove("g");
        const pid_t writer = start_process([&] {
            auto s = session({"datapath=./", several ? "nfiles=9" : "nfiles=1", "filesize=1"});
            s->to_history("n1", static_cast<int>(n), "g");
            for (int k = 1; k <= 400; ++k) {
                s->to_history("n4", k, "g");
                write(*s, "g", std::vector<float>(n, static_cast<float>(k)));
            }
        });
        ::usleep(std::uniform_int_distribution<useconds_t>(0, 6000)(random));
        ::kill(writer, SIGKILL);
        exit_status(writer);
        if (!std::filesystem::exists("g")) continue;  // killed before it began
        auto s = session({"nosuchkey=1"});
        const int panels = s->from_aux<int>("g", "n4", 0);
        if (panels == 0 || s->from_aux<std::string>("g", "in", "").empty()) {
            EXPECT_LE(panels, 1);  // the first panel's data have not begun
            continue;
        }
        ASSERT_EQ(s->from_aux<int>("g", "n1"), n);
        std::vector<float> back(n);
        for (int k = 1; k <= panels; ++k) {
            if (s->sreed("g", back.data(), panel_bytes) < panel_bytes) {
                EXPECT_EQ(k, panels) << "a panel before the one being written is incomplete";
                ++seen_short;
                break;
            }
            ASSERT_EQ(back, std::vector<float>(n, static_cast<float>(k)));
        }
        seen_panels += panels;
    }
    EXPECT_GT(seen_panels, 200);  // or the moments were not spread over the run
    EXPECT_GT(seen_short, 0);
}

TEST_F(Faults, APanelOverTwoGibibytes) {
    constexpr std::int64_t panel = (std::int64_t{1} << 31) + (std::int64_t{64} << 20);
    const float last = 2.5f;
    write_text("big@", "");
    std::filesystem::resize_file("big@", panel - 4);  // all but the last sample is a hole
    std::ofstream("big@", std::ios::app) << xdr<float>({last});
    write_text("big.H", "n1=553648128 in=\"big@\"\n");
    char* const buffer = map_repeated_block(panel);
    auto s = session({"copy.out=/dev/null"});
    EXPECT_EQ(s->data_size("big.H"), panel);
    EXPECT_EQ(s->sreed("big.H", buffer, panel), panel);
    float value = 0;
    std::memcpy(&value, buffer + panel - 4, 4);
    EXPECT_EQ(value, last);
    EXPECT_EQ(s->srite("copy", buffer, panel), panel);
    EXPECT_EQ(s->file_position("big.H"), panel);
    ::munmap(buffer, panel);
    EXPECT_EQ(errors(), "");
}

TEST_F(Faults, ADatasetOverFourGibibytes) {
    constexpr std::int64_t far = (std::int64_t{5} << 30) + 12;
    const std::vector<float> samples{1, 2, 3};
    for (const char* files : {"nfiles=1", "nfiles=4"}) {
        auto s = session({files, "filesize=2048", "datapath=./"});
        s->auxinout("g");
        write(*s, "g", samples);
        EXPECT_EQ(s->sseek("g", far, 0), far);
        write(*s, "g", samples);
        EXPECT_EQ(s->data_size("g"), far + 12);
        EXPECT_EQ(s->sseek("g", -8, 1), far + 4);
        EXPECT_EQ(read(*s, "g", 1), std::vector<float>{2});
        EXPECT_EQ(s->file_position("g"), far + 8);
        s->hclose();
        float value = 0;
        EXPECT_EQ(session()->sreed_window("g", {{1 << 30, 2}, {1, 1}, {268435459, 1}, {1, 1}, 4}, &value), 4);
        EXPECT_EQ(value, 1.0f);
        std::filesystem::remove("g");
    }
}
