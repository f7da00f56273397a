#pragma once
/// The leader's side: groups handed out on demand, parts taken when it is their turn.
#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "src/areal/wemva/team/mpi/courier.h"
#include "src/areal/wemva/team/team.h"

namespace morvane {

class Leader : public Courier {
public:
    explicit Leader(int size);
    ~Leader() override;

    // As in Team.
    void begin(Team::Task task);
    void hand_out(std::vector<ShotGroup> groups, bool in_order, Sum& sum);
    std::optional<ShotGroup> next();
    bool deliver(const Part& part, double seconds);
    bool complete(double seconds);
    int shots_added() const { return shots_added_; }
    void undisturbed(const std::function<void()>& work);
    void withdraw();
    void meet();
    /// Ends the members' waiting and work. False if some did not answer within so many seconds.
    bool dismiss(double seconds);

private:
    struct Offer {
        int from;
        Note note;
    };
    bool work(std::unique_lock<std::mutex>& lock) override;
    void answer(const Note& note, int from);
    void answer_question(int from);
    bool has_turn(int number) const { return !in_order_ || number == groups_added_; }
    /// Adds to the sum without the lock, while nobody else does.
    void add_unlocked(std::unique_lock<std::mutex>& lock, const std::function<void()>& add);
    bool take_one(std::unique_lock<std::mutex>& lock);
    void take(const Offer& offer);
    void count(const ShotGroup& group);
    void throw_failure() const;

    // Of the pass.
    std::vector<ShotGroup> groups_;
    std::size_t next_ = 0;
    int groups_added_ = 0;
    int told_ = 0;  // members that know that no groups are left
    std::atomic<int> shots_added_ = 0;
    bool in_order_ = false, open_ = false;
    Sum* sum_ = nullptr;
    std::map<int, Offer> offers_;  // by the number of the group
    std::vector<int> asking_;      // members that asked before there were groups

    bool adding_ = false;  // one of the two threads adds a group
    bool paused_ = false;
    bool stopped_by_signal_ = false;
    int ready_ = 0, gone_ = 0;
};

}  // namespace morvane
