#pragma once
/// A SEG-Y file of revision 0, 1 or 2, read trace by trace through libsegyio.
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct segy_file_handle;

namespace morvane::prepare {

/// First bytes, from 1, of the words of a trace header that are looked at.
struct TraceWords {
    int source_x = 73, source_y = 77, group_x = 81, group_y = 85, coordinate_scalar = 71;
    int group_elevation = 41, source_depth = 49, elevation_scalar = 69;
    int delay = 109;    ///< recording delay, ms
    int trace_id = 29;  ///< 1 seismic data, 2 dead, ...
};

/// Refuses (qas::Fatal) a position at which the standard has no word, naming the key "NAME_word".
void check_words(const TraceWords& words);

struct SegyOptions {
    TraceWords words;
    double dt = 0.0;         ///< sample interval, s; 0: that of the headers
    int format = 0;          ///< sample format code; 0: that of the binary header
    std::string endian;      ///< "big", "little", or empty: found from the binary header
    bool truncated = false;  ///< a last trace that is cut short is left out instead of refused
};

/// What is known before a trace is read.
struct SegyInfo {
    int revision = 0, format = 1, samples = 0, traces = 0;
    double dt = 0.0;      ///< s
    bool little = false;  ///< byte order
    int measurement = 0;  ///< 1 metres, 2 feet, 0 not said
    std::int64_t first_trace = 3600, bytes = 0;
    std::vector<std::string> text;   ///< lines of the textual header that are not empty
    std::vector<std::string> notes;  ///< what is odd in the headers, in words
};

/// One trace header, coordinates and elevations with their scalars applied, in the file's unit of length.
struct TraceHeader {
    double source_x = 0, source_y = 0, group_x = 0, group_y = 0;
    double cdp_x = 0, cdp_y = 0;
    double group_elevation = 0, source_depth = 0;
    double delay = 0;  ///< s
    int trace_id = 1;
    double offset() const;
};

/// Refuses (qas::Fatal), with the file and, where there is one, the trace: a file that is not there, not an ordinary
/// file, too short, of an unknown sample format, without samples or interval, or cut short within a trace; traces of
/// another length or interval than the first; coordinates that are angles; samples that are not finite.
class SegyFile {
public:
    SegyFile(const std::string& path, const SegyOptions& options);

    const SegyInfo& info() const { return info_; }
    const std::string& path() const { return path_; }
    /// Factor on all coordinates, elevations and depths of headers read from now on.
    void scale_lengths(double factor) { length_ = factor; }
    /// @param trace from 0; messages count from 1
    TraceHeader header(int trace);
    /// @param values info().samples
    void samples(int trace, std::span<float> values);

private:
    struct Close {
        void operator()(segy_file_handle* file) const;
    };
    void read_binary_header(const SegyOptions& options);
    void read_text(std::span<const unsigned char> start);
    void find_first_trace(std::span<const unsigned char> start);
    void count_traces(bool truncated, std::int64_t trailer_bytes);
    void take_interval();
    [[noreturn]] void refuse_read(int trace) const;

    std::string path_;
    SegyOptions options_;
    SegyInfo info_;
    std::unique_ptr<segy_file_handle, Close> file_;
    double length_ = 1;
    int trace_bytes_ = 0;
    std::vector<char> buffer_;
};

/// The value of a word with a SEG-Y scalar: positive multiplies, negative divides, 0 stands for 1.
double scaled(int value, int scalar);

}  // namespace morvane::prepare
