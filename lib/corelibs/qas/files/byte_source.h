#pragma once
/// An input stream that holds a header and perhaps data behind it: a descriptor with read-ahead.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lib/corelibs/qas/files/files.h"

namespace qas {

class ByteSource {
    int fd_ = -1;
    Descriptor owned_;
    std::vector<char> buffer_;
    std::size_t at_ = 0, end_ = 0;

    /// Refills the empty buffer; false at the end. `waiting`, if given, is called after `patience_ms` without a byte.
    bool fill(const std::function<void()>& waiting, int patience_ms);

public:
    ByteSource() = default;
    /// Reads from `fd`, which somebody else closes.
    static ByteSource borrow(int fd);
    /// Reads from `fd` and closes it in the end.
    static ByteSource own(int fd);

    int fd() const { return fd_; }
    bool open() const { return fd_ >= 0; }
    void close();

    /// Appends bytes to `text` up to the byte 4, which is taken but not stored, or the end of the stream.
    /// Returns true if the byte 4 was met. Stops, with `too_long` set, once `text` would exceed `most` bytes.
    /// `waiting` is called once when a stream that is neither file nor terminal keeps silent for `patience_ms`.
    /// Returns false with errno set on a read error; errno is 0 otherwise.
    bool read_header(std::string& text, std::size_t most, bool& too_long, const std::function<void()>& waiting,
                     int patience_ms);

    /// Moves up to `nbytes`; fewer at the end of the stream only; -1 with errno set on a read error.
    std::int64_t read(void* target, std::int64_t nbytes);

    /// For an ordinary file: gives up the read-ahead and puts the descriptor's position behind the last byte handed
    /// out. Returns that position, -1 with errno set on failure.
    std::int64_t settle();
};

}  // namespace qas
