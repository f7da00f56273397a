#pragma once
/// Moving samples: the transfers programs call, and the conversion from and to big-endian words.
#include <cstdint>
#include <string_view>

#include "lib/corelibs/qas/data/window.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Moves up to `nbytes` of samples from the current position of `tag` (an input if new), converted from its format.
/// Returns the bytes taken from the data; fewer than asked is their end, warned about once per dataset.
/// Errors: "sreed(): invalid input tag %s\n", and those of the transfer routines.
std::int64_t sreed(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes);

/// Appends `nbytes` of samples to `tag` (an output if new), converted to its format; the first call completes the
/// header. Errors: "srite(): invalid output tag %s\n", and those of the transfer routines.
std::int64_t srite(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes);

/// Moves the position of a tag in use; whence 0 start of the data, 1 current, 2 end. Returns the new position, -1 with
/// a message on the standard error if it cannot be reached.
/// Errors: "Unknown tag \"%s\" \n", "sseek(): invalid tag %s\n".
std::int64_t sseek(Layer& layer, std::string_view tag, std::int64_t offset, int whence);

/// Size of the data of an input tag in bytes; -1 if they are in no ordinary file.
std::int64_t ssize(Layer& layer, std::string_view tag);

/// As sreed and srite, in the format of this name for one call.
/// Errors: also "unknown data format: %s \n %s \n".
std::int64_t sreed2(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes, std::string_view format);
std::int64_t srite2(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes,
                    std::string_view format);

/// As sreed and srite, without conversion.
std::int64_t sreed_raw(Layer& layer, std::string_view tag, void* buffer, std::int64_t nbytes);
std::int64_t srite_raw(Layer& layer, std::string_view tag, const void* buffer, std::int64_t nbytes);

/// Moves the samples of a window, in order, between the data of `tag` and `buffer`. Returns the bytes moved. Data that
/// can only be read onwards are; a window beyond their end comes short.
/// Errors: a window that does not lie in its grid, and those of the transfers.
std::int64_t sreed_window(Layer& layer, std::string_view tag, const Window& window, void* buffer);
std::int64_t srite_window(Layer& layer, std::string_view tag, const Window& window, const void* buffer);

/// sseek to block number `block` of `block_bytes` bytes, counted as whence says. Returns the new position in bytes.
std::int64_t sseek_block(Layer& layer, std::string_view tag, std::int64_t block, std::int64_t block_bytes, int whence);
/// Position of a tag in use, in bytes from the start of its data.
std::int64_t file_position(Layer& layer, std::string_view tag);
/// Whether a tag in use can be positioned backwards.
bool sseekable(Layer& layer, std::string_view tag);

/// The transfers of one XDR format: 0 floats, 1 integers, 2 bytes. A count that is no multiple of 4 in formats 0 and 1
/// moves the whole words in it, and is returned in full.
std::int64_t sreed_xdr(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes, int format);
std::int64_t srite_xdr(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes, int format);

}  // namespace qas
