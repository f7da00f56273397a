#include "src/areal/wemva/run/interruption.h"

#include <time.h>

#include <atomic>
#include <csignal>

namespace morvane::interruption {

namespace {

constexpr int signals[] = {SIGINT, SIGTERM, SIGUSR1};
std::atomic<int> noted = 0;
std::atomic<bool> dropping = false;
std::atomic<double> noted_at = 0.0;
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<double>::is_always_lock_free);

double now() {
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

extern "C" void note(int number) {
    noted_at = now();
    noted = number;
    for (const int other : signals) std::signal(other, SIG_DFL);
}

}  // namespace

void listen() {
    for (const int number : signals) {
        struct sigaction action {
        }, before{};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler == SIG_IGN) continue;  // nohup, or a shell's background job
        action.sa_handler = note;
        action.sa_flags = SA_RESTART;
        ::sigaction(number, &action, nullptr);
    }
}

int signal() {
    return noted;
}

bool is_overdue() {
    return dropping || (noted != 0 && now() - noted_at > patience_s);
}

void note_signal(int number) {
    int none = 0;
    noted_at = now();
    noted.compare_exchange_strong(none, number);
}

void drop() {
    dropping = true;
}

void forget() {
    for (const int number : signals) std::signal(number, SIG_DFL);
    noted = 0;
    dropping = false;
}

}  // namespace morvane::interruption
