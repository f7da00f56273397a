#include "lib/base/warning.h"

#include <errno.h>

#include <cstdarg>
#include <cstdio>

namespace morvane {

void warn(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::fprintf(stderr, "%s: warning: ", program_invocation_name);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

}  // namespace morvane
