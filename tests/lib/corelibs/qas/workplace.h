#pragma once
/// A workplace for one test: an empty folder that is the current one, own standard streams, no data path from outside.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"

class Workplace : public ::testing::Test {
protected:
    std::filesystem::path before_ = std::filesystem::current_path();
    std::filesystem::path dir_;
    std::FILE* in_ = nullptr;
    std::FILE* out_ = nullptr;
    std::FILE* err_ = nullptr;

    void SetUp() override {
        std::string name = (std::filesystem::temp_directory_path() / "qas_test_XXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        dir_ = std::filesystem::canonical(name);
        std::filesystem::current_path(dir_);
        ::unsetenv("DATAPATH");
        ::setenv("HOME", dir_.c_str(), 1);
        in_ = std::tmpfile();
        out_ = std::fopen("/dev/null", "w");
        err_ = std::tmpfile();
    }
    void TearDown() override {
        for (std::FILE* stream : {in_, out_, err_}) std::fclose(stream);
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(dir_);
    }

    static void write_file(const std::string& name, const std::string& text) {
        std::ofstream(name, std::ios::binary) << text;
    }
    static std::string read_file(const std::string& name) {
        std::ifstream stream(name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    /// What a run would have had on its standard input.
    void set_input(const std::string& text) {
        std::fwrite(text.data(), 1, text.size(), in_);
        std::fflush(in_);
        std::rewind(in_);
    }
    /// Makes the standard output the file `name`.
    void set_output_file(const std::string& name) {
        std::fclose(out_);
        out_ = std::fopen(name.c_str(), "w");
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
    /// The message a call ends with; empty if it does not end the run.
    template <class Call>
    static std::string fatal(const Call& call) {
        try {
            call();
        } catch (const qas::Fatal& error) {
            return error.what();
        }
        return {};
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
    /// Big-endian bytes of 4-byte values.
    template <class T>
    static std::string xdr(std::vector<T> values) {
        static_assert(sizeof(T) == 4);
        std::string bytes;
        for (const T& value : values) {
            char raw[4];
            std::memcpy(raw, &value, 4);
            bytes.append({raw[3], raw[2], raw[1], raw[0]});
        }
        return bytes;
    }
};
