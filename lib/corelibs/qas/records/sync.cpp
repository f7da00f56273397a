#include "lib/corelibs/qas/records/sync.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/records/header_address.h"
#include "lib/corelibs/qas/records/header_text.h"

namespace qas {
namespace {

constexpr std::size_t digits = 9;
constexpr std::size_t look_back = 300;
constexpr std::string_view pipe_word = "PIPE";

std::string link_text(const std::string& link) {
    char text[PATH_MAX];
    const ssize_t length = ::readlink(link.c_str(), text, sizeof text);
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

/// Whether a process has the descriptor open for writing, by the octal flags of its fdinfo.
bool writes(const std::string& fdinfo) {
    std::ifstream stream(fdinfo);
    for (std::string word; stream >> word;)
        if (word == "flags:" && stream >> word) return (std::strtol(word.c_str(), nullptr, 8) & O_ACCMODE) != O_RDONLY;
    return false;
}

/// Whether `process` holds the writing end of the pipe `fd`, or is the peer of the Unix-domain socket `fd`.
bool is_writer(int fd, int process) {
    struct stat status;
    if (process < 1 || ::fstat(fd, &status) < 0) return false;
    if (S_ISSOCK(status.st_mode)) {
        ucred peer{};
        socklen_t length = sizeof peer;
        return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid == process;
    }
    if (!S_ISFIFO(status.st_mode)) return false;
    const std::string pipe = link_text(strprintf("/proc/self/fd/%d", fd));
    const std::string folder = strprintf("/proc/%d/", process);
    const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir((folder + "fd").c_str()), ::closedir);
    if (!list || pipe.empty()) return false;
    while (const dirent* entry = ::readdir(list.get()))
        if (link_text(folder + "fd/" + entry->d_name) == pipe && writes(folder + "fdinfo/" + entry->d_name))
            return true;
    return false;
}

/// Whether the two ends of a TCP socket are on this machine.
bool is_local_tcp(int fd) {
    sockaddr_storage ours{}, theirs{};
    socklen_t our_length = sizeof ours, their_length = sizeof theirs;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&ours), &our_length) == 0 &&
           ::getpeername(fd, reinterpret_cast<sockaddr*>(&theirs), &their_length) == 0 && ours.ss_family == AF_INET &&
           reinterpret_cast<const sockaddr_in&>(ours).sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in&>(theirs).sin_addr.s_addr;
}

/// Whether to answer at the address in a mark: the writer of this stream asks for it, on this machine; other machines
/// only once the user opened the sockets to them.
bool may_answer(Layer& layer, int fd, const EndMark& mark) {
    if (!isapipe(fd) || mark.host == "unix") return false;
    const bool here = mark.host == host_name() || mark.host == "localhost" || mark.host == loopback;
    if (here && (is_writer(fd, mark.process) || is_local_tcp(fd))) return true;
    return listen_address(layer) != loopback;
}

void answer(Layer& layer, streaminf& stream, const EndMark& mark) {
    Descriptor fd = opensock2(mark.host, mark.service, layer.notes);
    if (fd.get() < 0) return;
    if (!strput(fd.get(), "GOTIT") || strget(fd.get(), 4) != "ACK") qaserr("syncin() sync err\n");
    stream.sockfd = std::move(fd);
}

}  // namespace

EndMark parse_end_mark(std::string_view header) {
    EndMark mark;
    mark.cut = header.size();
    if (header.ends_with("\f\f")) {
        mark.kind = EndMark::data_follow;
        mark.cut -= 2;
        return mark;
    }
    if (header.size() < digits + 1) return mark;
    const std::string_view tail = header.substr(header.size() - digits);
    const std::size_t blank = header.size() - digits - 1;
    if (header[blank] != ' ' || !std::all_of(tail.begin(), tail.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return mark;
    mark.process = std::atoi(std::string(tail).c_str());
    mark.kind = EndMark::number;
    mark.cut = blank;
    const std::size_t from = blank > look_back ? blank - look_back : 0;
    const std::size_t word = header.substr(from, blank - from).rfind(pipe_word);
    if (word == std::string_view::npos) return mark;
    mark.kind = EndMark::handshake;
    mark.cut = from + word;
    const std::string text(header.substr(mark.cut, blank - mark.cut));
    char host[look_back + 1] = "", service[look_back + 1] = "";
    if (std::sscanf(text.c_str(), "PIPE %300s %300s", host, service) == 2) {
        mark.host = host;
        mark.service = service;
    }
    return mark;
}

void syncin(Layer& layer, streaminf& stream) {
    std::string& text = *stream.headerbuf;
    const EndMark mark = parse_end_mark(text);
    text.resize(mark.cut);
    stream.hdrlen = text.size();
    const int fd = stream.header_source.fd();
    if (mark.kind == EndMark::number && is_writer(fd, mark.process)) ::kill(mark.process, SIGALRM);
    if (mark.kind == EndMark::handshake && !mark.service.empty() && may_answer(layer, fd, mark))
        answer(layer, stream, mark);
}

void syncout(Layer& layer, streaminf& stream) {
    if (!stream.isapipe || getch_integer(layer, "isoutstream", 0) != 0) {
        write_header_text(layer, stream, "\n\f\f\4", "qasstr_ready_out");
        return;
    }
    std::string service = "0";
    const Descriptor listener = opensock1(service, false, listen_address(layer));
    if (listener.get() < 0)
        qaserr("syncout(): pipe synch failed!\n  no socket on %s: %s\n", listen_address(layer).c_str(),
               std::strerror(errno));
    const std::string host = host_name();
    if (host.empty()) qaserr("syncout(): getting hostname\n");
    const AlarmWake alarm;  // the mark tells whom to signal
    write_header_text(layer, stream, strprintf("PIPE %s %s %09d\4", host.c_str(), service.c_str(), ::getpid()),
                      "qasstr_ready_out");
    Descriptor reader = socklisten(listener.get(), getch_integer(layer, "timeout", 5), &alarm);
    if (reader.get() < 0) return;
    if (strget(reader.get(), 6) != "GOTIT") qaserr("syncout(): pipe synch failed!\n");
    strput(reader.get(), "ACK");
    stream.sockfd = std::move(reader);
}

}  // namespace qas
