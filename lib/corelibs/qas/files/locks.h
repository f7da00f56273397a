#pragma once
/// Advisory locks on what a program writes, so that no two of them write the same file. A lock goes with the descriptor
/// it was taken on, and so with the process at the latest.
#include <string>

#include "lib/corelibs/qas/files/files.h"

namespace qas {

/// Takes the lock of an ordinary file open for writing, and waits for it up to `patience_ms`. Returns who holds it,
/// "process 4711 on host7", or nothing if the lock was taken or there is none to take: no ordinary file, or a file
/// system without locks.
std::string lock_file(int fd, int patience_ms);

/// Opens `name` with `flags` and takes its lock; what the file holds stays. If another program puts a new file into its
/// place meanwhile, that one is taken. `holder` is what lock_file returned. Empty, errno set, if it cannot be opened.
Descriptor open_locked(const std::string& name, int flags, int patience_ms, std::string& holder);

}  // namespace qas
