#include "src/areal/wemva/run/messages.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "lib/base/warning.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

void refuse(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = qas::vstrprintf(format, arguments);
    va_end(arguments);
    qas::erexit(text);
}

void doubt(bool strict, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = qas::vstrprintf(format, arguments);
    va_end(arguments);
    if (strict) throw StrictEnd("strict=y: " + text + "\n");
    warn("%s", text.c_str());
}

void list_write(std::initializer_list<ListItem> items) {
    std::fprintf(stderr, "%s\n", list_line(items).c_str());
}

}  // namespace morvane
