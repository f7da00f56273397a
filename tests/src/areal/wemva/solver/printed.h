#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

/// What is written to standard output while `action` runs.
template <class Action>
std::string printed(Action action) {
    testing::internal::CaptureStdout();
    action();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}
