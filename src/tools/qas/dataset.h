#pragma once
/// What a header says about its data, and moving samples block by block: memory does not grow with the data.
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"

namespace qastool {

/// Bytes moved at once.
inline constexpr std::int64_t block_bytes = std::int64_t{1} << 20;

enum class Kind { real, complex, integer, byte, other };
std::string kind_name(Kind kind);

struct GridAxis {
    std::int64_t n = 1;
    double d = 1.0, o = 0.0;
    bool given = false;  ///< the header has its n
    std::string label;
};

struct Dataset {
    std::string tag;
    std::string name;    ///< header, for messages
    std::string data;    ///< value of `in`; empty: no data
    std::string format;  ///< name of the data format
    Kind kind = Kind::real;
    std::int64_t esize = 4;      ///< bytes of a sample
    std::vector<GridAxis> axes;  ///< axis 1 first, up to the last that is given; empty: none is
    std::int64_t samples = 0;    ///< what the axes promise; their bytes fit 64 bits. 0 without axes

    std::int64_t bytes() const { return samples * esize; }
};

constexpr int most_axes = 9;

/// Reads header values of input `tag`: n1 to n9, d#, o#, label#, esize, in. An axis in between that is not given has
/// one sample. `esize` 8 is complex, of two floats; without it 4, or 1 in the byte formats.
/// Errors, with header, key and value: an n# that is no integer of at least 1, a d# or o# that is no finite number,
/// axes whose bytes exceed 64 bits, an esize that does not fit the format.
Dataset read_description(qas::Session& session, const std::string& tag, const std::string& name);

/// Refuses a dataset without axes, without data, or of fewer than `bytes` bytes where their size is known.
void require_data(qas::Session& session, const Dataset& set, std::int64_t bytes);
/// Refuses a format whose samples are no numbers here.
void require_numbers(const Dataset& set);

using Sink = std::function<void(std::span<char>)>;

/// Hands the next `bytes` bytes of a dataset to `sink`, converted from its format, in blocks of whole samples.
/// Errors: the data end before.
void pass_on(qas::Session& session, const Dataset& set, std::int64_t bytes, const Sink& sink);

/// A sink that writes samples to the dataset "out".
Sink dataset_sink(qas::Session& session);

/// Writes integer `name` to the history of "out".
void put_integer(qas::Session& session, const std::string& name, std::int64_t value);

/// Refuses a `data_format=` parameter for "out" that would change what the samples are.
void check_output_format(qas::Session& session, const Dataset& set);
/// What the samples of a data format are.
Kind kind_of_format(const std::string& format, std::int64_t esize);

/// Indices from 0 of sample number `sample`, as the window parameters that cut it out: "f1=3 f3=5".
std::string position_text(const std::vector<GridAxis>& axes, std::int64_t sample);

/// Calls use(real part, imaginary part) for each sample of a block.
template <class Use>
void for_each_sample(Kind kind, std::span<const char> block, Use use) {
    const auto at = [&]<class T>(T value, std::size_t byte) {
        std::memcpy(&value, block.data() + byte, sizeof value);
        return static_cast<double>(value);
    };
    switch (kind) {
        case Kind::real:
            for (std::size_t i = 0; i + 4 <= block.size(); i += 4) use(at(0.0f, i), 0.0);
            break;
        case Kind::complex:
            for (std::size_t i = 0; i + 8 <= block.size(); i += 8) use(at(0.0f, i), at(0.0f, i + 4));
            break;
        case Kind::integer:
            for (std::size_t i = 0; i + 4 <= block.size(); i += 4) use(at(std::int32_t{0}, i), 0.0);
            break;
        default:
            for (const char c : block) use(static_cast<double>(static_cast<unsigned char>(c)), 0.0);
    }
}

}  // namespace qastool
