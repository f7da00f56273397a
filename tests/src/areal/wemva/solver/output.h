#pragma once
/// What the solver writes: to standard output, and to files in the current directory.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/dataset_files.h"

/// What is written to standard output while `action` runs.
template <class Action>
std::string printed(Action action) {
    testing::internal::CaptureStdout();
    action();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

/// A folder of its own as the current directory of a test.
class TemporaryFolder : public testing::Test {
    std::filesystem::path before_ = std::filesystem::current_path();
    files::TempDir folder_;

protected:
    TemporaryFolder() { std::filesystem::current_path(folder_.text()); }
    ~TemporaryFolder() override { std::filesystem::current_path(before_); }
};
