#pragma once
/// Small datasets in temporary directories, written and read without the dataset layer, and runs of the programs on
/// them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace files {

/// A directory of its own, removed with the object.
class TempDir {
    std::filesystem::path path_;

public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "morvane_test_XXXXXX").string();
        if (!mkdtemp(name.data())) throw std::runtime_error("cannot create " + name);
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    std::string text() const { return path_.string(); }
};

inline std::string read_text(const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_text(const std::string& name, std::string_view text) {
    std::ofstream(name, std::ios::binary) << text;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

/// The bytes of numbers in this byte order.
template <class T>
std::string bytes_of(const std::vector<T>& values, std::endian order = std::endian::native) {
    std::string bytes;
    for (const T value : values) {
        auto word = std::bit_cast<std::array<char, sizeof(T)>>(value);
        if (order != std::endian::native) std::reverse(word.begin(), word.end());
        bytes.append(word.begin(), word.end());
    }
    return bytes;
}

inline void write_floats(const std::string& name, const std::vector<float>& samples) {
    write_text(name, bytes_of(samples, std::endian::big));
}

inline std::vector<float> read_floats(const std::string& name) {
    const std::string bytes = read_text(name);
    std::vector<float> samples;
    for (std::size_t at = 0; at + 4 <= bytes.size(); at += 4) {
        std::uint32_t bits;
        std::memcpy(&bits, bytes.data() + at, sizeof bits);
        samples.push_back(std::bit_cast<float>(__builtin_bswap32(bits)));
    }
    return samples;
}

/// The last value of `name` in a header, its quotes removed; empty if there is none.
inline std::string header_value(const std::string& header, const std::string& name) {
    std::string value;
    for (const std::string& line : lines_of(header)) {
        for (std::size_t at = line.find(name + "="); at != std::string::npos; at = line.find(name + "=", at + 1)) {
            if (at != 0 && line[at - 1] != ' ' && line[at - 1] != '\t') continue;
            value = line.substr(at + name.size() + 1);
            value = value.substr(0, value.find_first_of(" \t"));
        }
    }
    if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
    return value;
}

/// The samples behind a header file.
inline std::vector<float> read_dataset(const std::string& header_name) {
    return read_floats(header_value(read_text(header_name), "in"));
}

struct Dataset {
    std::map<std::string, std::string> header;  ///< without "in"
    std::vector<float> samples;
    void axis(int number, int n, const std::string& d, const std::string& o) {
        const std::string k = std::to_string(number);
        header["n" + k] = std::to_string(n);
        header["d" + k] = d;
        header["o" + k] = o;
    }
    void write(const std::string& name) const {
        std::string text;
        for (const auto& [key, value] : header) text += key + "=" + value + "\n";
        text += "\tsets next: in=\"" + name + "@\"\n\tdata_format=\"xdr_float\"\n";
        write_text(name, text);
        write_floats(name + "@", samples);
    }
};

struct Outcome {
    int status = -1;  ///< exit status, or -1 if the program did not end by itself
    std::string out, err;
};

/// Runs a program of the build in `directory`, its standard input empty. `environment` goes before the program. Its
/// threads wait asleep: tests share the processors.
inline Outcome run_program(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& directory, const std::string& environment = "") {
    const auto quoted = [](const std::string& text) {
        std::string result = " '";
        for (const char c : text) {
            if (c == '\'') result.append("'\\'");
            result.push_back(c);
        }
        result.push_back('\'');
        return result;
    };
    std::string command = "cd" + quoted(directory) + " && exec env OMP_WAIT_POLICY=passive " + environment +
                          quoted(std::filesystem::path(MORVANE_BIN_DIR) / program);
    for (const std::string& argument : arguments) command += quoted(argument);
    command += " < /dev/null > .stdout 2> .stderr";
    const int result = std::system(command.c_str());
    return {WIFEXITED(result) ? WEXITSTATUS(result) : -1, read_text(directory + "/.stdout"),
            read_text(directory + "/.stderr")};
}

}  // namespace files
