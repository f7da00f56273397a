#pragma once
/// The one way to end a run with an error. Library code throws; only main turns it into messages and a status.
#include <stdexcept>
#include <string>
#include <string_view>

namespace qas {

/// A condition the run cannot continue from; what() is the message as it goes to both streams, without program name.
struct Fatal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// An end of the run with a status of its own, whose message has been printed already.
struct Exit : Fatal {
    int status;
    explicit Exit(int code) : Fatal(""), status(code) {}
};

/// Throws Fatal with the formatted message; adds no newline.
[[noreturn, gnu::format(printf, 1, 2)]] void qaserr(const char* format, ...);

/// The text without its trailing copies of `character`; a text made up only of them keeps its first one.
std::string kill_trailing(std::string_view text, char character);

/// Throws Fatal with the text, its trailing blanks cut, and a newline.
[[noreturn]] void erexit(std::string_view text);

/// Prints the formatted message on standard error, then standard output, flushing each; returns `code`. No program
/// name.
[[gnu::format(printf, 2, 3)]] int qaswarn(int code, const char* format, ...);

}  // namespace qas
