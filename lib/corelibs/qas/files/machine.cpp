#include "lib/corelibs/qas/files/machine.h"

#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>

namespace qas {

std::string user_name() {
    if (const char* login = ::getlogin()) return login;
    if (const char* user = std::getenv("USER")) return user;
    if (const passwd* entry = ::getpwuid(::geteuid())) return entry->pw_name;
    return {};
}

std::string host_name() {
    struct utsname name;
    return ::uname(&name) == 0 ? std::string(name.nodename) : std::string();
}

}  // namespace qas
