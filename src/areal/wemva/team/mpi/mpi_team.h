#pragma once
/// A team of MPI processes.
#include <memory>

#include "src/areal/wemva/team/team.h"

namespace morvane {

class Leader;
class Member;

/// A thread of its own makes all calls of MPI in a process, so that parts travel while shots are computed. It looks for
/// messages at least every two milliseconds and sleeps between.
///
/// Memory beside the caller's: a member keeps one part that waits to be taken; the leader some levels of a part, 4 MB.
class MpiTeam : public Team {
public:
    /// Starts MPI, which ends the program where that fails.
    MpiTeam(int& argc, char**& argv);
    ~MpiTeam() override;
    /// To be called last, by all: the leader ends the others' waiting and work; then MPI ends. Whoever does not answer
    /// within half a minute is ended by force, with `status`.
    void finish(int status);

    int rank() const override { return rank_; }
    int size() const override { return size_; }
    std::string place() const override;
    void begin(Task task) override;
    void hand_out(std::vector<ShotGroup> groups, bool in_order, Sum& sum) override;
    std::optional<Task> await() override;
    void share(std::span<std::byte> bytes) override;
    std::optional<ShotGroup> next() override;
    bool deliver(const Part& part, double seconds) override;
    bool complete(double seconds) override;
    int shots_added() const override;
    void undisturbed(const std::function<void()>& work) override;
    void withdraw() override;
    void meet() override;
    void fail(const std::string& reason) override;
    void check() override;

private:
    int rank_ = 0, size_ = 1;
    int stderr_;                      // members say nothing there but their last words
    std::unique_ptr<Leader> leader_;  // one of the two
    std::unique_ptr<Member> member_;
};

}  // namespace morvane
