#pragma once
/// A workplace for one test: an empty folder that is the current one, own standard streams, no data path from outside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/session.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"

using files::read_text;
using files::write_text;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// A message: all of it if `text` ends with a newline, else a part.
inline ::testing::Matcher<std::string> Says(const std::string& text) {
    if (text.ends_with('\n')) return ::testing::Eq(text);
    return HasSubstr(text);
}

/// Sets a limit of this process; puts the old one back at the end.
class Limit {
    const int resource_;
    rlimit before_{};

public:
    Limit(int resource, rlim_t most) : resource_(resource) {
        ::getrlimit(resource, &before_);
        const rlimit small{most, before_.rlim_max};
        ::setrlimit(resource, &small);
    }
    ~Limit() { ::setrlimit(resource_, &before_); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
};

class Workplace : public ::testing::Test {
    const std::filesystem::path before_ = std::filesystem::current_path();
    const files::TempDir temporary_;

protected:
    const std::string dir_ = std::filesystem::canonical(temporary_.text()).string() + "/";
    std::FILE *in_ = std::tmpfile(), *out_ = std::fopen("/dev/null", "w"), *err_ = std::tmpfile();

    Workplace() {
        std::filesystem::current_path(dir_);
        ::unsetenv("DATAPATH");
        ::setenv("HOME", dir_.c_str(), 1);
    }
    ~Workplace() override {
        for (std::FILE* stream : {in_, out_, err_}) std::fclose(stream);
        std::filesystem::current_path(before_);
    }

    /// What a run has on its standard input from here on.
    void set_input(const std::string& text) {
        std::fclose(in_);
        in_ = std::tmpfile();
        std::fwrite(text.data(), 1, text.size(), in_);
        std::rewind(in_);
    }
    /// Makes the standard output the file `name`.
    void set_output_file(const std::string& name, const char* mode = "w") {
        std::fclose(out_);
        out_ = std::fopen(name.c_str(), mode);
    }
    /// Makes a new pipe's reading end the standard input; returns the writing end.
    int pipe_input() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        std::fclose(in_);
        in_ = ::fdopen(ends[0], "r");
        return ends[1];
    }
    /// Makes a new pipe's writing end the standard output; returns the reading end.
    int pipe_output() {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        std::fclose(out_);
        out_ = ::fdopen(ends[1], "w");
        return ends[0];
    }
    static void put(int fd, const std::string& bytes) {
        EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    std::string errors() const {
        std::fflush(err_);
        std::string text(static_cast<std::size_t>(::lseek(::fileno(err_), 0, SEEK_END)), '\0');
        EXPECT_EQ(::pread(::fileno(err_), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        return text;
    }
    /// A session of program "prog" with these words behind it.
    std::unique_ptr<qas::Session> session(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "prog");
        auto fresh = std::make_unique<qas::Session>(std::move(words));
        fresh->set_streams(in_, out_, err_);
        return fresh;
    }
    /// The same without a session.
    void prepare(qas::Layer& layer, std::vector<std::string> words) const {
        words.insert(words.begin(), "prog");
        qas::initpar(layer, std::move(words));
        layer.notes.err = err_;
        layer.out = out_;
        layer.in = in_;
        layer.retry_ms = 1;
    }
    static void write(qas::Session& s, const std::string& tag, const std::vector<float>& samples) {
        const auto nbytes = static_cast<std::int64_t>(4 * samples.size());
        EXPECT_EQ(s.srite(tag, samples.data(), nbytes), nbytes);
    }
    /// The next samples, at most `most`, as many as came.
    static std::vector<float> read(qas::Session& s, const std::string& tag, std::size_t most) {
        std::vector<float> samples(most, -77.0f);
        const auto got = static_cast<std::size_t>(s.sreed(tag, samples.data(), static_cast<std::int64_t>(4 * most)));
        EXPECT_EQ(got % 4, 0U);
        for (std::size_t i = got / 4; i < most; ++i) EXPECT_EQ(samples[i], -77.0f) << "behind what came";
        samples.resize(got / 4);
        return samples;
    }
    struct Seek {
        std::int64_t offset;
        int whence;
        std::int64_t position;  ///< from the start; -1: refused
    };
    static void seek(qas::Session& s, const std::string& tag, const std::vector<Seek>& seeks) {
        for (const auto& [offset, whence, position] : seeks)
            EXPECT_EQ(s.sseek(tag, offset, whence), position) << tag << " " << offset << " " << whence;
    }
    /// 0, 1, 2, ...
    static std::vector<float> ramp(std::size_t n) {
        std::vector<float> values(n);
        std::iota(values.begin(), values.end(), 0.0f);
        return values;
    }
    /// Starts a process of its own that makes `call` and ends with status 0, or 1 if that throws.
    template <class Call>
    static pid_t start_process(const Call& call) {
        std::fflush(nullptr);
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        int status = 1;
        try {
            call();
            status = 0;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child: %s\n", error.what());
        }
        std::fflush(nullptr);
        ::_exit(status);
    }
    static int exit_status(pid_t pid) {
        int status = -1;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    /// Leaves room for no new descriptor. The sanitizers need some, too: only the calls in question belong inside.
    static Limit no_descriptors() {
        const int next = ::dup(0);
        ::close(next);
        return Limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
    }
    template <class T>
    static std::string xdr(const std::vector<T>& values) {
        return files::bytes_of(values, std::endian::big);
    }
};
