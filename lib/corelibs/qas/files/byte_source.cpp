#include "lib/corelibs/qas/files/byte_source.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qas {
namespace {

constexpr std::size_t read_ahead = 65536;

ssize_t read_some(int fd, void* target, std::size_t nbytes) {
    for (;;) {
        const ssize_t got = ::read(fd, target, nbytes);
        if (got >= 0 || errno != EINTR) return got;
    }
}

}  // namespace

ByteSource ByteSource::borrow(int fd) {
    ByteSource source;
    source.fd_ = fd;
    return source;
}

ByteSource ByteSource::own(int fd) {
    ByteSource source = borrow(fd);
    source.owned_.reset(fd);
    return source;
}

void ByteSource::close() {
    owned_.reset();
    fd_ = -1;
    at_ = end_ = 0;
}

bool ByteSource::fill(const std::function<void()>& waiting, int patience_ms) {
    buffer_.resize(read_ahead);
    if (waiting) {
        pollfd poll_fd{fd_, POLLIN, 0};
        if (::poll(&poll_fd, 1, patience_ms) == 0) waiting();
    }
    const ssize_t got = read_some(fd_, buffer_.data(), buffer_.size());
    at_ = 0;
    end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    if (got >= 0) errno = 0;
    return got > 0;
}

bool ByteSource::read_header(std::string& text, std::size_t most, bool& too_long, const std::function<void()>& waiting,
                             int patience_ms) {
    const bool may_wait = waiting && !fdordinary(fd_) && !::isatty(fd_);
    bool said = false;
    const std::function<void()> once = [&] {
        said = true;
        waiting();
    };
    too_long = false;
    errno = 0;
    for (;;) {
        if (at_ == end_ && !fill(may_wait && !said ? once : nullptr, patience_ms)) return false;
        const char* begin = buffer_.data() + at_;
        const char* mark = static_cast<const char*>(std::memchr(begin, 4, end_ - at_));
        const std::size_t length = mark ? static_cast<std::size_t>(mark - begin) : end_ - at_;
        if (length > most - text.size()) {
            too_long = true;
            return false;
        }
        text.append(begin, length);
        const std::size_t used = length + (mark ? 1 : 0);
        at_ += used;
        if (mark) return true;
    }
}

std::int64_t ByteSource::read(void* target, std::int64_t nbytes) {
    char* to = static_cast<char*>(target);
    std::int64_t total = 0;
    while (total < nbytes) {
        const std::int64_t wanted = nbytes - total;
        if (at_ < end_) {
            const std::int64_t ready = std::min(wanted, static_cast<std::int64_t>(end_ - at_));
            std::memcpy(to + total, buffer_.data() + at_, static_cast<std::size_t>(ready));
            at_ += static_cast<std::size_t>(ready);
            total += ready;
            continue;
        }
        const ssize_t got = read_some(fd_, to + total, static_cast<std::size_t>(wanted));
        if (got < 0) return -1;
        if (got == 0) break;
        total += got;
    }
    return total;
}

std::int64_t ByteSource::settle() {
    const std::int64_t back = static_cast<std::int64_t>(end_ - at_);
    at_ = end_ = 0;
    return ::lseek(fd_, -back, SEEK_CUR);
}

}  // namespace qas
