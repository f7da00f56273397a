#include "src/tools/qas/dataset.h"

#include <algorithm>
#include <limits>

#include "src/tools/qas/words.h"

namespace qastool {
namespace {

using qas::qaserr;

std::string header_text(qas::Session& session, const Dataset& set, const std::string& key) {
    return session.from_aux<std::string>(set.tag, key, std::string());
}

double header_real(qas::Session& session, const Dataset& set, const std::string& key, double otherwise) {
    const std::string text = header_text(session, set, key);
    if (text.empty()) return otherwise;
    const auto number = real_number(text);
    if (!number) qaserr("%s: %s=%s is not a finite number\n", set.name.c_str(), key.c_str(), printable(text).c_str());
    return *number;
}

void read_axes(qas::Session& session, Dataset& set) {
    std::int64_t bytes = set.esize;
    for (int k = 1; k <= most_axes; ++k) {
        const std::string number = std::to_string(k);
        const std::string text = header_text(session, set, "n" + number);
        if (text.empty()) continue;
        const auto n = whole_number(text);
        if (!n || *n < 1)
            qaserr("%s: n%d=%s is not an integer of at least 1\n", set.name.c_str(), k, printable(text).c_str());
        set.axes.resize(static_cast<std::size_t>(k));
        if (__builtin_mul_overflow(bytes, *n, &bytes))
            qaserr("%s: n%d=%lld makes the data larger than a file can be\n", set.name.c_str(), k,
                   static_cast<long long>(*n));
        set.axes.back() = {*n, header_real(session, set, "d" + number, 1.0),
                           header_real(session, set, "o" + number, 0.0), true,
                           header_text(session, set, "label" + number)};
    }
    set.samples = set.axes.empty() ? 0 : bytes / set.esize;
}

}  // namespace

std::string kind_name(Kind kind) {
    switch (kind) {
        case Kind::real:
            return "real";
        case Kind::complex:
            return "complex";
        case Kind::integer:
            return "integer";
        case Kind::byte:
            return "byte";
        default:
            return "unknown";
    }
}

Kind kind_of_format(const std::string& format, std::int64_t esize) {
    if (format == "xdr_float" || format == "native_float") return esize == 8 ? Kind::complex : Kind::real;
    if (format == "xdr_int") return Kind::integer;
    return format == "xdr_byte" || format == "native_byte" ? Kind::byte : Kind::other;
}

Dataset read_description(qas::Session& session, const std::string& tag, const std::string& name) {
    Dataset set;
    set.tag = tag;
    set.name = name == "stdin" ? "standard input" : name;
    if (name != "stdin") check_readable(name);
    set.data = header_text(session, set, "in");
    set.format = header_text(session, set, "data_format");
    if (set.format.empty()) set.format = "xdr_float";
    set.kind = kind_of_format(set.format, 4);
    const bool floats = set.kind == Kind::real;
    set.esize = set.kind == Kind::byte ? 1 : 4;
    if (const std::string text = header_text(session, set, "esize"); !text.empty()) {
        const auto esize = whole_number(text);
        const bool fits = esize && (*esize == set.esize || (floats && *esize == 8) ||
                                    (set.kind == Kind::other && *esize >= 1 && *esize <= 16));
        if (!fits)
            qaserr("%s: esize=%s does not go with data_format=%s: %s\n", set.name.c_str(), printable(text).c_str(),
                   set.format.c_str(),
                   floats           ? "4 is real, 8 complex"
                   : set.esize == 4 ? "it is 4"
                                    : "it is 1");
        set.esize = *esize;
    }
    set.kind = kind_of_format(set.format, set.esize);
    read_axes(session, set);
    return set;
}

void require_numbers(const Dataset& set) {
    if (set.kind == Kind::other)
        qaserr("%s: samples of data_format=%s cannot be read as numbers\n", set.name.c_str(), set.format.c_str());
}

void require_data(qas::Session& session, const Dataset& set, std::int64_t bytes) {
    if (set.axes.empty()) qaserr("%s: the header gives no axes (n1, n2, ...)\n", set.name.c_str());
    if (set.data.empty() || set.data == "-1")
        qaserr("%s: the header names no data (in=%s)\n", set.name.c_str(), set.data.c_str());
    const std::int64_t size = session.data_size(set.tag);
    if (size >= 0 && size < bytes)
        qaserr("%s: its data \"%s\" end after %lld bytes, %lld are needed\n", set.name.c_str(),
               printable(set.data).c_str(), static_cast<long long>(size), static_cast<long long>(bytes));
}

void pass_on(qas::Session& session, const Dataset& set, std::int64_t bytes, const Sink& sink) {
    const std::int64_t block = block_bytes / set.esize * set.esize;
    std::vector<char> buffer(static_cast<std::size_t>(std::min(block, bytes)));
    for (std::int64_t done = 0; done < bytes;) {
        const std::int64_t wanted = std::min(block, bytes - done);
        const std::int64_t got = session.sreed(set.tag, buffer.data(), wanted);
        if (got < wanted)
            qaserr("%s: its data \"%s\" end %lld bytes too early\n", set.name.c_str(), printable(set.data).c_str(),
                   static_cast<long long>(bytes - done - got));
        sink(std::span<char>(buffer.data(), static_cast<std::size_t>(got)));
        done += got;
    }
}

Sink dataset_sink(qas::Session& session) {
    return [&session](std::span<char> block) {
        const auto bytes = static_cast<std::int64_t>(block.size());
        if (session.srite("out", block.data(), bytes) != bytes)
            qaserr("the output data came short: no space is left in the files of datapath=\n");
    };
}

void put_integer(qas::Session& session, const std::string& name, std::int64_t value) {
    if (value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max())
        session.to_history(name, static_cast<int>(value));
    else
        session.to_history(name, std::to_string(value));
}

void check_output_format(qas::Session& session, const Dataset& set) {
    const auto wanted = session.getch<std::string>("data_format");
    if (wanted && kind_of_format(*wanted, set.esize) != set.kind)
        qaserr("data_format=%s: the samples of %s are of another kind (%s)\n", printable(*wanted).c_str(),
               set.name.c_str(), set.format.c_str());
}

std::string position_text(const std::vector<GridAxis>& axes, std::int64_t sample) {
    std::string text;
    for (std::size_t i = 0; i < axes.size(); ++i) {
        const std::int64_t index = sample % axes[i].n;
        sample /= axes[i].n;
        if (!axes[i].given) continue;
        text += (text.empty() ? "f" : " f") + std::to_string(i + 1) + "=" + std::to_string(index);
    }
    return text;
}

}  // namespace qastool
