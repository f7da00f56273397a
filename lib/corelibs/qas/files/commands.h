#pragma once
/// Shell commands at the other end of a pipe.
#include <sys/types.h>

#include <string>

#include "lib/corelibs/qas/files/files.h"

namespace qas {

/// Starts `command` with /bin/sh; `reading` true: its standard output is read from `fd`, else `fd` feeds its standard
/// input. Returns its process number; 0 with errno set if it could not be started. No other descriptor is handed on.
pid_t start_command(const std::string& command, bool reading, Descriptor& fd);

/// Takes note of the end of a command: waits for one that was written to, so that what it makes of the data is
/// complete; one that was read from is left to itself. False if the command failed.
bool finish_command(pid_t pid, bool reading);

}  // namespace qas
