#pragma once
/// What a program keeps to go on later: named sections of bytes, written and read back by the same calls in the same
/// order.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "lib/base/array.h"
#include "lib/corelibs/qas/files/files.h"

namespace morvane {

/// Why an archive cannot be used: "is incomplete".
struct ArchiveError {
    std::string reason;
};

/// One direction of it. The values handed over are kept by a writer, and replaced by a reader.
class Archive {
public:
    virtual ~Archive() = default;
    virtual bool reads() const = 0;

    template <class T>
    void value(std::string_view name, T& value) {
        static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
        section(name, std::as_writable_bytes(std::span(&value, 1)));
    }
    /// Of a length that both sides know.
    template <class T>
    void values(std::string_view name, std::span<T> values) {
        static_assert(std::is_trivially_copyable_v<T>);
        section(name, std::as_writable_bytes(values));
    }
    template <class T, std::size_t N>
    void values(std::string_view name, Array<T, N>& array) {
        values(name, array.flat());
    }
    /// Of a length that is kept too.
    template <class Sequence>
    void sequence(std::string_view name, Sequence& values) {
        values.resize(length(name, values.size() * sizeof(values[0])) / sizeof(values[0]));
        section(name, std::as_writable_bytes(std::span(values.data(), values.size())));
    }

private:
    /// Bytes of the section that comes next: `own` when writing.
    virtual std::size_t length(std::string_view name, std::size_t own) = 0;
    virtual void section(std::string_view name, std::span<std::byte> bytes) = 0;
};

/// Appends to an open file, in blocks. Nothing of it throws; finish() tells how it went.
class ArchiveWriter : public Archive {
    int fd_;
    std::uint32_t checksum_ = 0;
    int error_ = 0;
    std::vector<char> waiting_;

    void put(const void* bytes, std::size_t count);
    void write(const void* bytes, std::size_t count);
    void flush();
    std::size_t length(std::string_view name, std::size_t own) override;
    void section(std::string_view name, std::span<std::byte> bytes) override;

public:
    /// @param fd open for writing, empty; writes the first line, which names format and version
    explicit ArchiveWriter(int fd);
    bool reads() const override { return false; }
    /// Writes what waits and the checksum of everything before. False, errno set, if anything could not be written.
    bool finish();
};

/// Reads a file that finish() has completed.
class ArchiveReader : public Archive {
    std::string name_;
    qas::Descriptor fd_;
    std::int64_t position_ = 0, end_ = 0;

    struct Section {
        std::string name;
        std::size_t bytes;
    };
    Section next();
    std::string line();
    std::size_t length(std::string_view name, std::size_t own) override;
    void section(std::string_view name, std::span<std::byte> bytes) override;

public:
    /// Checks the whole file before anything of it is used.
    /// Errors (ArchiveError): it cannot be opened or read, is of another kind or format, incomplete or damaged.
    /// Reading throws the same where the sections are not those asked for.
    explicit ArchiveReader(const std::string& name);
    bool reads() const override { return true; }
};

}  // namespace morvane
