#pragma once
/// Moving samples: the transfers programs call, and the conversion from and to big-endian words.
#include <cstdint>
#include <string_view>

#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// Moves up to `nbytes` of samples from the current position of `tag` (an input if new), converted from its format.
/// Returns the bytes taken from the data; fewer than asked is their end, warned about once a dataset.
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

/// The transfers of one XDR format: 0 floats, 1 integers, 2 bytes. A count that is no multiple of 4 in formats 0 and 1
/// moves the whole words in it, and is returned in full.
std::int64_t sreed_xdr(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes, int format);
std::int64_t srite_xdr(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes, int format);

}  // namespace qas
