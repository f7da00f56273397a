#pragma once
/// The thread that makes all calls of MPI in a process.
#include <mpi.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <thread>

namespace morvane {

/// A message between leader and members.
struct Note {
    enum What : int {
        task,      ///< to members: first what, then number
        group,     ///< to a member: number, first, end
        no_group,  ///< to a member
        take,      ///< to a member: send the part that waits
        end,       ///< to members: the run is over
        ask,       ///< to the leader: the next group
        offer,     ///< to the leader: a part waits; number, first, end and the sizes
        ready,     ///< to the leader
        failed,    ///< to the leader: a text of `length` follows
        signal,    ///< to the leader: number
        bye,       ///< to the leader: nothing follows
    };
    int what = 0, number = 0, first = 0, end_shot = 0;
    int first_column = 1, columns = 0, rows = 0, levels = 0, light_columns = 0, light_levels = 0;
    int sums = 0, seconds = 0, length = 0;
};

/// Levels of an image that go in one message: up to 4 MB of them.
inline int levels_at_once(std::size_t samples_of_level) {
    constexpr std::size_t most = std::size_t{1} << 20;
    return static_cast<int>(most / (samples_of_level + 1) + 1);
}

/// Base of both sides. `mutex_` guards everything that the two threads share. A derived class starts the thread when it
/// is complete, and stops it before it goes.
class Courier {
public:
    Courier(int rank, int size);
    virtual ~Courier();
    Courier(const Courier&) = delete;
    Courier& operator=(const Courier&) = delete;

    /// Does `job` in the thread, between messages, and waits for its end.
    void call(const std::function<void()>& job);
    void share(std::span<std::byte> bytes);
    void check();
    const std::string& place() const { return place_; }
    int rank() const { return rank_; }
    int size() const { return size_; }

protected:
    void start();
    void stop();
    void send(int to, const Note& note) const;
    void send_block(int to, const void* bytes, std::size_t count) const;
    void receive_block(int from, void* bytes, std::size_t count) const;
    /// The next note, if one has come, and from whom.
    bool receive(Note& note, int& from) const;
    /// One round of the thread, which holds the lock; false if there was nothing to do.
    virtual bool work(std::unique_lock<std::mutex>& lock) = 0;
    /// An error ends what waits.
    void set_failure(const std::string& reason);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string failure_;

private:
    int rank_, size_;
    std::string place_;

    void run();
    bool do_jobs(std::unique_lock<std::mutex>& lock);

    struct Job {
        const std::function<void()>* work;
        bool done = false;
        std::exception_ptr error = nullptr;
    };
    std::deque<Job*> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace morvane
