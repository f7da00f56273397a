#include "lib/corelibs/qas/files/locks.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/messages/notes.h"

namespace qas {
namespace {

// A lock tells nothing of its owner but the bytes it covers. They begin far behind any data; their number is that of
// the process and, above it, a hash of its host's name. All of them share the first byte, so that any two exclude one
// another, on network file systems too.
constexpr off_t first_byte = off_t{1} << 62;
constexpr int process_bits = 24;

off_t host_hash() {
    std::uint32_t hash = 2166136261U;  // FNV-1a
    for (const char c : host_name()) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    return hash;
}

struct flock own_lock() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = first_byte;
    lock.l_len = (host_hash() << process_bits) + ::getpid();
    return lock;
}

/// Who holds a lock.
std::string holder_of(const struct flock& lock) {
    if (lock.l_start != first_byte)  // some other program's
        return lock.l_pid > 0 ? strprintf("process %d", static_cast<int>(lock.l_pid)) : "another process";
    const off_t process = lock.l_len & ((off_t{1} << process_bits) - 1);
    const bool here = lock.l_len >> process_bits == host_hash();
    return strprintf("process %lld on %s", static_cast<long long>(process),
                     here ? host_name().c_str() : "another host");
}

}  // namespace

std::string lock_file(int fd, int patience_ms) {
    using namespace std::chrono;
    const auto end = steady_clock::now() + milliseconds(patience_ms);
    while (fdordinary(fd)) {
        struct flock lock = own_lock();
        if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) break;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EACCES) break;
        if (::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK) continue;  // it has just ended
        if (steady_clock::now() >= end) return holder_of(lock);
        std::this_thread::sleep_for(milliseconds(2));
    }
    return {};
}

Descriptor open_locked(const std::string& name, int flags, int patience_ms, std::string& holder) {
    for (;;) {
        Descriptor fd(::open(name.c_str(), flags | O_CLOEXEC, 0666));
        holder = fd.get() < 0 ? std::string() : lock_file(fd.get(), patience_ms);
        if (fd.get() < 0 || !holder.empty() || !fdordinary(fd.get())) return fd;
        if (file_identity(name) == file_identity(fd.get())) return fd;
    }
}

}  // namespace qas
