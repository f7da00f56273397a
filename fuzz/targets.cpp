#include "fuzz/targets.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/jobs.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/parameters/scanner.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/streaminf.h"
#include "lib/corelibs/qas/records/sync.h"
#include "lib/corelibs/qas/session.h"
#include "lib/corelibs/qas/tags/headers.h"

namespace fuzz {
namespace {

void require(bool promise) {
    if (!promise) std::abort();
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File nowhere() {
    return File(std::fopen("/dev/null", "r+"));
}

/// A file that exists in memory only and holds the input.
File file_with(std::string_view input) {
    File file(::fdopen(::memfd_create("input", 0), "r+"));
    std::fwrite(input.data(), 1, input.size(), file.get());
    std::fflush(file.get());
    std::rewind(file.get());
    return file;
}

/// A run on the input: what ends with a message is no fault.
template <class Call>
void run(const Call& call) {
    try {
        call();
    } catch (const qas::Fatal&) {
    }
}

bool is_name(std::string_view name) {
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (name.empty() || !letter(name[0])) return false;
    for (const char c : name)
        if (!letter(c) && !(c >= '0' && c <= '9') && c != '-' && c != '_') return false;
    return true;
}

}  // namespace

void scanner(std::string_view input) {
    run([&] {
        qas::ParTable table;
        std::int64_t clock = 0;
        qas::getpar_scan(table, clock, input, qas::Origin::history);
        require(static_cast<std::int64_t>(table.size()) <= clock);
        for (const auto& [name, entry] : table) {
            require(is_name(name) && entry.value && entry.value->size() <= 8191 && entry.timestamp < clock);
            if (name == "par" || entry.value->size() > 4000) continue;
            std::string quoted = name + "=\"";  // written with quotes it reads back as it is
            for (const char c : *entry.value) quoted.append(c == '"' ? 2 : 1, c);
            qas::ParTable again;
            qas::getpar_scan(again, clock, quoted + "\" z=1", qas::Origin::history);
            require(again.at(name).value == (name == "z" ? "1" : *entry.value) && again.contains("z"));
        }
    });
    run([&] {
        if (input.find("par=") != std::string_view::npos) return;  // the user may name what waits for ever
        qas::ParTable table;
        std::int64_t clock = 0;
        qas::getpar_string_store(table, clock, input);
    });
}

void header(std::string_view input) {
    const File in = file_with(input), out = nowhere(), err = nowhere();
    qas::Session session(std::vector<std::string>{"fuzz", "head=stderr", "datapath=/nonexistent/"});
    session.set_streams(in.get(), out.get(), err.get());
    std::array<char, 600> samples{};
    const auto ask = [&](const auto& question) { run(question); };
    ask([&] { session.from_aux<int>("in", "n1"); });
    ask([&] { session.from_aux<float>("in", "d1 o1", 1.0f); });
    ask([&] { session.from_aux<bool>("in", "esize", false); });
    ask([&] { session.from_aux<std::string>("in", "label1"); });
    for (int k = 1; k <= 3; ++k) ask([&] { require(session.from_aux_axis("in", k).n >= 1); });
    ask([&] { session.get_format("in"); });
    ask([&] { session.check_data_size("in", session.from_aux<int>("in", "n1"), "n1"); });
    ask([&] { require(session.sreed("in", samples.data(), 599) <= 599); });
    ask([&] { session.sseek("in", 4, 0); });
    ask([&] { require(session.sreed_window("in", {{7, 3}, {2, 2}, {1, 0}, {3, 2}, 4}, samples.data()) <= 16); });
    ask([&] { session.sseek("in", -4, 2); });
    ask([&] { session.to_history("n1", 1); });
    ask([&] {  // an output named by the history: nothing is started or reached; files are not for a fuzzer to write
        const std::string name = session.hetch<std::string>("grad").value_or("");
        if (name.find_first_of("|:") == std::string::npos) return;
        bool refused = false;
        try {
            session.to_history("n1", 1, "grad");
        } catch (const qas::Fatal&) {
            refused = true;
        }
        require(refused);
    });
    if (session.getch<int>("nosuch")) std::abort();
}

void list(std::string_view input) {
    if (input.size() < 2) return;
    constexpr std::string_view types = "1ldimfrgsq";
    const char type = types[static_cast<unsigned char>(input[0]) % types.size()];
    const std::size_t room = static_cast<unsigned char>(input[1]);
    const File err = nowhere();
    qas::Notes notes{err.get(), {}};
    qas::ParTable table;
    std::int64_t clock = 0;
    qas::getpar_hash_store(table, clock, "key", std::string(input.substr(2)));
    run([&] {
        const qas::Values values =
            qas::getpar_decode(table, "none key", std::string(1, type), room, "parameter", notes);
        std::visit(
            [&](const auto& found) {
                if constexpr (requires {
                                  found.push_back({});
                                  found.capacity();
                              } &&
                              !std::is_same_v<std::decay_t<decltype(found)>, std::string>)
                    require(!found.empty() && found.size() <= room);
            },
            values);
        require(type != 's' || std::get<std::string>(values) == input.substr(2));
    });
}

void datapath(std::string_view input) {
    run([&] { require(!qas::readpath(input, "host").empty()); });
}

void end_mark(std::string_view input) {
    const qas::EndMark mark = qas::parse_end_mark(input);
    require(mark.cut <= input.size());
    require(mark.kind != qas::EndMark::none || mark.cut == input.size());
    require(mark.kind == qas::EndMark::handshake || (mark.host.empty() && mark.service.empty()));
    run([&] {  // a regular file: nobody is signalled or called
        qas::Layer layer;
        qas::initpar(layer, {"fuzz"});
        const File in = file_with(std::string(input) + '\4'), err = nowhere();
        layer.in = in.get();
        layer.notes.err = err.get();
        const qas::streaminf& stream = *qas::tag_info(layer, "in", qas::Mode::input);
        const std::size_t first = input.find('\4');
        const std::string_view text = input.substr(0, first);
        require(stream.hdrlen == (text.empty() ? 0 : qas::parse_end_mark(text).cut));
        require(stream.sockfd.get() < 0);
    });
}

void job_reply(std::string_view input) {
    if (input.empty() || input.size() > 4096) return;
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) return;
    const qas::Descriptor ours(ends[0]), theirs(ends[1]);
    const bool is_error = input[0] & 1;
    input.remove_prefix(1);
    if (!input.empty())
        require(::send(theirs.get(), input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()));
    ::shutdown(theirs.get(), SHUT_WR);
    const File err = nowhere();
    qas::Layer layer;
    layer.notes.err = err.get();
    int status = 2;
    run([&] { status = qas::qas_exchange(layer, ours.get(), "progress:1:2:text", is_error); });
    require(status == (input.size() >= 5 ? 0 : is_error ? 1 : 2));
}

}  // namespace fuzz
