#pragma once
/// Descriptors and what can be asked of them.
#include <cstdint>
#include <string>

namespace qas {

/// Owns a file descriptor; -1 is none.
class Descriptor {
    int fd_ = -1;

public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1);
    /// As reset(), with the error of the call: false, errno set.
    bool close();
};

/// Opens `name`: mode 0 for reading, 2 for reading and writing (created if that fails), 1 created anew for reading and
/// writing. The caller closes it. Errors: "file() can't open file %s\n", "file() can't create file %s\n" and kin.
int file(const std::string& name, int mode);

/// True for a pipe, a FIFO or a socket.
bool isapipe(int fd);
/// True for an ordinary file.
bool fdordinary(int fd);
/// Size in bytes of an ordinary file; -1 for anything else.
std::int64_t fsize(int fd);
/// True if `name` exists and is something else than an ordinary file: opening or reading it may wait for ever.
bool is_special_file(const std::string& name);
/// Puts what was written to an ordinary file, and its name in its folder, on the disk. Anything else has no disk: done.
/// False, errno set, if that fails.
bool sync_file(int fd);
/// The same for the name of a file alone.
bool sync_name(const std::string& name);
/// Absolute name of the ordinary file open on `fd`; empty if it has none.
std::string findnm(int fd);
/// "device:inode" of an ordinary file by descriptor or by name; empty for anything else. Two names of one file agree.
std::string file_identity(int fd);
std::string file_identity(const std::string& name);

/// Moves bytes on a descriptor until the count is reached, the data end, or an error (-1, errno set; `done` then holds
/// what was moved before).
std::int64_t read_fully(int fd, void* buffer, std::int64_t nbytes);
std::int64_t write_fully(int fd, const void* buffer, std::int64_t nbytes, std::int64_t& done);

}  // namespace qas
