#include "lib/corelibs/qas/files/plain_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/corelibs/qas/files/locks.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {

void PlainOutput::refuse(const char* what) const {
    qaserr("%s: cannot %s this file: %s\n", file_.label.c_str(), what, std::strerror(errno));
}

PlainOutput::PlainOutput(PlainFile file, int patience_ms) : file_(std::move(file)) {
    made_ = ::faccessat(AT_FDCWD, file_.name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    std::string holder;
    fd_ = open_locked(file_.name, O_WRONLY | O_CREAT, patience_ms, holder);
    if (fd_.get() < 0) refuse("create");
    if (!holder.empty())
        qaserr("%s is being written by %s: wait for its end, or %s\n", file_.label.c_str(), holder.c_str(),
               file_.cure.c_str());
    if (!file_.replaced) return;
    begun_ = true;
    fd_ = replacement_.begin(std::move(fd_), made_);
    if (fd_.get() < 0) refuse("create");
}

PlainOutput::~PlainOutput() {
    if (fd_.get() >= 0 && made_ && !begun_) ::unlink(file_.name.c_str());
}

void PlainOutput::begin() {
    begun_ = true;
    if (fdordinary(fd_.get()) && ::ftruncate(fd_.get(), 0) < 0) refuse("empty");
}

void PlainOutput::resume(std::int64_t bytes) {
    const std::int64_t size = fsize(fd_.get());
    if (size < bytes)
        qaserr("%s: holds %lld bytes, and held %lld before\n", file_.label.c_str(), static_cast<long long>(size),
               static_cast<long long>(bytes));
    begun_ = true;
    size_ = bytes;
    if (::ftruncate(fd_.get(), bytes) < 0 || ::lseek(fd_.get(), bytes, SEEK_SET) != bytes) refuse("cut back");
}

std::int64_t PlainOutput::sync() {
    if (fd_.get() < 0) return 0;
    if (!sync_file(fd_.get())) refuse("put on the disk");
    return fsize(fd_.get());
}

void PlainOutput::write(std::string_view text) {
    if (!begun_) begin();
    std::int64_t done = 0;
    if (write_fully(fd_.get(), text.data(), std::ssize(text), done) != std::ssize(text)) {
        const int reason = errno;
        if (fdordinary(fd_.get()) && ::ftruncate(fd_.get(), size_) == 0) ::lseek(fd_.get(), size_, SEEK_SET);
        errno = reason;
        refuse("write to");
    }
    size_ += done;
}

void PlainOutput::finish() {
    if (!sync_file(fd_.get()) || !fd_.close() || !replacement_.commit()) refuse("finish");
}

}  // namespace qas
