#include "src/areal/wemva/run/exec_time.h"

#include <time.h>

namespace morvane {

float owexec_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm day{};
    localtime_r(&now.tv_sec, &day);
    const int seconds = day.tm_hour * 3600 + day.tm_min * 60 + day.tm_sec;
    const int milliseconds = static_cast<int>(now.tv_nsec / 1000000);
    return static_cast<float>(seconds) + static_cast<float>(milliseconds) * 0.001f;
}

Spent spent_so_far() {
    const auto seconds = [](clockid_t clock) {
        timespec now{};
        clock_gettime(clock, &now);
        return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
    };
    return {seconds(CLOCK_MONOTONIC), seconds(CLOCK_PROCESS_CPUTIME_ID)};
}

}  // namespace morvane
