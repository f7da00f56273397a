#include "src/tools/morvane_synth/dataset_output.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace morvane {

std::string named(qas::Session& session, const std::string& tag) {
    return session.getch<std::string>(tag).value_or(tag);
}

void write_bytes(qas::Session& session, const std::string& tag, std::span<const std::byte> bytes) {
    const auto size = static_cast<std::int64_t>(bytes.size());
    if (session.srite(tag, bytes.data(), size) != size)
        qas::qaserr("%s=%s could not be written: %s\n", tag.c_str(), named(session, tag).c_str(), std::strerror(errno));
}

}  // namespace morvane
