#include "lib/corelibs/qas/tags/transfer.h"

#include <algorithm>
#include <cstring>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/tags/header_output.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "lib/corelibs/qas/tags/stream_table.h"

namespace qas {
namespace {

constexpr int converted_formats = 3;
constexpr std::int64_t span_bytes = std::int64_t{1} << 20;     // read at once to pick samples that lie apart
constexpr std::int64_t block_bytes = std::int64_t{256} << 10;  // stays in the second-level cache

/// Opens the data at the first transfer; false if there are none.
bool open_data(Layer& layer, streaminf& stream) {
    if (stream.entrytype == STREAMSOCKOUT) await_reader(layer, stream);
    if (stream.valid && !stream.ioinf) stream.io->open(layer, stream);
    return stream.valid;
}

void warn_short(Layer& layer, const streaminf& stream, std::int64_t expected, std::int64_t got) {
    layer.notes.once("short\n" + stream.tagname,
                     strprintf("sreed(): the data \"%s\" of tag \"%s\" (header \"%s\") are shorter than its axes"
                               " say: expected %lld bytes, found %lld\n",
                               stream.dataname.c_str(), stream.tagname.c_str(), stream.headername.c_str(),
                               static_cast<long long>(expected), static_cast<long long>(got)));
}

std::int64_t read_samples(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes, int format) {
    if (!open_data(layer, stream) || stream.entrytype == STREAMOUT || stream.entrytype == STREAMSOCKOUT)
        qaserr("sreed(): invalid input tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    const std::int64_t got = format < converted_formats ? sreed_xdr(layer, stream, buffer, nbytes, format)
                                                        : stream.io->read(layer, stream, buffer, nbytes);
    if (got < nbytes) warn_short(layer, stream, nbytes, got);
    return got;
}

std::int64_t write_samples(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes, int format) {
    if (stream.held && layer.hold) {
        const char* bytes = static_cast<const char*>(buffer);
        stream.held_samples.emplace_back(format, std::vector<char>(bytes, bytes + nbytes));
        return nbytes;
    }
    if (!open_data(layer, stream) || stream.entrytype == STREAMIN)
        qaserr("srite(): invalid output tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    qasstr_ready_out(layer, stream);
    return format < converted_formats ? srite_xdr(layer, stream, buffer, nbytes, format)
                                      : stream.io->write(layer, stream, buffer, nbytes);
}

int known_format(std::string_view format, std::string_view tag) {
    const int number = get_format_num(format);
    if (number < 0)
        qaserr("unknown data format: %s \n %s \n  asked for tag \"%s\"\n", std::string(format).c_str(),
               format_list().c_str(), std::string(tag).c_str());
    return number;
}

void check_window(const streaminf& stream, const Window& window) {
    const std::size_t axes = window.grid.size();
    const char* tag = stream.tagname.c_str();
    if (axes == 0 || window.n.size() != axes || window.first.size() != axes || window.step.size() != axes)
        qaserr("window of tag \"%s\": every axis needs its grid, n, first and step\n", tag);
    if (window.esize < 1) qaserr("window of tag \"%s\": esize=%lld\n", tag, static_cast<long long>(window.esize));
    std::int64_t bytes = window.esize;
    for (std::size_t i = 0; i < axes; ++i) {
        std::int64_t last = 0;
        if (window.n[i] < 1 || window.first[i] < 0 || window.step[i] < 1 || window.grid[i] < 1 ||
            __builtin_mul_overflow(window.n[i] - 1, window.step[i], &last) ||
            __builtin_add_overflow(last, window.first[i], &last) || last >= window.grid[i])
            qaserr("window of tag \"%s\", axis %zu: n=%lld first=%lld step=%lld does not lie in 0..%lld\n", tag, i + 1,
                   static_cast<long long>(window.n[i]), static_cast<long long>(window.first[i]),
                   static_cast<long long>(window.step[i]), static_cast<long long>(window.grid[i] - 1));
        if (__builtin_mul_overflow(bytes, window.grid[i], &bytes))
            qaserr("window of tag \"%s\": the grid is too large\n", tag);
    }
}

/// Calls line(number of the first sample) for each line of the window along the fastest axis until it returns false.
template <class Line>
void for_each_line(const Window& window, Line line) {
    const std::size_t axes = window.grid.size();
    std::vector<std::int64_t> at(axes, 0);
    for (;;) {
        std::int64_t start = 0;
        for (std::size_t i = axes; i-- > 0;) start = start * window.grid[i] + window.first[i] + at[i] * window.step[i];
        if (!line(start)) return;
        std::size_t i = 1;
        while (i < axes && ++at[i] == window.n[i]) at[i++] = 0;
        if (i >= axes) return;
    }
}

char* xdr_block(Layer& layer, std::int64_t nbytes) {
    const auto size = static_cast<std::size_t>(std::min(nbytes, block_bytes));
    if (layer.xdr_block.size() < size) layer.xdr_block.resize(size);
    return layer.xdr_block.data();
}

}  // namespace

std::int64_t sreed(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes) {
    if (nbytes <= 0) return 0;
    streaminf& stream = *tag_info(layer, tag, Mode::input);
    return read_samples(layer, stream, buffer, nbytes, stream.format_num);
}

std::int64_t srite(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes) {
    if (nbytes <= 0) return 0;
    streaminf& stream = *tag_info(layer, tag, Mode::output);
    return write_samples(layer, stream, buffer, nbytes, stream.format_num);
}

std::int64_t sreed2(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes, std::string_view format) {
    const int number = known_format(format, tag);
    if (nbytes <= 0) return 0;
    return read_samples(layer, *tag_info(layer, tag, Mode::input), buffer, nbytes, number);
}

std::int64_t srite2(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes,
                    std::string_view format) {
    const int number = known_format(format, tag);
    if (nbytes <= 0) return 0;
    return write_samples(layer, *tag_info(layer, tag, Mode::output), buffer, nbytes, number);
}

std::int64_t sreed_raw(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes) {
    return sreed2(layer, tag, buffer, nbytes, "native_byte");
}

std::int64_t srite_raw(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes) {
    return srite2(layer, tag, buffer, nbytes, "native_byte");
}

std::int64_t sreed_window(Layer& layer, std::string_view tag, const Window& window, void* buffer) {
    streaminf& stream = *tag_info(layer, tag, Mode::input);
    check_window(stream, window);
    if (!open_data(layer, stream))
        qaserr("sreed(): invalid input tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    char* to = static_cast<char*>(buffer);
    const std::int64_t run = window.n[0], step = window.step[0], esize = window.esize;
    const std::int64_t span = step == 1 ? run * esize : std::max(esize, span_bytes / (step * esize) * step * esize);
    std::vector<char> block(step == 1 ? 0 : static_cast<std::size_t>(span));
    std::int64_t total = 0;
    for_each_line(window, [&](std::int64_t start) {
        if (step == 1) {
            if (stream.io->seek(layer, stream, start * esize, 0) < 0) return false;
            const std::int64_t got = read_samples(layer, stream, to + total, run * esize, stream.format_num);
            total += got;
            return got == run * esize;
        }
        for (std::int64_t i = 0; i < run;) {  // the samples of as many steps as fit the block
            const std::int64_t taken = std::min(run - i, (span + (step - 1) * esize) / (step * esize));
            const std::int64_t bytes = ((taken - 1) * step + 1) * esize;
            if (stream.io->seek(layer, stream, (start + i * step) * esize, 0) < 0) return false;
            const std::int64_t got = read_samples(layer, stream, block.data(), bytes, stream.format_num);
            for (std::int64_t k = 0; k < taken && (k * step + 1) * esize <= got; ++k, total += esize)
                std::memcpy(to + total, block.data() + k * step * esize, static_cast<std::size_t>(esize));
            if (got < bytes) return false;
            i += taken;
        }
        return true;
    });
    return total;
}

std::int64_t srite_window(Layer& layer, std::string_view tag, const Window& window, const void* buffer) {
    streaminf& stream = *tag_info(layer, tag, Mode::output);
    check_window(stream, window);
    if (!open_data(layer, stream))
        qaserr("srite(): invalid output tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    const char* from = static_cast<const char*>(buffer);
    const std::int64_t step = window.step[0];
    const std::int64_t piece = step == 1 ? window.n[0] : 1;
    std::int64_t total = 0;
    for_each_line(window, [&](std::int64_t start) {
        for (std::int64_t i = 0; i < window.n[0]; i += piece) {
            const std::int64_t bytes = piece * window.esize;
            if (stream.io->seek(layer, stream, (start + i * step) * window.esize, 0) < 0) return false;
            const std::int64_t put = write_samples(layer, stream, from + total, bytes, stream.format_num);
            total += put;
            if (put < bytes) return false;
        }
        return true;
    });
    return total;
}

std::int64_t sseek_block(Layer& layer, std::string_view tag, std::int64_t block, std::int64_t block_bytes, int whence) {
    std::int64_t offset = 0;
    if (__builtin_mul_overflow(block, block_bytes, &offset))
        qaserr("sseek(): invalid tag %s\n  block %lld of %lld bytes is out of range\n", std::string(tag).c_str(),
               static_cast<long long>(block), static_cast<long long>(block_bytes));
    return sseek(layer, tag, offset, whence);
}

std::int64_t file_position(Layer& layer, std::string_view tag) {
    streaminf& stream = known_tag(layer, tag);
    if (!open_data(layer, stream))
        qaserr("sseek(): invalid tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    if (!stream.backseekable) return std::get<FileState>(*stream.ioinf).position;
    return stream.io->seek(layer, stream, 0, 1);
}

bool sseekable(Layer& layer, std::string_view tag) {
    streaminf& stream = known_tag(layer, tag);
    if (!open_data(layer, stream))
        qaserr("sseek(): invalid tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    return stream.backseekable;
}

std::int64_t sseek(Layer& layer, std::string_view tag, std::int64_t offset, int whence) {
    streaminf& stream = known_tag(layer, tag);
    if (!open_data(layer, stream))
        qaserr("sseek(): invalid tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    return stream.io->seek(layer, stream, offset, whence);
}

std::int64_t ssize(Layer& layer, std::string_view tag) {
    streaminf& stream = *tag_info(layer, tag, Mode::input);
    if (!open_data(layer, stream))
        qaserr("sreed(): invalid input tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    return stream.io->size(layer, stream);
}

std::int64_t sreed_xdr(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes, int format) {
    if (format < 0 || format >= converted_formats)
        qaserr("xdr_reed(): tag \"%s\" I don't grok this format\n", stream.tagname.c_str());
    if (format == 2) return stream.io->read(layer, stream, buffer, nbytes);
    char* block = xdr_block(layer, nbytes);
    char* to = static_cast<char*>(buffer);
    std::int64_t total = 0;
    while (total < nbytes) {
        const std::int64_t wanted = std::min(nbytes - total, block_bytes);
        const std::int64_t got = stream.io->read(layer, stream, block, wanted);
        swap_words(block, to, static_cast<std::size_t>(got / 4));
        to += got / 4 * 4;
        total += got;
        if (got < wanted) break;
    }
    return total;
}

std::int64_t srite_xdr(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes, int format) {
    if (format < 0 || format >= converted_formats)
        qaserr("xdr_rite(): tag \"%s\" I don't grok this format\n", stream.tagname.c_str());
    char* block = xdr_block(layer, nbytes);
    const char* from = static_cast<const char*>(buffer);
    const std::int64_t whole = format == 2 ? nbytes : nbytes / 4 * 4;
    for (std::int64_t done = 0; done < whole;) {
        const std::int64_t count = std::min(whole - done, block_bytes);
        if (format == 2)
            std::memcpy(block, from + done, static_cast<std::size_t>(count));
        else
            swap_words(from + done, block, static_cast<std::size_t>(count / 4));
        const std::int64_t put = stream.io->write(layer, stream, block, count);
        if (put != count)
            qaserr("xdr_rite(): I/O error on output for tag \"%s\" -- ierr=%d \n", stream.tagname.c_str(),
                   static_cast<int>(put));
        done += count;
    }
    return nbytes;
}

}  // namespace qas
