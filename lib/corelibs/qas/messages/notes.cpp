#include "lib/corelibs/qas/messages/notes.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace qas {

void Notes::warn(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), err);
    std::fflush(err);
}

void Notes::warning(const std::string& text) {
    warn((program.empty() ? "" : program + ": ") + "warning: " + text);
}

void Notes::once(const std::string& id, const std::string& text) {
    if (said.insert(id).second) warning(text);
}

void Notes::perror(const char* label) {
    warn(strprintf("%s: %s\n", label, std::strerror(errno)));
}

std::string vstrprintf(const char* format, std::va_list args) {
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

std::string strprintf(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::string text = vstrprintf(format, args);
    va_end(args);
    return text;
}

}  // namespace qas
