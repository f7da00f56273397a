#include "lib/corelibs/qas/transfer.h"

#include <algorithm>
#include <cstring>

#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

constexpr int converted_formats = 3;
constexpr std::int64_t block_bytes = std::int64_t{256} << 10;  // stays in the second-level cache

/// Opens the data at the first transfer; false if there are none.
bool open_data(Layer& layer, streaminf& stream) {
    if (stream.valid && !stream.ioinf) stream.io->open(layer, stream);
    return stream.valid;
}

void warn_short(Layer& layer, const streaminf& stream, std::int64_t expected, std::int64_t got) {
    layer.notes.once(
        "short\n" + stream.tagname,
        strprintf("warning: sreed(): the data \"%s\" of tag \"%s\" (header \"%s\") are shorter than its axes"
                  " say: expected %lld bytes, found %lld\n",
                  stream.dataname.c_str(), stream.tagname.c_str(), stream.headername.c_str(),
                  static_cast<long long>(expected), static_cast<long long>(got)));
}

char* xdr_block(Layer& layer) {
    layer.xdr_block.resize(static_cast<std::size_t>(block_bytes));
    return layer.xdr_block.data();
}

}  // namespace

std::int64_t sreed(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes) {
    if (nbytes <= 0) return 0;
    streaminf& stream = *tag_info(layer, tag, Mode::input);
    if (!open_data(layer, stream) || stream.entrytype == STREAMOUT || stream.entrytype == STREAMSOCKOUT)
        qaserr("sreed(): invalid input tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    const std::int64_t got = stream.format_num < converted_formats
                                 ? sreed_xdr(layer, stream, buffer, nbytes, stream.format_num)
                                 : stream.io->read(layer, stream, buffer, nbytes);
    if (got < nbytes) warn_short(layer, stream, nbytes, got);
    return got;
}

std::int64_t srite(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes) {
    if (nbytes <= 0) return 0;
    streaminf& stream = *tag_info(layer, tag, Mode::output);
    if (!open_data(layer, stream) || stream.entrytype == STREAMIN)
        qaserr("srite(): invalid output tag %s\n%s", stream.tagname.c_str(), stream.trouble.c_str());
    qasstr_ready_out(layer, stream);
    return stream.format_num < converted_formats ? srite_xdr(layer, stream, buffer, nbytes, stream.format_num)
                                                 : stream.io->write(layer, stream, buffer, nbytes);
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
    char* block = xdr_block(layer);
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
    char* block = xdr_block(layer);
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
