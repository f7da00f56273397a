#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

/// The program's own lines on standard output and standard error, kept out of the test's while it lives; shown after
/// all if the test fails, since its messages are among them.
struct Quiet {
    Quiet() {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
    }
    ~Quiet() {
        testing::internal::GetCapturedStderr();
        const std::string out = testing::internal::GetCapturedStdout();
        if (testing::Test::HasFailure()) std::fputs(out.c_str(), stdout);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
};
