#pragma once
/// Keeps a standard stream silent for a while.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace morvane {

/// A standard stream to which the wavefield routines report their progress; silent while this lives. For one thread.
class Muted {
    std::FILE* stream_;
    int kept_;

public:
    explicit Muted(std::FILE* stream) : stream_(stream), kept_(-1) {
        std::fflush(stream_);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere < 0) return;
        kept_ = fcntl(fileno(stream_), F_DUPFD_CLOEXEC, 0);
        if (kept_ >= 0) dup2(nowhere, fileno(stream_));
        close(nowhere);
    }
    ~Muted() {
        if (kept_ < 0) return;
        std::fflush(stream_);
        dup2(kept_, fileno(stream_));
        close(kept_);
    }
    Muted(const Muted&) = delete;
    Muted& operator=(const Muted&) = delete;
};

}  // namespace morvane
