#include "src/areal/wemva/messages.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "lib/corelibs/qas/qaserr.h"

namespace {

[[gnu::format(printf, 1, 0)]] std::string print(const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace

void refuse(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = print(format, arguments);
    va_end(arguments);
    qas::erexit(text);
}

void warn(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = print(format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "warning: %s\n", text.c_str());
}

void list_write(std::initializer_list<ListItem> items) {
    std::fprintf(stderr, "%s\n", list_line(items).c_str());
}
