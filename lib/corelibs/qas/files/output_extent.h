#pragma once
/// How far an output has come.
#include <cstdint>
#include <string>

namespace qas {

/// An output as it stands on the disk.
struct OutputExtent {
    std::string tag;
    std::string header, data;  ///< names of its files, absolute; empty: not an ordinary file of its own
    std::int64_t header_bytes = 0, data_bytes = 0;
    std::string tail;                                                ///< the last bytes of the header
    bool has_title = false, names_data = false, has_format = false;  ///< lines that the header has once
};

}  // namespace qas
