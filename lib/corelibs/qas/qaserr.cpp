#include "lib/corelibs/qas/qaserr.h"

#include <cstdarg>
#include <cstdio>

namespace qas {
namespace {

std::string format_text(const char* format, std::va_list args) {
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

}  // namespace

void qaserr(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    throw Fatal(text);
}

std::string kill_trailing(std::string_view text, char character) {
    std::size_t length = text.size();
    while (length > 1 && text[length - 1] == character) --length;
    return std::string(text.substr(0, length));
}

void erexit(std::string_view text) {
    throw Fatal(kill_trailing(text, ' ') + "\n");
}

int qaswarn(int code, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const std::string text = format_text(format, args);
    va_end(args);
    for (std::FILE* stream : {stderr, stdout}) {
        std::fputs(text.c_str(), stream);
        std::fflush(stream);
    }
    return code;
}

}  // namespace qas
