#include "lib/corelibs/qas/files/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

// The kernel moves at most a little less than 2 GiB a call; smaller pieces also keep an interrupted run's loss small.
constexpr std::int64_t max_call = std::int64_t{64} << 20;

std::string identity(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) return {};
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

}  // namespace

void Descriptor::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

bool Descriptor::close() {
    const int fd = release();
    return fd < 0 || ::close(fd) == 0 || errno == EINTR;  // interrupted, it is closed all the same
}

int file(const std::string& name, int mode) {
    if (mode == 0) {
        const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) qaserr("file() can't open file %s\n", name.c_str());
        return fd;
    }
    if (mode == 2) {
        const int fd = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
        if (fd >= 0) return fd;
    }
    const int created = ::creat(name.c_str(), 0664);
    if (created < 0) qaserr("file() can't create file %s\n", name.c_str());
    if (::close(created) < 0) qaserr("file() unable to close file %s\n", name.c_str());
    const int fd = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) qaserr("file() unable to open file %s\n", name.c_str());
    return fd;
}

bool isapipe(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

bool fdordinary(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

std::int64_t fsize(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

bool is_special_file(const std::string& name) {
    struct stat status;
    return ::stat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool sync_file(int fd) {
    if (!fdordinary(fd)) return true;
    if (::fsync(fd) != 0 && errno != EINVAL && errno != ENOTSUP) return false;
    return sync_name(findnm(fd));
}

bool sync_name(const std::string& name) {
    if (name.empty()) return true;
    // a file system that cannot sync a folder does it by itself
    const Descriptor folder(::open(name.substr(0, name.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.get() < 0 || ::fsync(folder.get()) == 0 || errno != EIO;
}

std::string findnm(int fd) {
    if (!fdordinary(fd)) return {};
    char name[PATH_MAX];
    const ssize_t length = ::readlink(strprintf("/proc/self/fd/%d", fd).c_str(), name, sizeof name);
    if (length <= 0 || length == static_cast<ssize_t>(sizeof name)) return {};
    const std::string found(name, static_cast<std::size_t>(length));
    return file_identity(found) == file_identity(fd) ? found : std::string();  // removed files read "name (deleted)"
}

std::string file_identity(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 ? identity(status) : std::string();
}

std::string file_identity(const std::string& name) {
    struct stat status;
    return ::stat(name.c_str(), &status) == 0 ? identity(status) : std::string();
}

std::int64_t read_fully(int fd, void* buffer, std::int64_t nbytes) {
    char* to = static_cast<char*>(buffer);
    std::int64_t total = 0;
    while (total < nbytes) {
        const ssize_t got = ::read(fd, to + total, static_cast<std::size_t>(std::min(nbytes - total, max_call)));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        total += got;
    }
    return total;
}

std::int64_t write_fully(int fd, const void* buffer, std::int64_t nbytes, std::int64_t& done) {
    const char* from = static_cast<const char*>(buffer);
    done = 0;
    while (done < nbytes) {
        const ssize_t put = ::write(fd, from + done, static_cast<std::size_t>(std::min(nbytes - done, max_call)));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return -1;
        if (put == 0) break;
        done += put;
    }
    return done;
}

}  // namespace qas
