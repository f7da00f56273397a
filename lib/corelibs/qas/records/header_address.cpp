#include "lib/corelibs/qas/records/header_address.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"

namespace qas {

std::string listen_address(Layer& layer) {
    return getch_text(layer, "qas.listen").value_or(std::string(loopback));
}

bool is_command(const std::string& name) {
    return name.find('|') != std::string::npos;
}

bool is_socket(const std::string& name) {
    return name.find(':') != std::string::npos;
}

void refuse_from_history(const streaminf& stream) {
    if (stream.from_history)
        qaserr(
            "tag \"%s\": the history of \"in\" names \"%s\" as its header; commands and sockets are taken only from the"
            " command line or a par= file\n",
            stream.tagname.c_str(), stream.headername.c_str());
}

void survive_broken_pipes(Layer& layer) {
    if (!layer.broken_pipe_action) layer.broken_pipe_action = std::signal(SIGPIPE, SIG_IGN);
}

Descriptor open_socket(Layer& layer, const std::string& name) {
    constexpr int attempts = 30;
    constexpr int wait_seconds = 30;
    if (name.starts_with(':')) {
        const bool unix_domain = name.starts_with("::");
        std::string service = name.substr(unix_domain ? 2 : 1);
        const Descriptor listener = opensock1(service, unix_domain, listen_address(layer));
        if (listener.get() < 0) return Descriptor();
        Descriptor fd = socklisten(listener.get(), wait_seconds, nullptr);
        if (unix_domain) ::unlink(service.c_str());
        return fd;
    }
    const std::size_t colon = name.find(':');
    for (int attempt = 1;; ++attempt) {
        Descriptor fd = opensock2(name.substr(0, colon), name.substr(colon + 1), layer.notes);
        if (fd.get() >= 0 || attempt == attempts) return fd;
        std::this_thread::sleep_for(std::chrono::milliseconds(layer.retry_ms));
    }
}

}  // namespace qas
