#pragma once
/// A folder of its own as the current directory of a test, removed afterwards.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryFolder : public testing::Test {
    std::filesystem::path before_ = std::filesystem::current_path();
    std::filesystem::path folder_;

protected:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "solver_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
        folder_ = name;
        std::filesystem::current_path(folder_);
    }
    ~TemporaryFolder() override {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(folder_);
    }
    static std::string contents(const std::string& name) {
        std::ifstream file(name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};
