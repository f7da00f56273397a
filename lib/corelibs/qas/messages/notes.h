#pragma once
/// Warnings of the dataset layer. They go to the standard error only: the standard output may carry a history, where a
/// warning that quotes `name=value` would be read back as a parameter.
#include <cstdarg>
#include <cstdio>
#include <set>
#include <string>

namespace qas {

struct Notes {
    std::FILE* err = stderr;
    std::set<std::string> said;
    std::string program = {};  ///< the name that warnings begin with

    /// Prints the text as it is and flushes.
    void warn(const std::string& text);
    /// Prints "PROGRAM: warning: " and the text; `once` unless `id` was warned about before.
    void warning(const std::string& text);
    void once(const std::string& id, const std::string& text);
    /// "label: reason" for the present errno.
    void perror(const char* label);
};

/// Formats like printf into a string.
[[gnu::format(printf, 1, 2)]] std::string strprintf(const char* format, ...);
[[gnu::format(printf, 1, 0)]] std::string vstrprintf(const char* format, std::va_list args);

}  // namespace qas
