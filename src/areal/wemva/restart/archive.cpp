#include "src/areal/wemva/restart/archive.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace morvane {

namespace {

constexpr std::string_view first_line = "morvane checkpoint, format 1\n";
constexpr std::size_t block = std::size_t{1} << 16;
constexpr std::size_t last_line = sizeof("checksum 01234567\n") - 1;

std::uint32_t add(std::uint32_t checksum, const void* bytes, std::size_t count) {
    return static_cast<std::uint32_t>(::crc32_z(checksum, static_cast<const Bytef*>(bytes), count));
}

std::string checksum_line(std::uint32_t checksum) {
    char text[last_line + 1];
    std::snprintf(text, sizeof text, "checksum %08x\n", checksum);
    return text;
}

}  // namespace

ArchiveWriter::ArchiveWriter(int fd) : fd_(fd) {
    put(first_line.data(), first_line.size());
}

void ArchiveWriter::put(const void* bytes, std::size_t count) {
    if (count == 0) return;
    checksum_ = add(checksum_, bytes, count);
    const char* const first = static_cast<const char*>(bytes);
    if (waiting_.size() + count > block) flush();
    if (count > block)
        write(bytes, count);
    else
        waiting_.insert(waiting_.end(), first, first + count);
}

void ArchiveWriter::flush() {
    write(waiting_.data(), waiting_.size());
    waiting_.clear();
}

void ArchiveWriter::write(const void* bytes, std::size_t count) {
    if (error_ != 0 || count == 0) return;
    std::int64_t done = 0;
    const auto wanted = static_cast<std::int64_t>(count);
    errno = 0;
    if (qas::write_fully(fd_, bytes, wanted, done) != wanted) error_ = errno != 0 ? errno : ENOSPC;
}

std::size_t ArchiveWriter::length(std::string_view, std::size_t own) {
    return own;
}

void ArchiveWriter::section(std::string_view name, std::span<std::byte> bytes) {
    const std::string line = std::string(name) + " " + std::to_string(bytes.size()) + "\n";
    put(line.data(), line.size());
    put(bytes.data(), bytes.size());
}

bool ArchiveWriter::finish() {
    const std::string line = checksum_line(checksum_);
    put(line.data(), line.size());
    flush();
    errno = error_;
    return error_ == 0;
}

ArchiveReader::ArchiveReader(const std::string& name)
    : name_(name), fd_(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (fd_.get() < 0) throw ArchiveError{std::string("cannot be opened: ") + std::strerror(errno)};
    const std::int64_t size = qas::fsize(fd_.get());
    std::vector<char> block(std::size_t{1} << 20);
    const auto read = [&](std::int64_t count) {
        if (qas::read_fully(fd_.get(), block.data(), count) != count)
            throw ArchiveError{"cannot be read: " + std::string(std::strerror(errno))};
        return std::string_view(block.data(), static_cast<std::size_t>(count));
    };
    const auto first = static_cast<std::int64_t>(first_line.size()), last = static_cast<std::int64_t>(last_line);
    if (size < first || read(first) != first_line) throw ArchiveError{"is no checkpoint of this program"};
    std::uint32_t checksum = add(0, first_line.data(), first_line.size());
    position_ = first;
    end_ = size - last;
    if (end_ < first) throw ArchiveError{"is incomplete"};
    for (std::int64_t at = first; at < end_;) {
        const std::string_view part = read(std::min<std::int64_t>(end_ - at, std::ssize(block)));
        checksum = add(checksum, part.data(), part.size());
        at += std::ssize(part);
    }
    if (read(last) != checksum_line(checksum)) throw ArchiveError{"is incomplete or damaged"};
    ::lseek(fd_.get(), position_, SEEK_SET);
}

std::string ArchiveReader::line() {
    std::string text;
    for (char c = 0; position_ < end_;) {
        if (qas::read_fully(fd_.get(), &c, 1) != 1) break;
        ++position_;
        if (c == '\n') return text;
        text += c;
    }
    throw ArchiveError{"ends too early"};
}

ArchiveReader::Section ArchiveReader::next() {
    const std::string text = line();
    const std::size_t blank = text.rfind(' ');
    std::size_t bytes = 0;
    const auto [rest, error] =
        std::from_chars(text.data() + std::min(blank + 1, text.size()), text.data() + text.size(), bytes);
    if (blank == std::string::npos || error != std::errc() || rest != text.data() + text.size() ||
        bytes > static_cast<std::size_t>(end_ - position_))
        throw ArchiveError{"has a section that is none: \"" + text.substr(0, 60) + "\""};
    return {text.substr(0, blank), bytes};
}

std::size_t ArchiveReader::length(std::string_view name, std::size_t) {
    const std::int64_t here = position_;
    const Section found = next();
    if (found.name != name)
        throw ArchiveError{"has section \"" + found.name + "\" where \"" + std::string(name) + "\" is needed"};
    position_ = here;
    ::lseek(fd_.get(), here, SEEK_SET);
    return found.bytes;
}

void ArchiveReader::section(std::string_view name, std::span<std::byte> bytes) {
    const std::size_t kept = length(name, 0);
    if (kept != bytes.size())
        throw ArchiveError{"has " + std::to_string(kept) + " bytes of \"" + std::string(name) + "\" where " +
                           std::to_string(bytes.size()) + " are needed"};
    next();
    if (qas::read_fully(fd_.get(), bytes.data(), std::ssize(bytes)) != std::ssize(bytes))
        throw ArchiveError{"cannot be read: " + std::string(std::strerror(errno))};
    position_ += std::ssize(bytes);
}

}  // namespace morvane
