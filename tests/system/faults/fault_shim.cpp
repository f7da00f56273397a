/// To be preloaded: what a program does to its checkpoint is counted, and goes wrong at a chosen place.
///
/// FAULT_FILE: the checkpoint's name; what is counted are writes, syncs, links, renames and removals of it, of FILE.1
/// and FILE.new. FAULT_AT: the number, from 1, at which FAULT happens. FAULT=kill: half of a write is done, or nothing
/// of another call, and the process is gone. FAULT=full: the call fails as on a full disk, and the process is gone when
/// it opens the next FILE.new. FAULT_COUNT: a file that gets how many calls there were.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

int calls = 0;
bool was_full = false;

std::string environment(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

bool concerns(const std::string& path) {
    const std::string file = environment("FAULT_FILE");
    return !file.empty() && path.starts_with(file);
}

bool concerns(int fd) {
    char path[4096] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof path - 1) > 0 && concerns(path);
}

template <class F>
F next(F, const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void vanish() {
    raise(SIGKILL);
    abort();
}

/// Whether this call goes wrong.
bool is_due() {
    ++calls;
    if (const std::string name = environment("FAULT_COUNT"); !name.empty()) {
        FILE* file = fopen(name.c_str(), "w");
        fprintf(file, "%d", calls);
        fclose(file);
    }
    return calls == atoi(environment("FAULT_AT").c_str());
}

/// False: the call is to fail.
bool may_go_on() {
    if (!is_due()) return true;
    if (environment("FAULT") == "kill") vanish();
    was_full = true;
    errno = ENOSPC;
    return false;
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* bytes, size_t count) {
    static const auto real = next(&write, "write");
    if (!concerns(fd)) return real(fd, bytes, count);
    if (!is_due()) return real(fd, bytes, count);
    real(fd, bytes, count / 2);
    if (environment("FAULT") == "kill") vanish();
    was_full = true;
    errno = ENOSPC;
    return -1;
}

int fsync(int fd) {
    static const auto real = next(&fsync, "fsync");
    return !concerns(fd) || may_go_on() ? real(fd) : -1;
}

int rename(const char* from, const char* to) noexcept {
    static const auto real = next(&rename, "rename");
    return !concerns(from) || may_go_on() ? real(from, to) : -1;
}

int link(const char* from, const char* to) noexcept {
    static const auto real = next(&link, "link");
    return !concerns(from) || may_go_on() ? real(from, to) : -1;
}

int unlink(const char* name) noexcept {
    static const auto real = next(&unlink, "unlink");
    return !concerns(name) || may_go_on() ? real(name) : -1;
}

int open(const char* name, int flags, ...) {
    static const auto real = next(&open, "open");
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    if (was_full && concerns(name) && std::string(name).ends_with(".new")) vanish();
    return real(name, flags, mode);
}

}  // extern "C"
