#include "lib/corelibs/qas/tags/history_lines.h"

#include <string>

#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/tags/headers.h"

namespace qas {
namespace {

std::string history_line(const streaminf& stream, std::string_view name, const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value))
        check_readable(header_place(stream) + ": the value of " + std::string(name.substr(name.rfind(' ') + 1)), *text);
    return "\t\t" + std::string(name) + '=' + format_value(value) + '\n';
}

}  // namespace

void putch(Layer& layer, std::string_view name, const Value& value) {
    auxputch(layer, name, value, "out");
}

void auxputch(Layer& layer, std::string_view name, const Value& value, std::string_view tag) {
    qasstrput(layer, *tag_info(layer, tag, Mode::output), name, value);
}

void qasstrput(Layer& layer, streaminf& stream, std::string_view name, const Value& value) {
    const std::string line = history_line(stream, name, value);
    if (append_history(layer, stream, line)) read_back(layer, stream, line);
}

void qasstrputlast(Layer& layer, streaminf& stream, std::string_view name, const Value& value) {
    const std::string full_name = "putlast: " + std::string(name);
    const std::string line = history_line(stream, full_name, value);
    append_last(layer, stream, full_name, line);
    read_back(layer, stream, line);
}

}  // namespace qas
