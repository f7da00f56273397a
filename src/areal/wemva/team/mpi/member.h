#pragma once
/// A member's side: asks for groups, keeps one part until the leader takes it.
#include <optional>
#include <string>
#include <vector>

#include "src/areal/wemva/team/mpi/courier.h"
#include "src/areal/wemva/team/team.h"

namespace morvane {

class Member : public Courier {
public:
    Member(int rank, int size);
    ~Member() override;

    // As in Team. All end when the leader ends the run.
    std::optional<Team::Task> await();
    std::optional<ShotGroup> next();
    void deliver(const Part& part);
    void meet();
    void fail(const std::string& reason);
    /// Whether the leader ends the run within so many seconds.
    bool has_ended(double seconds);
    /// The last word.
    void leave();

private:
    bool work(std::unique_lock<std::mutex>& lock) override;
    void say(const Note& note);
    void send_part();

    std::optional<Team::Task> task_;
    std::optional<Note> reply_;
    bool ended_ = false, told_signal_ = false;

    bool waits_ = false;  // the part below, to be taken
    std::vector<float> image_, light_, seconds_;
    std::vector<double> sums_;
    std::size_t level_ = 0;  // samples
};

}  // namespace morvane
