#include "src/areal/wemva/restart/fingerprint.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include "lib/corelibs/qas/parameters/keys.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/key_table.h"

namespace morvane {

namespace {

/// Keys that may differ: how the run is carried out and told of. `niter` is compared where its count is known.
constexpr std::array<std::string_view, 8> free_keys{"niter",  "node",     "checkpoint", "checkpoint_minutes",
                                                    "resume", "progress", "quiet",      "keep"};

std::uint32_t checksum(std::string_view bytes, std::uint32_t before = 0) {
    return static_cast<std::uint32_t>(::crc32_z(before, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

std::string describe(std::int64_t bytes, std::uint32_t sum) {
    char text[64];
    std::snprintf(text, sizeof text, "%lld bytes, checksum %08x", static_cast<long long>(bytes), sum);
    return text;
}

/// Of blocks spread evenly over the data, the first and the last among them.
std::uint32_t sample(qas::Session& session, std::string_view tag, std::int64_t size) {
    constexpr std::int64_t block = 4096, blocks = 256;
    std::vector<char> bytes(block);
    std::uint32_t sum = 0;
    for (std::int64_t k = 0; k < blocks; ++k) {
        const std::int64_t last = std::max<std::int64_t>(size - block, 0);
        session.sseek(tag, last * k / (blocks - 1), 0);
        const std::int64_t count = session.sreed_raw(tag, bytes.data(), std::min(block, size));
        sum = checksum({bytes.data(), static_cast<std::size_t>(std::max<std::int64_t>(count, 0))}, sum);
        if (last == 0) break;
    }
    session.sseek(tag, 0, 0);
    return sum;
}

std::map<std::string_view, std::string_view> lines_of(std::string_view text) {
    std::map<std::string_view, std::string_view> lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t equal = line.find('=');
        lines.emplace(line.substr(0, equal), equal == line.npos ? std::string_view() : line.substr(equal + 1));
    }
    return lines;
}

}  // namespace

std::string fingerprint_of_parameters(qas::Session& session) {
    std::string lines;
    for (const qas::KeyGroup& group : run_keys()) {
        for (const qas::Key& key : group.keys) {
            if (std::ranges::find(free_keys, key.name) != free_keys.end()) continue;
            if (const auto value = session.fetch<std::string>(key.name)) lines += key.name + "=" + *value + "\n";
        }
    }
    return lines;
}

std::string fingerprint_of_inputs(qas::Session& session, std::initializer_list<std::string_view> tags) {
    std::string lines;
    for (const std::string_view tag : tags) {
        const std::string header = session.history(tag);
        const std::int64_t size = session.data_size(tag);
        lines += "header of " + std::string(tag) + "=" + describe(std::ssize(header), checksum(header)) + "\n";
        lines += "data of " + std::string(tag) + "=" + describe(size, sample(session, tag, size)) + "\n";
    }
    return lines;
}

std::string fingerprint_of_file(const std::string& label, const std::string& name) {
    std::ifstream file(name, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return label + "=" + describe(std::ssize(text), checksum(text)) + "\n";
}

void compare_fingerprints(const std::string& what, std::string_view then, std::string_view now) {
    const auto before = lines_of(then), after = lines_of(now);
    const auto value = [](const auto& lines, std::string_view name) {
        const auto found = lines.find(name);
        std::string text = "not given";
        if (found != lines.end()) text.assign("\"").append(found->second).append("\"");
        return text;
    };
    for (const auto* lines : {&before, &after})
        for (const auto& [name, unused] : *lines)
            if (value(before, name) != value(after, name))
                refuse("%s: %.*s was %s when the checkpoint was written, and is %s now", what.c_str(),
                       static_cast<int>(name.size()), name.data(), value(before, name).c_str(),
                       value(after, name).c_str());
}

}  // namespace morvane
