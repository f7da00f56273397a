#pragma once
/// Threads that share a piece of work, and the turns that they take at what they all write.
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "lib/base/index.h"

namespace morvane {

/// work(0) .. work(n - 1), each on a thread of its own, the first on the caller's. Returns when all have; no thread
/// spins meanwhile. Errors: the first exception that any of them threw.
template <class Work>
void in_parallel(int n, Work work) {
    std::exception_ptr failure;
    std::mutex guard;
    const auto run = [&](int i) {
        try {
            work(i);
        } catch (...) {
            const std::lock_guard lock(guard);
            if (!failure) failure = std::current_exception();
        }
    };
    {
        std::vector<std::jthread> others;
        for (int i = 1; i < n; ++i) others.emplace_back(run, i);
        run(0);
    }
    if (failure) std::rethrow_exception(failure);
}

/// One thread at a time at each of several places: in the order of their turns, or as they come. Turns count from 0;
/// each must pass or skip every place, and be taken up in their order, so that none waits for one that nobody works on.
class Turns {
public:
    Turns(std::ptrdiff_t places, bool in_order) : places_(at(places)), in_order_(in_order) {}

    /// work() at a place, unless the turn has passed it before.
    template <class Work>
    void pass(std::ptrdiff_t place, int turn, Work work) {
        Place& p = places_[at(place)];
        if (!in_order_) {
            const std::lock_guard lock(p.guard);
            work();
            return;
        }
        int now = p.next.load(std::memory_order_acquire);
        for (; now < turn; now = p.next.load(std::memory_order_acquire)) p.next.wait(now, std::memory_order_acquire);
        if (now > turn) return;
        work();
        p.next.store(turn + 1, std::memory_order_release);
        p.next.notify_all();
    }

    /// Passes without work every place that the turn has not passed yet, so that later ones need not wait for it.
    void skip(int turn) {
        if (!in_order_) return;
        for (std::size_t place = 0; place < places_.size(); ++place)
            pass(static_cast<std::ptrdiff_t>(place), turn, [] {});
    }

private:
    struct alignas(64) Place {
        std::mutex guard;
        std::atomic<int> next{0};
    };
    std::vector<Place> places_;
    bool in_order_;
};

}  // namespace morvane
