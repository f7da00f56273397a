#include "lib/corelibs/qas/session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <type_traits>
#include <utility>

#include "lib/corelibs/qas/jobs.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/parameters/scanner.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/output_files.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/tags/all_outputs.h"
#include "lib/corelibs/qas/tags/extents.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "lib/corelibs/qas/tags/history_lines.h"
#include "lib/corelibs/qas/tags/look_ups.h"
#include "lib/corelibs/qas/tags/transfer.h"
#include "lib/corelibs/qas/tags/unpipe.h"

namespace qas {
namespace {

constexpr int largest_axis = 2000000000;
constexpr std::int64_t always_affordable = std::int64_t{256} << 20;

template <ParameterValue T>
constexpr const char* type_letter() {
    if constexpr (std::is_same_v<T, int>) return "i";
    if constexpr (std::is_same_v<T, float>) return "r";
    if constexpr (std::is_same_v<T, double>) return "g";
    if constexpr (std::is_same_v<T, bool>) return "l";
    return "s";
}

template <ParameterValue T>
std::vector<T> values_as(const Values& values) {
    if (!found(values)) return {};
    if constexpr (std::is_same_v<T, std::string>) {
        return {std::get<std::string>(values)};
    } else if constexpr (std::is_same_v<T, bool>) {
        std::vector<bool> flags;
        for (const int flag : std::get<std::vector<int>>(values)) flags.push_back(flag != 0);
        return flags;
    } else {
        return std::get<std::vector<T>>(values);
    }
}

template <ParameterValue T>
std::optional<T> first_as(const Values& values) {
    if (!found(values)) return std::nullopt;
    return values_as<T>(values).front();
}

/// Texts come in fields padded with blanks: trailing ones do not count.
template <ParameterValue T>
T without_padding(T value) {
    if constexpr (std::is_same_v<T, std::string>) return kill_trailing(value, ' ');
    return value;
}

/// A program started without one of the standard streams would open a dataset in its place, and print into it.
void keep_standard_streams_open() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != fd) qaserr("cannot open /dev/null\n");
}

void record(Layer& layer, const std::string& name, const Value& value) {
    switch (layer.recording) {
        case Layer::Recording::on:
            putch(layer, name, value);
            break;
        case Layer::Recording::alternate:
            auxputch(layer, name, value, layer.altfile);
            break;
        case Layer::Recording::off:
            break;
    }
}

}  // namespace

struct Session::State {
    Layer layer;
};

Session::Session(int argc, const char* const* argv) : Session(std::vector<std::string>()) {
    initpar(state_->layer, finitpar(argc, argv, state_->layer.notes));
}

Session::Session(std::vector<std::string> argv) : state_(std::make_unique<State>()) {
    keep_standard_streams_open();
    initpar(state_->layer, std::move(argv));
}

Session::~Session() = default;

std::string Session::program() const {
    return state_->layer.argv.empty() ? std::string() : state_->layer.argv[0];
}

const std::vector<std::string>& Session::words() const {
    return state_->layer.argv;
}

void Session::set_streams(std::FILE* in, std::FILE* out, std::FILE* err) {
    state_->layer.in = in;
    state_->layer.out = out;
    state_->layer.notes.err = err;
}

template <ParameterValue T>
T Session::from_param(std::string_view key) {
    const std::optional<T> value = getch<T>(key);
    if (!value) erexit("missing parameter value: " + std::string(key));
    T given = without_padding(*value);
    record(state_->layer, "From par: " + std::string(key), given);
    return given;
}

template <ParameterValue T>
T Session::from_param(std::string_view key, const T& otherwise) {
    T given = without_padding(getch<T>(key).value_or(otherwise));
    record(state_->layer, "From par: " + std::string(key), given);
    return given;
}

std::string Session::from_param_text(std::string_view key, const std::string& otherwise, std::size_t width) {
    std::string text = without_padding(getch<std::string>(key).value_or(otherwise));
    if (text.size() > width) {
        const std::string field = without_padding(text.substr(0, width));
        state_->layer.notes.warning(strprintf("parameter %s has %zu characters, of which %zu count: %s=%s\n",
                                              std::string(key).c_str(), text.size(), width, std::string(key).c_str(),
                                              field.c_str()));
        text = field;
    }
    record(state_->layer, "From par: " + std::string(key), text);
    return text;
}

template <ParameterValue T>
std::optional<T> Session::getch(std::string_view names) {
    return first_as<T>(qas::getch(state_->layer, names, type_letter<T>(), 1));
}

template <ParameterValue T>
std::optional<T> Session::hetch(std::string_view names) {
    return first_as<T>(qas::hetch(state_->layer, names, type_letter<T>(), 1));
}

template <ParameterValue T>
std::optional<T> Session::fetch(std::string_view names) {
    return first_as<T>(qas::fetch(state_->layer, names, type_letter<T>(), 1));
}

template <ParameterValue T>
std::optional<T> Session::tetch(std::string_view names) {
    return first_as<T>(qas::tetch(state_->layer, names, type_letter<T>(), 1));
}

template <ParameterValue T>
std::vector<T> Session::getch_list(std::string_view names, std::size_t most) {
    return values_as<T>(qas::getch(state_->layer, names, type_letter<T>(), most));
}

template <ParameterValue T>
T Session::from_aux(std::string_view tag, std::string_view name) {
    const std::optional<T> value = first_as<T>(auxpar(state_->layer, name, type_letter<T>(), 1, tag));
    if (!value) {
        const std::string place = header_place(*tag_info(state_->layer, tag, Mode::input));
        throw Fatal("missing history value: " + std::string(name) + " from file: " + std::string(tag) + "\n  " + place +
                    "\n");
    }
    return without_padding(*value);
}

template <ParameterValue T>
T Session::from_aux(std::string_view tag, std::string_view name, const T& otherwise) {
    return without_padding(first_as<T>(auxpar(state_->layer, name, type_letter<T>(), 1, tag)).value_or(otherwise));
}

template <ParameterValue T>
void Session::to_history(std::string_view name, const T& value, std::string_view tag) {
    const Value line_value = without_padding(value);
    if (tag == "out")
        record(state_->layer, std::string(name), line_value);
    else
        auxputch(state_->layer, name, line_value, tag);
}

template <ParameterValue T>
void Session::put_last(std::string_view name, const T& value, std::string_view tag) {
    qasstrputlast(state_->layer, *tag_info(state_->layer, tag, Mode::output), name, without_padding(value));
}

#define QAS_INSTANTIATE(T)                                                            \
    template T Session::from_param<T>(std::string_view);                              \
    template T Session::from_param<T>(std::string_view, const T&);                    \
    template std::optional<T> Session::getch<T>(std::string_view);                    \
    template std::optional<T> Session::hetch<T>(std::string_view);                    \
    template std::optional<T> Session::fetch<T>(std::string_view);                    \
    template std::optional<T> Session::tetch<T>(std::string_view);                    \
    template void Session::put_last<T>(std::string_view, const T&, std::string_view); \
    template std::vector<T> Session::getch_list<T>(std::string_view, std::size_t);    \
    template T Session::from_aux<T>(std::string_view, std::string_view);              \
    template T Session::from_aux<T>(std::string_view, std::string_view, const T&);    \
    template void Session::to_history<T>(std::string_view, const T&, std::string_view);
QAS_INSTANTIATE(int)
QAS_INSTANTIATE(float)
QAS_INSTANTIATE(double)
QAS_INSTANTIATE(bool)
QAS_INSTANTIATE(std::string)
#undef QAS_INSTANTIATE

bool Session::exist_file(std::string_view tag) {
    return getch<std::string>(tag).has_value();
}

void Session::declare(const KeyTable& keys) {
    state_->layer.keys = &keys;
}

std::vector<std::string> Session::unread() {
    constexpr bool with_files = true;
    const Layer& layer = state_->layer;
    return layer.keys ? qas::unread(state_->layer, *layer.keys, with_files) : std::vector<std::string>();
}

morvane::Axis Session::from_aux_axis(std::string_view tag, int k) {
    const std::string number = std::to_string(k);
    morvane::Axis axis;
    axis.n = from_aux<int>(tag, "n" + number);
    axis.d = from_aux<float>(tag, "d" + number);
    axis.o = from_aux<float>(tag, "o" + number);
    const std::string place = header_place(*tag_info(state_->layer, tag, Mode::input));
    if (axis.n < 1 || axis.n > largest_axis)
        qaserr("%s: n%d=%d must be 1 to %d\n", place.c_str(), k, axis.n, largest_axis);
    if (!std::isfinite(axis.d))
        qaserr("%s: d%d=%g must be a finite number\n", place.c_str(), k, static_cast<double>(axis.d));
    if (!std::isfinite(axis.o))
        qaserr("%s: o%d=%g must be a finite number\n", place.c_str(), k, static_cast<double>(axis.o));
    return axis;
}

void Session::check_data_size(std::string_view tag, std::int64_t nbytes, std::string_view axes) {
    const std::int64_t size = data_size(tag);
    const std::string place = header_place(*tag_info(state_->layer, tag, Mode::input));
    const std::string which(axes);
    const std::int64_t memory = std::int64_t{::sysconf(_SC_PHYS_PAGES)} * ::sysconf(_SC_PAGESIZE);
    if (nbytes < 0 || nbytes > memory)
        qaserr("%s: %s asks for %lld bytes, this machine has %lld\n", place.c_str(), which.c_str(),
               static_cast<long long>(nbytes), static_cast<long long>(memory));
    if (size >= 0 && nbytes > always_affordable && nbytes / 2 > size)
        qaserr("%s: %s asks for %lld bytes, its data are %lld bytes\n", place.c_str(), which.c_str(),
               static_cast<long long>(nbytes), static_cast<long long>(size));
}

std::string Session::history(std::string_view tag) {
    const streaminf& stream = *tag_info(state_->layer, tag, Mode::input);
    if (!stream.headerbuf)
        qaserr("Attempt to get the history of tag %s which is not a valid description file \n%s",
               stream.tagname.c_str(), stream.trouble.c_str());
    return *stream.headerbuf;
}

std::int64_t Session::data_size(std::string_view tag) {
    return ssize(state_->layer, tag);
}

std::int64_t Session::sreed(std::string_view tag, void* buffer, std::int64_t nbytes) {
    return qas::sreed(state_->layer, tag, buffer, nbytes);
}
std::int64_t Session::srite(std::string_view tag, const void* buffer, std::int64_t nbytes) {
    return qas::srite(state_->layer, tag, buffer, nbytes);
}
std::int64_t Session::sseek(std::string_view tag, std::int64_t offset, int whence) {
    return qas::sseek(state_->layer, tag, offset, whence);
}

std::int64_t Session::sreed2(std::string_view tag, void* buffer, std::int64_t nbytes, std::string_view format) {
    return qas::sreed2(state_->layer, tag, buffer, nbytes, format);
}
std::int64_t Session::srite2(std::string_view tag, const void* buffer, std::int64_t nbytes, std::string_view format) {
    return qas::srite2(state_->layer, tag, buffer, nbytes, format);
}
std::int64_t Session::sreed_raw(std::string_view tag, void* buffer, std::int64_t nbytes) {
    return qas::sreed_raw(state_->layer, tag, buffer, nbytes);
}
std::int64_t Session::srite_raw(std::string_view tag, const void* buffer, std::int64_t nbytes) {
    return qas::srite_raw(state_->layer, tag, buffer, nbytes);
}
std::int64_t Session::sreed_window(std::string_view tag, const Window& window, void* buffer) {
    return qas::sreed_window(state_->layer, tag, window, buffer);
}
std::int64_t Session::srite_window(std::string_view tag, const Window& window, const void* buffer) {
    return qas::srite_window(state_->layer, tag, window, buffer);
}
std::int64_t Session::sseek_block(std::string_view tag, std::int64_t block, std::int64_t block_bytes, int whence) {
    return qas::sseek_block(state_->layer, tag, block, block_bytes, whence);
}
std::int64_t Session::file_position(std::string_view tag) {
    return qas::file_position(state_->layer, tag);
}
bool Session::sseekable(std::string_view tag) {
    return qas::sseekable(state_->layer, tag);
}
int Session::make_unpipe(std::string_view tag) {
    return qas::make_unpipe(state_->layer, tag);
}

void Session::inherit_outputs(std::initializer_list<std::string_view> tags) {
    state_->layer.inheriting.insert(tags.begin(), tags.end());
}

void Session::auxinout(std::string_view tag) {
    tag_info(state_->layer, tag, Mode::inout);
}
void Session::auxscr(std::string_view tag) {
    tag_info(state_->layer, tag, Mode::scratch);
}
std::string Session::auxsockout(std::string_view tag) {
    return kill_trailing(tag_info(state_->layer, tag, Mode::socket_output)->headername, '\n');
}

void Session::getch_add_string(std::string_view word) {
    qas::getch_add_string(state_->layer, word);
}
void Session::set_second_table(std::string_view tag, std::string_view text) {
    ParTable& table = tag_info(state_->layer, tag, Mode::input)->tetch_queue.emplace();
    getpar_scan(table, state_->layer.clock, text, Origin::user);
}

void Session::set_no_putch() {
    state_->layer.recording = Layer::Recording::off;
}
void Session::set_yes_putch() {
    state_->layer.recording = Layer::Recording::on;
}
void Session::set_alternate_putch(std::string_view tag) {
    state_->layer.recording = Layer::Recording::alternate;
    state_->layer.altfile = tag;
}

void Session::claim_input(const PlainFile& file) {
    state_->layer.plain_files.push_back(file);
}
PlainOutput Session::claim_output(const PlainFile& file) {
    check_plain_output(state_->layer, file);
    PlainOutput output(file, state_->layer.patience_ms);
    check_plain_output(state_->layer, file);  // a new file may be the data file of an output
    state_->layer.plain_files.push_back(file);
    return output;
}

void Session::set_patience(int milliseconds) {
    state_->layer.patience_ms = milliseconds;
}
void Session::replace_outputs() {
    state_->layer.replace = true;
}
void Session::hold_outputs() {
    state_->layer.hold = true;
}
void Session::open_outputs(const std::vector<std::string>& tags) {
    for (const std::string& tag : tags) open_output(state_->layer, tag);
}
void Session::begin_outputs() {
    qas::begin_outputs(state_->layer);
}
std::vector<OutputExtent> Session::sync_outputs() {
    return qas::sync_outputs(state_->layer);
}
void Session::resume_outputs(const std::vector<OutputExtent>& extents) {
    qas::resume_outputs(state_->layer, extents);
}
void Session::finish_outputs() {
    qas::finish_outputs(state_->layer);
}
void Session::hclose() {
    qas::hclose(state_->layer);
}
void Session::auxhclose(std::string_view tag) {
    qas::auxhclose(state_->layer, tag);
}
void Session::auxclose(std::string_view tag) {
    qas::auxclose(state_->layer, tag);
}
std::string Session::get_format(std::string_view tag) {
    return qas::get_format(state_->layer, tag);
}
void Session::set_format(std::string_view tag, std::string_view name) {
    qas::set_format(state_->layer, tag, name);
}

void Session::begin_prog() {
    qas_begin_prog(state_->layer);
}
void Session::end_prog() {
    qas_end_prog(state_->layer);
}

void refuse_unread(Session& session, const KeyTable& keys) {
    constexpr bool with_files = false;
    std::string all;
    for (const std::string& message : unread(session.state_->layer, keys, with_files)) all += message + "\n";
    if (!all.empty()) throw Fatal(all + "--help lists the keys\n");
}

int report_fatal(const Fatal& error, Session& session) {
    Layer& layer = session.state_->layer;
    if (const Exit* exit = dynamic_cast<const Exit*>(&error)) return exit->status;
    try {
        qas_err_prog(layer);
    } catch (const Fatal&) {  // a command line that cannot be scanned is what is being reported
    }
    const std::string text = (layer.argv.empty() ? "" : layer.argv[0] + ": ") + error.what();
    for (std::FILE* stream : {layer.notes.err, layer.out}) {
        std::fputs(text.c_str(), stream);
        std::fflush(stream);
    }
    return 23;
}

}  // namespace qas
