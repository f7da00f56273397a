#include "lib/corelibs/qas/records/header_text.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

void history_error(Layer& layer, const streaminf& stream, const char* label) {
    const int reason = errno;
    layer.notes.perror(label);
    qaserr("I/O error writing output history\n  %s: %s\n", header_place(stream).c_str(), std::strerror(reason));
}

/// Where the next text goes in an ordinary file; -1 in anything else.
std::int64_t next_text(std::FILE* file) {
    const int fd = ::fileno(file);
    if (std::fflush(file) != 0 || !fdordinary(fd)) return -1;
    return (::fcntl(fd, F_GETFL) & O_APPEND) ? fsize(fd) : ::ftello(file);
}

/// Takes back the part of a text that reached an ordinary file before its write failed: half a line would be read as
/// another value. Nothing is cut off if somebody else has written behind it.
void take_back(std::FILE* file, std::int64_t begin) {
    ::__fpurge(file);
    std::clearerr(file);
    const int fd = ::fileno(file);
    const std::int64_t end = begin < 0 ? -1 : ::lseek(fd, 0, SEEK_CUR);
    if (end > begin && fsize(fd) == end && ::ftruncate(fd, begin) == 0) std::fseek(file, begin, SEEK_SET);
}

/// Whether the header is a file that ends where this record last wrote, and can be rewritten from there.
bool ends_with_our_text(const streaminf& stream) {
    if (!stream.headfile || std::fflush(stream.headfile) != 0) return false;
    const int fd = ::fileno(stream.headfile);
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && !(flags & O_APPEND) && stream.text_end >= 0 && fsize(fd) == stream.text_end &&
           ::ftello(stream.headfile) == stream.text_end;
}

}  // namespace

bool header_open(const streaminf& stream) {
    return stream.headfile || stream.listener.get() >= 0;
}

void write_header_text(Layer& layer, streaminf& stream, std::string_view text, const char* label) {
    if (stream.held || (!stream.headfile && stream.listener.get() >= 0)) {
        stream.pending += text;
        return;
    }
    const std::int64_t begin = next_text(stream.headfile);
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stream.headfile) != text.size() || std::fflush(stream.headfile) != 0) {
        const int reason = errno;
        take_back(stream.headfile, begin);
        errno = reason;
        history_error(layer, stream, label);
    }
    stream.tail += text;
    if (stream.tail.size() > header_look_back) stream.tail.erase(0, stream.tail.size() - header_look_back);
    stream.text_end = ::ftello(stream.headfile);
}

bool replace_last_line(Layer& layer, streaminf& stream, std::string_view start, std::string_view line) {
    std::size_t last = stream.tail.size();
    if (last > 0) last = last < 2 ? 0 : stream.tail.rfind('\n', last - 2) + 1;
    const bool again = stream.tail.compare(last, start.size(), start) == 0 && stream.tail.ends_with('\n');
    if (!again || stream.held || !ends_with_our_text(stream)) return false;
    const std::string old = stream.tail.substr(last);
    const std::int64_t begin = stream.text_end - std::ssize(old);
    stream.tail.erase(last);
    std::fseek(stream.headfile, begin, SEEK_SET);
    try {
        write_header_text(layer, stream, line, "putch");
    } catch (const Fatal&) {  // its place is on the disk already
        std::fseek(stream.headfile, begin, SEEK_SET);
        std::fwrite(old.data(), 1, old.size(), stream.headfile);
        std::fflush(stream.headfile);
        throw;
    }
    if (line.size() < old.size() && ::ftruncate(::fileno(stream.headfile), std::ftell(stream.headfile)) < 0)
        history_error(layer, stream, "putch");
    return true;
}

}  // namespace qas
