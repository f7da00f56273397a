#pragma once
/// The header of NumPy's .npy files (versions 1.0 to 3.0), as far as samples of datasets go into them.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace qastool {

struct NpyHeader {
    char type = 'f';             ///< f real, c complex, i signed integer, u unsigned integer
    int size = 4;                ///< bytes of an element
    bool swapped = false;        ///< byte order is not that of this machine
    bool fortran_order = false;  ///< the first index is the fastest, not the last
    std::vector<std::int64_t> shape;
    std::int64_t elements = 1;  ///< their product; their bytes fit 64 bits

    std::int64_t bytes() const { return elements * size; }
};

/// Reads the header of a file from its start; the stream then stands at the first sample. Taken are the types f4, f8,
/// c8, c16, i4, u1 in either byte order, and up to 9 axes of at least one sample.
/// Errors, with `name`: another magic, version, type, shape or order; a header that is cut short or malformed.
NpyHeader read_npy_header(std::FILE* file, const std::string& name);

/// The dictionary text of a header. Errors as read_npy_header.
NpyHeader parse_npy_dictionary(std::string_view text, const std::string& name);

/// The bytes of a version 1.0 header in this machine's byte order, padded to a multiple of 64.
std::string npy_header_bytes(const NpyHeader& header);

}  // namespace qastool
