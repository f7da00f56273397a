#include "lib/corelibs/qas/files/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

constexpr int backlog = 5;
constexpr timeval patience{30, 0};

struct FreeAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses find_addresses(const std::string& host, const std::string& service, int flags) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = flags;
    addrinfo* list = nullptr;
    if (::getaddrinfo(host.c_str(), service.c_str(), &wanted, &list) != 0) return nullptr;
    return Addresses(list);
}

bool unix_address(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

Descriptor stream_socket(int domain, Notes& notes) {
    Descriptor fd(::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        notes.perror("opening stream socket ");
        throw Exit(1);
    }
    return fd;
}

Descriptor connect_to(const sockaddr* address, socklen_t length, int domain, Notes& notes) {
    Descriptor fd = stream_socket(domain, notes);
    if (::connect(fd.get(), address, length) < 0) fd.reset();
    return fd;
}

// The handler runs on whichever thread the kernel picks and wakes the waiting one through this pipe; a handler can be
// handed nothing else.
std::atomic<int> alarm_pipe_end{-1};

void on_alarm(int) {
    const int saved = errno;
    [[maybe_unused]] const ssize_t put = ::write(alarm_pipe_end.load(), "!", 1);
    errno = saved;
}

}  // namespace

Descriptor opensock1(std::string& service, bool unix_domain, const std::string& address) {
    Descriptor fd(::socket(unix_domain ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return fd;
    constexpr linger at_once{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    bool bound = false;
    if (unix_domain) {
        sockaddr_un path;
        bound =
            unix_address(service, path) && ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&path), sizeof path) == 0;
    } else {
        const Addresses list = find_addresses(address, service, AI_PASSIVE);
        errno = EADDRNOTAVAIL;
        bound = list && ::bind(fd.get(), list->ai_addr, list->ai_addrlen) == 0;
    }
    if (!bound || ::listen(fd.get(), backlog) < 0) {
        const int reason = errno;
        fd.reset();
        errno = reason;
        return fd;
    }
    if (!unix_domain && service == "0") {
        sockaddr_in taken{};
        socklen_t length = sizeof taken;
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&taken), &length);
        service = std::to_string(ntohs(taken.sin_port));
    }
    return fd;
}

Descriptor opensock2(const std::string& host, const std::string& service, Notes& notes) {
    Descriptor fd;
    if (host == "unix") {
        sockaddr_un path;
        if (unix_address(service, path))
            fd = connect_to(reinterpret_cast<const sockaddr*>(&path), sizeof path, AF_UNIX, notes);
    } else {
        if (host == host_name())
            if (const Addresses list = find_addresses("127.0.0.1", service, 0))
                fd = connect_to(list->ai_addr, list->ai_addrlen, AF_INET, notes);
        if (fd.get() < 0) {
            const Addresses list = find_addresses(host, service, 0);
            if (!list) {
                notes.warn(host + ": unknown host\n ");
                throw Exit(2);
            }
            fd = connect_to(list->ai_addr, list->ai_addrlen, AF_INET, notes);
        }
    }
    if (fd.get() < 0) notes.warn(" server not responding on " + host + " \n");
    return fd;
}

AlarmWake::AlarmWake() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
        wake_.reset(ends[0]);
        alarm_.reset(ends[1]);
    }
    alarm_pipe_end.store(alarm_.get());
    struct sigaction action {};
    action.sa_handler = on_alarm;
    ::sigaction(SIGALRM, &action, &before_);
}

AlarmWake::~AlarmWake() {
    ::sigaction(SIGALRM, &before_, nullptr);
}

Descriptor socklisten(int listener, int seconds, const AlarmWake* alarm) {
    pollfd watched[2] = {{listener, POLLIN, 0}, {alarm ? alarm->fd() : -1, POLLIN, 0}};
    const int wait_ms = seconds < 1 ? -1 : seconds > INT_MAX / 1000 ? INT_MAX : seconds * 1000;
    int ready;
    do {
        ready = ::poll(watched, 2, wait_ms);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0 || !(watched[0].revents & POLLIN)) return Descriptor();
    Descriptor fd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    constexpr linger deliver{0, 0};  // inherited from the listener, closing would drop the data still on their way
    if (fd.get() >= 0) ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &deliver, sizeof deliver);
    return fd;
}

bool strput(int fd, std::string_view text) {
    const std::string bytes = std::string(text) + '\0';
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t put = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

std::string strget(int fd, std::size_t count) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string bytes(count, '\0');
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = ::recv(fd, bytes.data() + done, count - done, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
    if (bytes.ends_with('\0')) bytes.pop_back();
    return bytes;
}

}  // namespace qas
