#include "lib/corelibs/qas/messages/qaserr.h"

#include <cstdarg>
#include <cstdio>

#include "lib/corelibs/qas/messages/notes.h"

namespace qas {

void qaserr(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const std::string text = vstrprintf(format, args);
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
    const std::string text = vstrprintf(format, args);
    va_end(args);
    for (std::FILE* stream : {stderr, stdout}) {
        std::fputs(text.c_str(), stream);
        std::fflush(stream);
    }
    return code;
}

}  // namespace qas
