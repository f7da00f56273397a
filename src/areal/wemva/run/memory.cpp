#include "src/areal/wemva/run/memory.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>

#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

/// Bytes of memory that programs can still get; 0 if the system does not say.
std::int64_t free_memory() {
    std::ifstream in("/proc/meminfo");
    std::string word;
    while (in >> word) {
        if (word != "MemAvailable:") continue;
        std::int64_t kilobytes = 0;
        in >> kilobytes;
        return 1024 * kilobytes;
    }
    return 0;
}

}  // namespace

std::int64_t keep_limit(const std::string& keep) {
    if (keep == "n" || keep == "no") return 0;
    if (keep == "auto") return free_memory() / 2;
    double gigabytes = 0.0;
    const char* const end = keep.data() + keep.size();
    const auto [rest, error] = std::from_chars(keep.data(), end, gigabytes);
    if (error != std::errc() || rest != end || !(gigabytes > 0.0) || !std::isfinite(gigabytes))
        refuse("keep=%s: n, auto or a number of GB above 0 is needed", keep.c_str());
    constexpr double most = 9e18;
    return static_cast<std::int64_t>(std::min(1e9 * gigabytes, most));
}

}  // namespace morvane
