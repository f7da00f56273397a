#pragma once
/// Writes SEG-Y without any library, right or wrong on purpose.
#include <bit>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct SegyTrace {
    std::map<int, int> words;  ///< by first byte
    std::vector<float> samples;
};

struct SegyWriter {
    int format = 5;
    bool little = false;
    int revision = 1;
    int micro = 4000;  ///< sample interval of the binary header
    int samples = -1;  ///< of the binary header; -1: those of the first trace
    int measurement = 1;
    int extended = 0;         ///< extended textual headers
    std::map<int, int> more;  ///< further words of the binary header, two bytes by their byte in the file

    void put(std::string& bytes, std::size_t at, std::int64_t value, int size) const {
        for (int i = 0; i < size; ++i)
            bytes[at + (little ? i : size - 1 - i)] = static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * i));
    }
    static int width(int word) {
        const bool half =
            (word >= 29 && word < 37) || (word >= 69 && word < 73) || (word >= 89 && word < 181) || word >= 201;
        return half ? 2 : 4;
    }
    static std::uint32_t ibm(float value) {
        if (value == 0) return 0;
        const std::uint32_t sign = value < 0 ? 0x80000000u : 0;
        double fraction = std::abs(static_cast<double>(value));
        int exponent = 64;
        for (; fraction >= 1; fraction /= 16) ++exponent;
        for (; fraction < 1.0 / 16; fraction *= 16) --exponent;
        return sign | static_cast<std::uint32_t>(exponent) << 24 |
               static_cast<std::uint32_t>(std::min(std::lround(fraction * 16777216), 0xffffffl));
    }
    void put_sample(std::string& bytes, std::size_t at, float value) const {
        if (format == 1) put(bytes, at, ibm(value), 4);
        if (format == 5) put(bytes, at, std::bit_cast<std::uint32_t>(value), 4);
        if (format == 2) put(bytes, at, std::lround(value), 4);
        if (format == 3) put(bytes, at, std::lround(value), 2);
        if (format == 8) put(bytes, at, std::lround(value), 1);
    }
    std::string bytes(const std::vector<SegyTrace>& traces) const {
        std::string all(3600 + 3200 * static_cast<std::size_t>(std::abs(extended)), '\0');
        std::fill_n(all.begin(), 3200, ' ');
        all.replace(0, 20, "C 1 A LINE OF A TEST");
        put(all, 3216, micro, 2);
        put(all, 3220, samples >= 0 ? samples : traces.empty() ? 1 : std::ssize(traces[0].samples), 2);
        put(all, 3224, format, 2);
        put(all, 3254, measurement, 2);
        all[3500] = static_cast<char>(revision);
        put(all, 3504, extended, 2);
        if (extended < 0) all.replace(all.size() - 3200, 18, "((SEG: EndText))  ");
        for (const auto& [at, value] : more) put(all, static_cast<std::size_t>(at - 1), value, 2);
        const std::size_t each = format == 3 ? 2 : format == 8 ? 1 : 4;
        for (const SegyTrace& trace : traces) {
            const std::size_t start = all.size();
            all.resize(start + 240 + each * trace.samples.size());
            for (const auto& [word, value] : trace.words)
                put(all, start + static_cast<std::size_t>(word - 1), value, width(word));
            for (std::size_t i = 0; i < trace.samples.size(); ++i)
                put_sample(all, start + 240 + each * i, trace.samples[i]);
        }
        return all;
    }
};
