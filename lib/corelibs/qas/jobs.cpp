#include "lib/corelibs/qas/jobs.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/decode.h"

namespace qas {
namespace {

constexpr std::size_t message_bytes = 1024;
constexpr std::size_t longest_message = 1019;
constexpr std::size_t receipt_bytes = 5;
constexpr std::string_view marker = "EnDiT";
constexpr timeval patience{30, 0};

Descriptor tcp_socket() {
    Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() >= 0) {
        ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    return fd;
}

bool connect_to(int fd, const std::string& host, int port) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found_addresses = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found_addresses) != 0) return false;
    const bool connected = ::connect(fd, found_addresses->ai_addr, found_addresses->ai_addrlen) == 0;
    ::freeaddrinfo(found_addresses);
    return connected;
}

int send_all(int fd, const char* bytes, std::size_t count) {
    std::size_t sent = 0;
    while (sent < count) {
        const ssize_t put = ::send(fd, bytes + sent, count - sent, MSG_NOSIGNAL);
        if (put <= 0) break;
        sent += static_cast<std::size_t>(put);
    }
    return static_cast<int>(sent);
}

int receive_all(int fd, char* bytes, std::size_t count) {
    std::size_t received = 0;
    while (received < count) {
        const ssize_t got = ::recv(fd, bytes + received, count - received, 0);
        if (got <= 0) break;
        received += static_cast<std::size_t>(got);
    }
    return static_cast<int>(received);
}

}  // namespace

int qas_send_msg(CommandLine& line, std::string_view kind, std::string_view text) {
    if (getch_integer(line, "qas.par_job", 1) == 0) return 0;
    const auto jobid = getch_text(line, "qas.jobid");
    const auto label = getch_text(line, "qas.mach_label");
    const auto ip = getch_text(line, "qas.master_ip");
    const Values port = getch(line, "qas.master_port", "i", 1);
    const int given = (jobid ? 1 : 0) + (label ? 1 : 0) + (ip ? 1 : 0) + (found(port) ? 1 : 0);
    if (given == 0) return 0;
    const bool is_error = kind == "error";
    const auto fail = [&](const std::string& message) {
        if (!is_error) throw Fatal(message);
        return 1;
    };
    if (given < 4)
        return fail(strprintf(
            "when running in socket mode must provide jobid,mach_label,master_ip, and master_port %d %d %d %d",
            jobid ? 1 : 0, label ? 1 : 0, ip ? 1 : 0, found(port) ? 1 : 0));
    const Descriptor fd = tcp_socket();
    if (fd.get() < 0) return fail("Failed to create socket \n");
    if (!connect_to(fd.get(), *ip, std::get<std::vector<int>>(port).front()))
        return fail("Failed to connect with server");
    const std::string message = std::string(kind) + ':' + *jobid + ':' + *label + ':' + std::string(text);
    if (message.size() > longest_message) return fail("to long of message ");
    return qas_exchange(line, fd.get(), message, is_error);
}

int qas_exchange(CommandLine& line, int fd, const std::string& message, bool is_error) {
    const auto fail = [&](const std::string& text) {
        if (!is_error) throw Fatal(text);
        return 1;
    };
    std::string bytes = message + std::string(marker);
    bytes.resize(message_bytes, '\0');
    const int sent = send_all(fd, bytes.data(), bytes.size());
    if (sent != static_cast<int>(message_bytes)) {
        line.notes.warn(
            strprintf("Mismatch in number of sent bytes %d !=%d \n", sent, static_cast<int>(message_bytes)));
        return fail("trouble sending message " + message + " \n");
    }
    std::array<char, receipt_bytes> receipt{};
    const int received = receive_all(fd, receipt.data(), receipt.size());
    if (received != static_cast<int>(receipt_bytes)) {
        line.notes.warn(strprintf("Mismatch in number of received bytess %d!=5 ", received));
        return fail("trouble received message " + message);
    }
    return 0;
}

void qas_begin_prog(CommandLine& line) {
    if (getch_integer(line, "qas.begin_par", 0) == 1) qas_send_msg(line, "record", "none");
}
void qas_end_prog(CommandLine& line) {
    if (getch_integer(line, "qas.end_par", 0) == 1) qas_send_msg(line, "finish", "none");
}
void qas_err_prog(CommandLine& line) {
    qas_send_msg(line, "error", "none");
}
void qas_exit_prog(CommandLine& line) {
    qas_send_msg(line, "exit", "none");
}
void qas_progress_prog(CommandLine& line, std::string_view text) {
    qas_send_msg(line, "progress", text);
}

void qas_prog_stat(CommandLine& line, std::string_view text, int done, int total, int send) {
    const std::string message = strprintf("%s finished=%d of %d", std::string(text).c_str(), done, total);
    line.notes.warn(message + "\n");
    if (send == 1) qas_progress_prog(line, message);
}

}  // namespace qas
