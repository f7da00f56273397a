#pragma once
/// The processes that share the shots of a run. Rank 0 leads: it alone has solver, outputs, logs and checkpoint. The
/// others are members: they compute what the leader asks for, and hand over sums.
///
/// A pass: the leader calls begin(), the members get its task from await(). Both share() the same blocks. Then each
/// takes groups with next() and delivers what they contribute until there are no more; the leader waits for complete().
/// How the processes talk is known to the implementations alone.
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lib/base/array.h"

namespace morvane {

/// Consecutive shots, counted from 1, that one process takes at a time.
struct ShotGroup {
    int number = 0;  ///< of the group, in the order of a pass
    int first = 1, end = 1;
    int shots() const { return end - first; }
};

/// What the shots of a group contribute to the sums of a pass, or some levels of it. Views may be empty.
struct Part {
    ShotGroup group;
    int first_column = 1;            ///< in the image, counted from 1
    int first_level = 0;             ///< counted from 0
    View<const float, 3> image;      ///< (columns, rows, levels)
    View<const float, 2> light;      ///< (columns, all levels)
    std::span<const double> sums;    ///< added as they are
    std::span<const float> seconds;  ///< that each shot took
    bool is_last = true;             ///< nothing of this group follows
    int threads = 1;                 ///< that may add it
};

/// The leader's sums. Parts are added one at a time, those of a group without others between.
class Sum {
public:
    virtual ~Sum() = default;
    virtual void add(const Part& part) = 0;
};

class Team {
public:
    /// What the members are to do next; the numbers are the caller's.
    struct Task {
        int what = 0, number = 0;
    };

    virtual ~Team() = default;
    virtual int rank() const = 0;
    virtual int size() const = 0;
    bool leads() const { return rank() == 0; }
    /// "rank 2 of 4 on HOST"
    virtual std::string place() const = 0;

    /// Leader: begins a task of the members, without groups.
    virtual void begin(Task task) = 0;
    /// Leader: the groups of the pass that has begun.
    /// @param in_order whether parts are added in the order of their groups, whoever is first; else as they come
    /// @param sum      must outlive the pass
    virtual void hand_out(std::vector<ShotGroup> groups, bool in_order, Sum& sum) = 0;
    /// Members: waits for the leader's next task; none: the run is over.
    virtual std::optional<Task> await() = 0;
    /// Copies the leader's bytes to all. Leader and members call it in the same order with blocks of the same size.
    virtual void share(std::span<std::byte> bytes) = 0;
    /// The next group of this process; none: there are no more in this pass.
    virtual std::optional<ShotGroup> next() = 0;
    /// Hands over what a group contributes; the part's memory is the caller's again afterwards. False if other groups
    /// have to come first and none did within so many seconds: to be called again.
    virtual bool deliver(const Part& part, double seconds) = 0;
    /// Leader: whether all groups have been added. Waits for that up to so many seconds.
    virtual bool complete(double seconds) = 0;
    /// Leader: shots added in this pass.
    virtual int shots_added() const = 0;
    /// Leader: calls `work` while nothing is added, and no group is half added.
    virtual void undisturbed(const std::function<void()>& work) = 0;
    /// Leader: no more groups are handed out, and nothing is added any more.
    virtual void withdraw() = 0;
    /// Members say that they are ready for a pass; the leader waits until all have.
    virtual void meet() = 0;
    /// Members: tells the leader why this process cannot go on.
    virtual void fail(const std::string& reason) = 0;
    /// Ends the caller with the failure of another process, if there is one. All that wait do so too.
    /// Errors: qas::Fatal.
    virtual void check() = 0;
};

/// One process.
std::unique_ptr<Team> serial_team();

/// Groups of `at_once` shots, the last one shorter, less the shots that are done; what is left of a group stays
/// together as far as no such shot lies between.
/// @param done for each shot, 0 or 1
std::vector<ShotGroup> shot_groups(int at_once, std::span<const char> done);

template <class T>
void share(Team& team, std::span<T> values) {
    static_assert(std::is_trivially_copyable_v<T>);
    team.share(std::as_writable_bytes(values));
}

}  // namespace morvane
