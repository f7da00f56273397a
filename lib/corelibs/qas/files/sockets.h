#pragma once
/// Stream sockets, of the internet or of the Unix domain, and short texts on them.
#include <csignal>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/notes.h"

namespace qas {

/// A listening socket; empty with errno set on failure. TCP: bound to `address`, a service "0" takes a free port and
/// its number comes back in `service`. Unix domain: `service` is a path, which must not exist yet.
Descriptor opensock1(std::string& service, bool unix_domain, const std::string& address);

/// Connects to a service of a host; the host "unix" means the path `service`. The name of this machine is tried on the
/// loopback address first. Empty, after a message, when nobody answers there.
/// Errors: an unknown host and a machine without sockets end the run with status 2 and 1 (Exit).
Descriptor opensock2(const std::string& host, const std::string& service, Notes& notes);

/// While it lives a SIGALRM sent to this process ends the wait of socklisten instead of the process. To be made before
/// anybody can know whom to signal. One at a time.
class AlarmWake {
    Descriptor wake_, alarm_;
    struct sigaction before_ {};

public:
    AlarmWake();
    ~AlarmWake();
    AlarmWake(const AlarmWake&) = delete;
    AlarmWake& operator=(const AlarmWake&) = delete;
    /// Readable once the signal has come.
    int fd() const { return wake_.get(); }
};

/// Accepts one connection, within `seconds` if that is 1 or more. Empty on a timeout, or when `alarm`, if there is one,
/// goes off.
Descriptor socklisten(int listener, int seconds, const AlarmWake* alarm);

/// Sends a text with its terminating zero; false if it cannot be sent whole.
bool strput(int fd, std::string_view text);
/// Receives `count` bytes, the terminating zero included; returns the text before it, or what came within 30 seconds.
std::string strget(int fd, std::size_t count);

}  // namespace qas
