#pragma once
/// Tagged datasets and parameters: what a program needs to read its settings and move its panels.
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/axis.h"
#include "lib/corelibs/qas/data/window.h"
#include "lib/corelibs/qas/files/output_extent.h"
#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {

class KeyTable;

template <class T>
concept ParameterValue = std::same_as<T, int> || std::same_as<T, float> || std::same_as<T, double> ||
    std::same_as<T, bool> || std::same_as<T, std::string>;

/// Everything the dataset layer remembers: argument vector, parameter tables, streams. One per program, owned by main
/// and handed down; a test may open several. For the main thread only. Errors throw qas::Fatal (qaserr.h).
class Session {
public:
    /// Keeps the argument vector (argv[0] is the program name); nothing is scanned before the first look-up. Of a
    /// command line the first 255 characters of a word count; a longer one is warned about.
    Session(int argc, const char* const* argv);
    explicit Session(std::vector<std::string> argv);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::string program() const;
    /// The argument vector.
    const std::vector<std::string>& words() const;

    /// The streams to use as standard input, output and error; they stay the caller's. To be called before anything
    /// else. A test gives its own, since the history of "in" is read to its end at the first from_param or to_history.
    void set_streams(std::FILE* in, std::FILE* out, std::FILE* err);

    /// Value of parameter `key`; the run ends with "missing parameter value: " and the key if it is absent.
    /// Found or defaulted, the value is recorded in the history of "out" as "From par: key=value".
    template <ParameterValue T>
    T from_param(std::string_view key);
    template <ParameterValue T>
    T from_param(std::string_view key, const T& otherwise);

    /// As from_param for a text in a field of `width` characters: a longer one is cut to it, with a warning.
    std::string from_param_text(std::string_view key, const std::string& otherwise, std::size_t width);

    /// As from_param, without recording; empty if absent. `names` may hold synonyms parted by blanks.
    template <ParameterValue T>
    std::optional<T> getch(std::string_view names);
    /// As getch, from the history of "in"; from the command line, then that; from the command line, then the second
    /// table of "in" (see set_second_table).
    template <ParameterValue T>
    std::optional<T> hetch(std::string_view names);
    template <ParameterValue T>
    std::optional<T> fetch(std::string_view names);
    template <ParameterValue T>
    std::optional<T> tetch(std::string_view names);
    /// Adds one `name=value` word to the command line, as if typed last.
    void getch_add_string(std::string_view word);
    /// Text whose pairs are found where the history of input `tag` does not define a name.
    void set_second_table(std::string_view tag, std::string_view text);
    /// The elements of a list parameter (commas, `2*3.5` repeats), at most `most`: more is an error that names the key.
    template <ParameterValue T>
    std::vector<T> getch_list(std::string_view names, std::size_t most);

    /// Value of `name` in the history of dataset `tag`; without a default its absence ends the run with
    /// "missing history value: ".
    template <ParameterValue T>
    T from_aux(std::string_view tag, std::string_view name);
    template <ParameterValue T>
    T from_aux(std::string_view tag, std::string_view name, const T& otherwise);

    /// Axis `k` of dataset `tag`: header values `nk`, `dk`, `ok`, all required. Refuses `nk` below 1 or over
    /// 2000000000, `dk` or `ok` that is not finite, with a message that names tag, header and key. `all` stays empty.
    morvane::Axis from_aux_axis(std::string_view tag, int k);
    /// To be called before allocating `nbytes` for samples of input `tag`. Refuses a count that is negative, above the
    /// memory of this machine, or over 256 MiB and more than twice the size of the data: axes that promise so much are
    /// wrong. `axes` says for the message which ones, "n1*n3".
    void check_data_size(std::string_view tag, std::int64_t nbytes, std::string_view axes);
    /// The whole history of input `tag` as it stands in its header, without the mark at its end.
    std::string history(std::string_view tag);
    /// Size of the data of input `tag` in bytes; -1 if they are not in ordinary files.
    std::int64_t data_size(std::string_view tag);

    /// Appends the line "\t\tname=value\n" to the history of dataset `tag` (created as an output if new) and flushes.
    template <ParameterValue T>
    void to_history(std::string_view name, const T& value, std::string_view tag = "out");

    /// Appends the line under "putlast: " and the name; repeated calls with one name keep one line at the header's end.
    template <ParameterValue T>
    void put_last(std::string_view name, const T& value, std::string_view tag = "out");

    /// True if a parameter of this name was given (no file is looked for).
    bool exist_file(std::string_view tag);

    /// Declares the keys that the program reads; `keys` outlives the session. From then on a look-up of another name is
    /// an error of the program (assert).
    void declare(const KeyTable& keys);
    /// What was given on the command line or in `par=` files and is not declared: a message for each, which names the
    /// nearest key. Words without `=` are among them.
    std::vector<std::string> unread();

    /// Moves `nbytes` of samples of dataset `tag` into `buffer` from the current position, converting from the format
    /// of the file; returns the bytes moved. Fewer is the end of the data: warned about once per dataset, not an error.
    std::int64_t sreed(std::string_view tag, void* buffer, std::int64_t nbytes);
    /// Appends `nbytes` of samples; returns the bytes written.
    std::int64_t srite(std::string_view tag, const void* buffer, std::int64_t nbytes);
    /// Moves the position of a dataset already in use: whence 0 start of the data, 1 current, 2 end. Returns it.
    std::int64_t sseek(std::string_view tag, std::int64_t offset, int whence);

    /// As sreed and srite in another data format for one call; without any conversion.
    std::int64_t sreed2(std::string_view tag, void* buffer, std::int64_t nbytes, std::string_view format);
    std::int64_t srite2(std::string_view tag, const void* buffer, std::int64_t nbytes, std::string_view format);
    std::int64_t sreed_raw(std::string_view tag, void* buffer, std::int64_t nbytes);
    std::int64_t srite_raw(std::string_view tag, const void* buffer, std::int64_t nbytes);
    /// The samples of a window of a regular grid, in order: as many bytes as there are before the data end.
    std::int64_t sreed_window(std::string_view tag, const Window& window, void* buffer);
    std::int64_t srite_window(std::string_view tag, const Window& window, const void* buffer);
    /// sseek by blocks; the present position in bytes; whether the data can be positioned backwards.
    std::int64_t sseek_block(std::string_view tag, std::int64_t block, std::int64_t block_bytes, int whence);
    std::int64_t file_position(std::string_view tag);
    bool sseekable(std::string_view tag);
    /// Puts the data of an input that is a pipe or socket into a scratch file, so that they can be read in any order.
    int make_unpipe(std::string_view tag);

    /// Tags whose output header the history of "in" may name where the command line does not; each use is told on
    /// standard error. Of any other tag such a name is refused.
    void inherit_outputs(std::initializer_list<std::string_view> tags);

    /// Opens a new tag as a dataset that is read and written and may exist already; as one that is made anew, read and
    /// written; as an output whose reader connects to the address that is returned, "host:service".
    void auxinout(std::string_view tag);
    void auxscr(std::string_view tag);
    std::string auxsockout(std::string_view tag);

    /// Whether from_param and to_history("out") record: not at all, again, or in the history of another tag.
    void set_no_putch();
    void set_yes_putch();
    void set_alternate_putch(std::string_view tag);

    /// Takes a file that the program reads or writes beside its datasets. An output may be no file of a dataset in use,
    /// no parameter file, no standard stream and no other such file; from then on, no output of a dataset may be one of
    /// these. What counts is the file, not how it is spelled. Errors: also those of PlainOutput.
    void claim_input(const PlainFile& file);
    PlainOutput claim_output(const PlainFile& file);

    /// How long an output that another program writes is waited for before the run is refused; at first not at all.
    void set_patience(int milliseconds);
    /// To be called before a program's first output, in place of hold_outputs: all outputs are written beside what they
    /// replace, and finish_outputs puts them into place. A session that ends before leaves what was there.
    void replace_outputs();
    /// To be called before a program's first output: until begin_outputs, what stands in files that outputs name stays
    /// as it is; lines and samples wait in memory, and come to nothing if the session ends before.
    void hold_outputs();
    /// Opens header and data of these outputs, so that what cannot be written is known before the work. Errors: those
    /// of the openings, and "srite(): invalid output tag %s\n".
    void open_outputs(const std::vector<std::string>& tags);
    /// To be called when nothing but the work can fail any more: empties the headers and data of all outputs and writes
    /// what waited.
    void begin_outputs();
    /// How far all outputs have come, once that is on the disk. Errors: those of finish_outputs; data in several files.
    std::vector<OutputExtent> sync_outputs();
    /// In place of begin_outputs, to go on with the outputs of an earlier run: files are cut back to these extents and
    /// written on; lines and samples that waited are in them already. Errors: an output that is not among them, stands
    /// in another file, or is shorter; nothing is changed then.
    void resume_outputs(const std::vector<OutputExtent>& extents);
    /// To be called at the end of a program that tells its success: every output is put on the disk, data first, and
    /// closed; nothing is added to the histories. Errors: "... cannot be put on the disk: reason", a failed command.
    void finish_outputs();
    /// Ends the histories of "out" and in/out datasets; that of `tag`; `tag` altogether, data included.
    void hclose();
    void auxhclose(std::string_view tag);
    void auxclose(std::string_view tag);

    /// Name of the data format of `tag`, and choosing it for an output before its first srite.
    std::string get_format(std::string_view tag);
    void set_format(std::string_view tag, std::string_view name);

    /// Job messages at the start and the end of a program; silent unless the "qas." parameters ask for them.
    void begin_prog();
    void end_prog();

private:
    friend void refuse_unread(Session& session, const KeyTable& keys);
    friend int report_fatal(const Fatal& error, Session& session);
    struct State;
    std::unique_ptr<State> state_;
};

/// Ends a run as it must end: job message "error", then "program: message" on standard error and on standard output,
/// flushed. Returns 23, the status of every error exit; an Exit has printed its message already and brings its own.
int report_fatal(const Fatal& error, Session& session);

/// Refuses words of the command line that `keys` does not list. Parameter files, which may hold the settings of other
/// programs, are not searched.
void refuse_unread(Session& session, const KeyTable& keys);

}  // namespace qas
