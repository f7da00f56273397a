#include "src/tools/morvane_prepare/segy_file.h"

#include <segyio/segy.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane::prepare {
namespace {

using qas::qaserr;

constexpr int text_bytes = 3200, start_bytes = 3600, header_bytes = 240;
constexpr int longest_trace = 100'000'000;  // samples
constexpr unsigned char ebcdic_blank = 0x40;
constexpr std::uint32_t order_mark = 0x01020304;

/// Numbers of the binary header by their first byte in the file, counted from 1 as the standard does.
class Start {
    std::span<const unsigned char> bytes_;
    bool little_;

public:
    Start(std::span<const unsigned char> bytes, bool little) : bytes_(bytes), little_(little) {}
    std::uint64_t number(int at, int size) const {
        std::uint64_t value = 0;
        for (int i = 0; i < size; ++i)
            value = value << 8 | bytes_[static_cast<std::size_t>(at - 1 + (little_ ? size - 1 - i : i))];
        return value;
    }
    int word(int at) const { return static_cast<int>(number(at, 2)); }
    int signed_word(int at) const { return static_cast<std::int16_t>(number(at, 2)); }
    std::int32_t long_word(int at) const { return static_cast<std::int32_t>(number(at, 4)); }
};

bool readable(int format) {
    return format == SEGY_IBM_FLOAT_4_BYTE || format == SEGY_SIGNED_INTEGER_4_BYTE ||
           format == SEGY_SIGNED_SHORT_2_BYTE || format == SEGY_IEEE_FLOAT_4_BYTE || format == SEGY_SIGNED_CHAR_1_BYTE;
}

/// The mark of revision 2 decides; without it the order in which the format code is one of the standard's.
bool is_little(std::span<const unsigned char> start, const std::string& endian) {
    if (!endian.empty()) return endian == "little";
    const Start big(start, false), little(start, true);
    if (big.number(3297, 4) == order_mark) return false;
    if (little.number(3297, 4) == order_mark) return true;
    const auto known = [](int format) { return format >= 1 && format <= 16; };
    return !known(big.word(3225)) && known(little.word(3225));
}

/// Major number in either of the forms in use: 0x0100, 1, or the two bytes major and minor.
int revision_of(std::span<const unsigned char> start) {
    const int major = start[3500] != 0 ? start[3500] : start[3501];
    return major <= 2 ? major : 0;
}

bool holds_end_text(std::string_view record) {
    constexpr std::string_view ascii = "EndText", ebcdic = "\xC5\x95\x84\xE3\x85\xA7\xA3";
    return record.find(ascii) != record.npos || record.find(ebcdic) != record.npos;
}

}  // namespace

double scaled(int value, int scalar) {
    if (scalar > 0) return static_cast<double>(value) * scalar;
    return scalar < 0 ? static_cast<double>(value) / -static_cast<double>(scalar) : value;
}

double TraceHeader::offset() const {
    return std::hypot(group_x - source_x, group_y - source_y);
}

void check_words(const TraceWords& words) {
    const std::pair<const char*, int> all[] = {{"source_x", words.source_x},
                                               {"source_y", words.source_y},
                                               {"group_x", words.group_x},
                                               {"group_y", words.group_y},
                                               {"coordinate_scalar", words.coordinate_scalar},
                                               {"group_elevation", words.group_elevation},
                                               {"source_depth", words.source_depth},
                                               {"elevation_scalar", words.elevation_scalar},
                                               {"delay", words.delay},
                                               {"trace_id", words.trace_id}};
    const std::array<char, header_bytes> none{};
    for (const auto& [name, at] : all) {
        std::int32_t value = 0;
        if (at < 1 || at > header_bytes || segy_get_field(none.data(), at, &value) != SEGY_OK)
            qaserr("%s_word=%d is not the first byte of a word of the trace header; 73 is that of the source x\n", name,
                   at);
    }
}

void SegyFile::Close::operator()(segy_file_handle* file) const {
    segy_close(file);
}

SegyFile::SegyFile(const std::string& path, const SegyOptions& options) : path_(path), options_(options) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) qaserr("%s: there is no such file\n", path.c_str());
    if (!std::filesystem::is_regular_file(status))
        qaserr("%s: SEG-Y must be an ordinary file, since its traces are not read in order\n", path.c_str());
    info_.bytes = static_cast<std::int64_t>(std::filesystem::file_size(path, error));
    file_.reset(segy_open(path.c_str(), "rb"));
    if (!file_) qaserr("%s: cannot be opened: %s\n", path.c_str(), std::strerror(errno));
    read_binary_header(options);
}

void SegyFile::read_binary_header(const SegyOptions& options) {
    std::array<unsigned char, start_bytes> start{};
    std::ifstream stream(path_, std::ios::binary);
    stream.read(reinterpret_cast<char*>(start.data()), start_bytes);
    if (stream.gcount() != start_bytes)
        qaserr("%s: %lld bytes are too few for SEG-Y, whose headers take %d\n", path_.c_str(),
               static_cast<long long>(info_.bytes), start_bytes);
    info_.little = is_little(start, options.endian);
    info_.revision = revision_of(start);
    const Start head(start, info_.little);
    info_.format = options.format != 0 ? options.format : head.word(3225);
    if (!readable(info_.format))
        qaserr(
            "%s: sample format %d is not read; 1 (IBM), 2, 3, 8 (integers of 4, 2, 1 bytes) and 5 (IEEE) are. Where "
            "the header is wrong, name it by sample_format=, and the byte order by endian=\n",
            path_.c_str(), info_.format);
    if (segy_set_format(file_.get(), info_.format | (info_.little ? SEGY_LSB : SEGY_MSB)) != SEGY_OK)
        qaserr("%s: sample format %d is not known to libsegyio\n", path_.c_str(), info_.format);
    info_.samples = head.word(3221);
    info_.dt = head.word(3217) * 1e-6;
    info_.measurement = head.word(3255);
    std::int64_t trailer = 0;
    if (info_.revision == 2) {
        if (const std::int32_t samples = head.long_word(3269); samples != 0) info_.samples = samples;
        if (const double dt = std::bit_cast<double>(head.number(3273, 8)); dt != 0.0) info_.dt = dt * 1e-6;
        if (const std::int32_t more = head.long_word(3507); more != 0)
            qaserr("%s: %d further trace headers behind each; only those of one header are read\n", path_.c_str(),
                   more);
        trailer = std::int64_t{text_bytes} * head.long_word(3529);
        if (trailer < 0) qaserr("%s: a trailer of unknown length behind the traces is not read\n", path_.c_str());
    }
    find_first_trace(start);
    if (info_.samples == 0) {  // the traces say it, then
        std::array<char, header_bytes> raw{};
        std::int32_t samples = 0;
        if (segy_traceheader(file_.get(), 0, raw.data(), info_.first_trace, 0) != SEGY_OK) refuse_read(0);
        segy_get_field(raw.data(), SEGY_TR_SAMPLE_COUNT, &samples);
        info_.samples = samples & 0xffff;
        info_.notes.push_back("the binary header has 0 samples per trace; the first trace says " +
                              std::to_string(info_.samples));
    }
    if (info_.samples < 1 || info_.samples > longest_trace)
        qaserr("%s: %d samples per trace; permitted are 1 to %d\n", path_.c_str(), info_.samples, longest_trace);
    trace_bytes_ = segy_trsize(info_.format, info_.samples);
    buffer_.resize(static_cast<std::size_t>(trace_bytes_));
    count_traces(options.truncated, trailer);
    take_interval();
    read_text(start);
}

void SegyFile::read_text(std::span<const unsigned char> start) {
    std::vector<char> text(static_cast<std::size_t>(segy_textheader_size()) + 1);
    if (segy_read_textheader(file_.get(), text.data()) != SEGY_OK) refuse_read(0);
    // the library takes it for EBCDIC; a header in ASCII has ASCII blanks
    if (std::ranges::count(start, ' ') > std::ranges::count(start, ebcdic_blank))
        std::copy_n(start.begin(), text_bytes, text.begin());
    for (int line = 0; line < text_bytes; line += 80) {
        std::string words(text.data() + line, strnlen(text.data() + line, 80));
        std::ranges::replace_if(
            words, [](unsigned char c) { return c < 32 || c > 126; }, ' ');
        words.erase(words.find_last_not_of(' ') + 1);
        if (words.size() > 3) info_.text.push_back(words);
    }
}

void SegyFile::find_first_trace(std::span<const unsigned char> start) {
    const Start head(start, info_.little);
    if (info_.revision == 0) return;
    if (const std::uint64_t at = info_.revision == 2 ? head.number(3521, 8) : 0; at != 0) {
        if (at < start_bytes || at > static_cast<std::uint64_t>(info_.bytes))
            qaserr("%s: its header puts the first trace at byte %llu of %lld\n", path_.c_str(),
                   static_cast<unsigned long long>(at), static_cast<long long>(info_.bytes));
        info_.first_trace = static_cast<std::int64_t>(at);
        return;
    }
    const int extended = head.signed_word(3505);
    if (extended >= 0) {
        info_.first_trace = start_bytes + std::int64_t{text_bytes} * extended;
        return;
    }
    std::ifstream stream(path_, std::ios::binary);
    stream.seekg(start_bytes);
    std::string record(text_bytes, '\0');
    for (info_.first_trace = start_bytes; stream.read(record.data(), text_bytes);) {
        info_.first_trace += text_bytes;
        if (holds_end_text(record)) return;
    }
    qaserr("%s: its extended textual headers have no end (%d of them, no ((SEG: EndText)))\n", path_.c_str(), extended);
}

void SegyFile::count_traces(bool truncated, std::int64_t trailer_bytes) {
    const std::int64_t each = header_bytes + std::int64_t{trace_bytes_};
    const std::int64_t room = info_.bytes - info_.first_trace - trailer_bytes;
    const std::int64_t whole = room > 0 ? room / each : 0;
    if (whole == 0)
        qaserr("%s: cut short: %lld bytes after its headers do not hold trace 1, %d samples in %lld bytes\n",
               path_.c_str(), static_cast<long long>(std::max<std::int64_t>(room, 0)), info_.samples,
               static_cast<long long>(each));
    if (room % each != 0 && !truncated)
        qaserr(
            "%s: cut short: it ends %lld bytes into trace %lld, which takes %lld (%d samples of format %d); "
            "truncated=y uses the traces before it\n",
            path_.c_str(), static_cast<long long>(room % each), static_cast<long long>(whole + 1),
            static_cast<long long>(each), info_.samples, info_.format);
    if (room % each != 0)
        info_.notes.push_back("the file ends within trace " + std::to_string(whole + 1) + ", which is left out");
    if (whole > 2'000'000'000) qaserr("%s: more than 2e9 traces; split the file\n", path_.c_str());
    info_.traces = static_cast<int>(whole);
}

void SegyFile::take_interval() {
    std::array<char, header_bytes> raw{};
    std::int32_t micro = 0;
    if (segy_traceheader(file_.get(), 0, raw.data(), info_.first_trace, trace_bytes_) != SEGY_OK) refuse_read(0);
    segy_get_field(raw.data(), SEGY_TR_SAMPLE_INTER, &micro);
    micro &= 0xffff;
    if (options_.dt > 0) {
        info_.dt = options_.dt;
    } else if (info_.dt == 0) {
        info_.dt = micro * 1e-6;
        if (micro != 0)
            info_.notes.push_back("the binary header has no sample interval; the first trace says " +
                                  std::to_string(micro) + " microseconds");
    } else if (micro != 0 && std::abs(info_.dt - micro * 1e-6) > 1e-6) {
        qaserr("%s: the sample interval is %g s in the binary header, %g s in trace 1; name the right one by dt=\n",
               path_.c_str(), info_.dt, micro * 1e-6);
    }
    if (!(info_.dt > 0) || !std::isfinite(info_.dt))
        qaserr("%s: its headers have no sample interval (%g s); give it by dt= in seconds\n", path_.c_str(), info_.dt);
}

void SegyFile::refuse_read(int trace) const {
    qaserr("%s: trace %d cannot be read: %s\n", path_.c_str(), trace + 1, std::strerror(errno));
}

TraceHeader SegyFile::header(int trace) {
    std::array<char, header_bytes> raw{};
    if (segy_traceheader(file_.get(), trace, raw.data(), info_.first_trace, trace_bytes_) != SEGY_OK)
        refuse_read(trace);
    const auto word = [&](int at) {
        std::int32_t value = 0;
        segy_get_field(raw.data(), at, &value);
        return value;
    };
    const int samples = word(SEGY_TR_SAMPLE_COUNT) & 0xffff, micro = word(SEGY_TR_SAMPLE_INTER) & 0xffff;
    if (samples != 0 && info_.samples < 65536 && samples != info_.samples)
        qaserr("%s: trace %d has %d samples, the file %d; traces of different lengths are not read\n", path_.c_str(),
               trace + 1, samples, info_.samples);
    if (micro != 0 && options_.dt == 0 && std::abs(info_.dt - micro * 1e-6) > 1e-6)
        qaserr("%s: trace %d has a sample interval of %g s, the file %g s; name the right one by dt=\n", path_.c_str(),
               trace + 1, micro * 1e-6, info_.dt);
    if (const int units = word(SEGY_TR_COORD_UNITS); units >= 2 && units <= 4)
        qaserr("%s: trace %d has coordinates in %s; only lengths are read: project them first\n", path_.c_str(),
               trace + 1, units == 2 ? "seconds of arc" : "degrees");
    const TraceWords& w = options_.words;
    const int scalar = word(w.coordinate_scalar), elevation_scalar = word(w.elevation_scalar);
    TraceHeader head;
    head.source_x = length_ * scaled(word(w.source_x), scalar);
    head.source_y = length_ * scaled(word(w.source_y), scalar);
    head.group_x = length_ * scaled(word(w.group_x), scalar);
    head.group_y = length_ * scaled(word(w.group_y), scalar);
    head.cdp_x = length_ * scaled(word(SEGY_TR_CDP_X), scalar);
    head.cdp_y = length_ * scaled(word(SEGY_TR_CDP_Y), scalar);
    head.group_elevation = length_ * scaled(word(w.group_elevation), elevation_scalar);
    head.source_depth = length_ * scaled(word(w.source_depth), elevation_scalar);
    head.delay = word(w.delay) * 1e-3;
    if (info_.revision > 0) head.delay = scaled(1, word(SEGY_TR_SCALAR_TRACE_HEADER)) * head.delay;
    head.trace_id = word(w.trace_id);
    return head;
}

void SegyFile::samples(int trace, std::span<float> values) {
    if (segy_readtrace(file_.get(), trace, buffer_.data(), info_.first_trace, trace_bytes_) != SEGY_OK)
        refuse_read(trace);
    segy_to_native(info_.format, info_.samples, buffer_.data());
    const auto convert = [&]<class T>(T) {
        for (std::size_t i = 0; i < values.size(); ++i) {
            T value;
            std::memcpy(&value, buffer_.data() + i * sizeof(T), sizeof(T));
            values[i] = static_cast<float>(value);
        }
    };
    switch (info_.format) {
        case SEGY_SIGNED_INTEGER_4_BYTE:
            convert(std::int32_t{});
            break;
        case SEGY_SIGNED_SHORT_2_BYTE:
            convert(std::int16_t{});
            break;
        case SEGY_SIGNED_CHAR_1_BYTE:
            convert(std::int8_t{});
            break;
        default:
            convert(float{});
    }
    const auto bad = std::ranges::find_if_not(values, [](float v) { return std::isfinite(v); });
    if (bad != values.end())
        qaserr("%s: trace %d, sample %lld is not a finite number (%g); sample_format= or endian= may be wrong\n",
               path_.c_str(), trace + 1, static_cast<long long>(bad - values.begin() + 1), static_cast<double>(*bad));
}

}  // namespace morvane::prepare
