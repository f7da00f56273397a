#pragma once
#include <gtest/gtest.h>

/// The program's own lines on standard output and standard error, kept out of the test's while it lives.
struct Quiet {
    Quiet() {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
    }
    ~Quiet() {
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
};
