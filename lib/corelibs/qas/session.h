#pragma once
/// Tagged datasets and parameters: what a program needs to read its settings and move its panels.
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/corelibs/qas/qaserr.h"

namespace qas {

template <class T>
concept ParameterValue = std::same_as<T, int> || std::same_as<T, float> || std::same_as<T, double> ||
                         std::same_as<T, bool> || std::same_as<T, std::string>;

/// Everything the dataset layer remembers: argument vector, parameter tables, streams. One a program, owned by main and
/// handed down; a test may open several. For the main thread only. Errors throw qas::Fatal (qaserr.h).
class Session {
public:
    /// Keeps the argument vector (argv[0] is the program name); nothing is scanned before the first look-up.
    Session(int argc, const char* const* argv);
    explicit Session(std::vector<std::string> argv);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::string program() const;

    /// Value of parameter `key`; the run ends with "missing parameter value: " and the key if it is absent.
    /// Found or defaulted, the value is recorded in the history of "out" as "From par: key=value".
    template <ParameterValue T>
    T from_param(std::string_view key);
    template <ParameterValue T>
    T from_param(std::string_view key, const T& otherwise);

    /// As from_param, without recording; empty if absent. `names` may hold synonyms parted by blanks.
    template <ParameterValue T>
    std::optional<T> getch(std::string_view names);
    /// The elements of a list parameter (commas, `2*3.5` repeats), at most `most`: more is an error that names the key.
    template <ParameterValue T>
    std::vector<T> getch_list(std::string_view names, std::size_t most);

    /// Value of `name` in the history of dataset `tag`; without a default its absence ends the run with
    /// "missing history value: ".
    template <ParameterValue T>
    T from_aux(std::string_view tag, std::string_view name);
    template <ParameterValue T>
    T from_aux(std::string_view tag, std::string_view name, const T& otherwise);

    /// Appends the line "\t\tname=value\n" to the history of dataset `tag` (created as an output if new) and flushes.
    template <ParameterValue T>
    void to_history(std::string_view name, const T& value, std::string_view tag = "out");

    /// True if a parameter of this name was given (no file is looked for).
    bool exist_file(std::string_view tag);

    /// Moves `nbytes` of samples of dataset `tag` into `buffer` from the current position, converting from the format of
    /// the file; returns the bytes moved. Fewer is the end of the data: warned about once a dataset, not an error.
    std::int64_t sreed(std::string_view tag, void* buffer, std::int64_t nbytes);
    /// Appends `nbytes` of samples; returns the bytes written.
    std::int64_t srite(std::string_view tag, const void* buffer, std::int64_t nbytes);
    /// Moves the position of a dataset already in use: whence 0 start of the data, 1 current, 2 end. Returns it.
    std::int64_t sseek(std::string_view tag, std::int64_t offset, int whence);

    /// Job messages at the start and the end of a program; silent unless the "qas." parameters ask for them.
    void begin_prog();
    void end_prog();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Ends a run as it must end: job message, then "program: message" on standard error and on standard output, flushed.
/// Returns 23, the status of every error exit.
int report_fatal(const Fatal& error, Session& session);

}  // namespace qas
