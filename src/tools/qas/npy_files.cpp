// qas npy and qas from-npy: datasets as NumPy's arrays, and back.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/records/formats.h"
#include "src/tools/qas/commands.h"
#include "src/tools/qas/dataset.h"
#include "src/tools/qas/npy.h"

namespace qastool {
namespace {

using qas::qaserr;

struct CloseFile {
    void operator()(std::FILE* file) const {
        if (file != stdin && file != stdout) std::fclose(file);
    }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File open_file(const std::string& name, const char* mode) {
    File file(std::fopen(name.c_str(), mode));
    if (!file) qaserr("%s cannot be opened: %s\n", name.c_str(), std::strerror(errno));
    return file;
}

void write_bytes(std::FILE* file, const std::string& name, std::span<const char> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size())
        qaserr("%s cannot be written: %s\n", name.c_str(), std::strerror(errno));
}

void finish(std::FILE* file, const std::string& name) {
    if (std::fflush(file) != 0) qaserr("%s cannot be written: %s\n", name.c_str(), std::strerror(errno));
}

/// The files of the input must not be overwritten.
void check_output_is_free(const std::string& output, const Dataset& set, const std::string& header) {
    const std::string identity = qas::file_identity(output);
    if (identity.empty()) return;
    std::vector<std::string> inputs{header};
    for (std::size_t at = 0; at <= set.data.size();) {
        const std::size_t end = std::min(set.data.find(';', at), set.data.size());
        inputs.push_back(set.data.substr(at, end - at));
        at = end + 1;
    }
    inputs.push_back("/dev/stdin");
    for (const std::string& input : inputs)
        if (qas::file_identity(input) == identity)
            qaserr("%s is a file of the input %s: give the output another name\n", output.c_str(), set.name.c_str());
}

NpyHeader header_of(const Dataset& set) {
    NpyHeader header;
    switch (set.kind) {
        case Kind::complex:
            header.type = 'c';
            break;
        case Kind::integer:
            header.type = 'i';
            break;
        case Kind::byte:
            header.type = 'u';
            break;
        default:
            header.type = 'f';
    }
    header.size = static_cast<int>(set.esize);
    for (const GridAxis& axis : set.axes) header.shape.insert(header.shape.begin(), axis.n);
    return header;
}

/// A file that is written beside what it replaces, so that a command which fails leaves that alone.
qas::PlainOutput new_file(qas::Session& session, const std::string& name) {
    return session.claim_output({name, name, "give it another name", true});
}

/// The history of the input with a block of this program behind it, which points at no data.
std::string side_text(qas::Session& session, const Words& words, const std::string& npy) {
    const File scratch(std::tmpfile());
    if (!scratch) qaserr("a scratch file cannot be made: %s\n", std::strerror(errno));
    const std::string name = "/proc/self/fd/" + std::to_string(::fileno(scratch.get()));
    qas::Session of_side(std::vector<std::string>{words.program, "side=" + name, "side.out=-1"});
    of_side.auxinout("side");
    if (!npy.empty()) of_side.to_history("npy", npy, "side");
    of_side.to_history("in", std::string("-1"), "side");
    std::string block(static_cast<std::size_t>(qas::fsize(::fileno(scratch.get()))), '\0');
    if (std::fread(block.data(), 1, block.size(), scratch.get()) != block.size())
        qaserr("%s cannot be read: %s\n", name.c_str(), std::strerror(errno));
    return session.history("in") + block;
}

/// Elements of a .npy file as this machine's samples: byte order set right, double precision narrowed.
void convert(const NpyHeader& header, const std::string& name, std::span<const char> elements, std::vector<char>& out) {
    const bool wide = header.size == 8 * (header.type == 'c' ? 2 : 1);
    out.resize(elements.size() / (wide ? 2 : 1));
    if (!wide) {
        if (header.swapped)
            qas::swap_words(elements.data(), out.data(), elements.size() / 4);
        else
            std::copy(elements.begin(), elements.end(), out.begin());
        return;
    }
    for (std::size_t i = 0; i < elements.size() / sizeof(double); ++i) {
        std::uint64_t bits;
        std::memcpy(&bits, elements.data() + i * sizeof bits, sizeof bits);
        const double value = std::bit_cast<double>(header.swapped ? __builtin_bswap64(bits) : bits);
        const float narrow = static_cast<float>(value);
        if (std::isinf(narrow) && !std::isinf(value))
            qaserr("%s: %g does not fit single precision\n", name.c_str(), value);
        std::memcpy(out.data() + i * sizeof narrow, &narrow, sizeof narrow);
    }
}

/// Refuses a file that ends before its samples do, where that can be told beforehand.
void check_length(std::FILE* file, const NpyHeader& header, const std::string& name) {
    struct stat status;
    if (::fstat(::fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) return;
    const std::int64_t there = static_cast<std::int64_t>(status.st_size) - std::ftell(file);
    if (there < header.bytes())
        qaserr("%s: its shape needs %lld bytes behind the header, there are %lld\n", name.c_str(),
               static_cast<long long>(header.bytes()), static_cast<long long>(there));
    if (there > header.bytes())
        std::fprintf(stderr, "qas from-npy: warning: %s: %lld bytes behind the samples are left out\n", name.c_str(),
                     static_cast<long long>(there - header.bytes()));
}

/// The side header that goes with a .npy file: parameter `side`, else FILE.H if there is one, else none.
std::string side_header(const Words& words) {
    qas::Session session(session_words(words, {}));
    if (const auto side = session.getch<std::string>("side")) return *side;
    const std::string beside = words.files[0] + ".H";
    if (words.files[0] != "stdin" && ::access(beside.c_str(), R_OK) == 0) return beside;
    return "/dev/null";
}

/// Origin, interval and label overrides of the command line must make sense before anything is written.
void check_overrides(qas::Session& session) {
    for (int k = 1; k <= most_axes; ++k)
        for (const char* letter : {"d", "o"}) {
            const std::string key = letter + std::to_string(k);
            const auto text = session.getch<std::string>(key);
            if (text && !real_number(*text))
                qaserr("%s=%s: a finite number is needed\n", key.c_str(), printable(*text).c_str());
        }
}

/// Refuses parameters that would make "out" overwrite the .npy file, which the dataset layer does not know.
void check_not_overwritten(qas::Session& session, const std::string& npy) {
    const std::string identity = qas::file_identity(npy == "stdin" ? "/dev/stdin" : npy);
    for (const char* key : {"out", "stdout", "head"}) {
        const std::string name = session.getch<std::string>(key).value_or("");
        if (!identity.empty() && qas::file_identity(name) == identity)
            qaserr("%s=%s is the file of the input: give the output another name\n", key, printable(name).c_str());
    }
}

void write_axes(qas::Session& session, const Dataset& side, const std::vector<std::int64_t>& lengths) {
    const bool with_side = !side.axes.empty();
    for (std::size_t i = 0; i < std::max(lengths.size(), side.axes.size()); ++i) {
        const std::string k = std::to_string(i + 1);
        const std::int64_t n = i < lengths.size() ? lengths[i] : 1;
        const GridAxis of_side = i < side.axes.size() ? side.axes[i] : GridAxis();
        if (with_side && n != of_side.n)
            std::fprintf(stderr,
                         "qas from-npy: warning: n%s is %lld in the array, %lld in the side header; d%s and o%s of the "
                         "latter are kept\n",
                         k.c_str(), static_cast<long long>(n), static_cast<long long>(of_side.n), k.c_str(), k.c_str());
        put_integer(session, "n" + k, n);
        const auto put = [&](const std::string& key, double value) {
            const auto text = session.getch<std::string>(key);
            session.to_history(key, text ? *real_number(*text) : value);
        };
        put("d" + k, of_side.d);
        put("o" + k, of_side.o);
        if (const auto label = session.getch<std::string>("label" + k))
            session.to_history("label" + k, printable(*label));
    }
}

}  // namespace

int run_npy(Words words) {
    check_words(words, {"side"}, {}, false);
    check_files(words, 0, 2);
    const std::string output = words.files.size() > 1 ? words.files[1] : "";
    if (output == "stdin") qaserr("the .npy file has no name; without a second file it is the standard output\n");
    const std::string& input = words.files[0];
    qas::Session session(session_words(words, {{"stdin", input}}));
    const Dataset set = read_description(session, "in", input);
    require_numbers(set);
    require_data(session, set, set.bytes());
    const std::string side =
        session.getch<std::string>("side").value_or(output.empty() ? std::string() : output + ".H");
    for (const std::string& name : {output, side})
        if (!name.empty()) check_output_is_free(name, set, input);
    if (!side.empty() && (side == output || (!output.empty() && qas::file_identity(output) != "" &&
                                             qas::file_identity(output) == qas::file_identity(side))))
        qaserr("side=%s is the .npy file itself\n", side.c_str());

    qas::PlainOutput array = output.empty() ? qas::PlainOutput() : new_file(session, output);
    qas::PlainOutput beside = side.empty() ? qas::PlainOutput() : new_file(session, side);
    if (!side.empty()) beside.write(side_text(session, words, output));
    // Before the array: a reader at the other end of a pipe looks for it as soon as that begins.
    const bool streamed = output.empty() || qas::is_special_file(output);
    if (!side.empty() && streamed) beside.finish();
    const auto write = [&](std::span<const char> bytes) {
        if (output.empty())
            write_bytes(stdout, "the standard output", bytes);
        else
            array.write(std::string_view(bytes.data(), bytes.size()));
    };
    write(npy_header_bytes(header_of(set)));
    pass_on(session, set, set.bytes(), write);
    if (output.empty())
        finish(stdout, "the standard output");
    else
        array.finish();
    if (!side.empty() && !streamed) beside.finish();
    return 0;
}

int run_from_npy(Words words) {
    check_words(words, {"side", "d#", "o#", "label#"}, {}, true);
    check_files(words, 0, 1);
    const std::string name = words.files[0] == "stdin" ? "standard input" : words.files[0];
    if (words.files[0] != "stdin") check_readable(words.files[0]);
    const File file = words.files[0] == "stdin" ? File(stdin) : open_file(words.files[0], "rb");
    const NpyHeader header = read_npy_header(file.get(), name);
    check_length(file.get(), header, name);

    const std::string side_name = side_header(words);
    qas::Session session(session_words(words, {{"stdin", side_name}}));
    session.replace_outputs();
    Dataset side = read_description(session, "in", side_name);
    check_overrides(session);
    check_not_overwritten(session, words.files[0]);
    const Kind kind = header.type == 'c'   ? Kind::complex
                      : header.type == 'f' ? Kind::real
                      : header.type == 'i' ? Kind::integer
                                           : Kind::byte;
    const std::int64_t esize = kind == Kind::complex ? 8 : kind == Kind::byte ? 1 : 4;
    const std::string asked = session.getch<std::string>("data_format").value_or(side.format);
    const bool suits = kind_of_format(asked, esize) == kind;
    if (!suits && session.exist_file("data_format"))
        qaserr("data_format=%s: the samples of %s are of another kind (%s)\n", printable(asked).c_str(), name.c_str(),
               kind_name(kind).c_str());
    session.set_format("out", suits                   ? asked
                              : kind == Kind::integer ? "xdr_int"
                              : kind == Kind::byte    ? "xdr_byte"
                                                      : "xdr_float");
    std::vector<std::int64_t> lengths = header.shape;
    if (lengths.empty()) lengths.push_back(1);
    if (!header.fortran_order) std::reverse(lengths.begin(), lengths.end());
    write_axes(session, side, lengths);
    put_integer(session, "esize", esize);

    const Sink sink = dataset_sink(session);
    std::vector<char> elements(static_cast<std::size_t>(std::min(header.bytes(), block_bytes))), samples;
    for (std::int64_t done = 0; done < header.bytes();) {
        const auto wanted = static_cast<std::size_t>(std::min(block_bytes, header.bytes() - done));
        if (std::fread(elements.data(), 1, wanted, file.get()) != wanted)
            qaserr("%s: its samples end before its shape does\n", name.c_str());
        convert(header, name, std::span(elements).first(wanted), samples);
        sink(samples);
        done += static_cast<std::int64_t>(wanted);
    }
    session.hclose();
    session.finish_outputs();
    return 0;
}

}  // namespace qastool
