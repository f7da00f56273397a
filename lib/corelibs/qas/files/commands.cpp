#include "lib/corelibs/qas/files/commands.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace qas {

pid_t start_command(const std::string& command, bool reading, Descriptor& fd) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) return 0;
    Descriptor ours(ends[reading ? 0 : 1]), theirs(ends[reading ? 1 : 0]);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), reading ? STDOUT_FILENO : STDIN_FILENO);
    sigset_t defaults;
    ::sigemptyset(&defaults);
    ::sigaddset(&defaults, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    char shell[] = "sh", option[] = "-c";
    std::string text = command;
    char* const argv[] = {shell, option, text.data(), nullptr};
    pid_t pid = 0;
    const int failure = ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv, environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        errno = failure;
        return 0;
    }
    fd = std::move(ours);
    return pid;
}

bool finish_command(pid_t pid, bool reading) {
    int status = 0;
    while (::waitpid(pid, &status, reading ? WNOHANG : 0) < 0 && errno == EINTR) {
    }
    return status == 0;
}

}  // namespace qas
