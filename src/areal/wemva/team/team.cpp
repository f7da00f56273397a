#include "src/areal/wemva/team/team.h"

#include <algorithm>
#include <utility>

namespace morvane {

namespace {

/// Everything is added at once.
class SerialTeam : public Team {
    std::vector<ShotGroup> groups_;
    std::size_t next_ = 0;
    int added_ = 0;
    Sum* sum_ = nullptr;

public:
    int rank() const override { return 0; }
    int size() const override { return 1; }
    std::string place() const override { return "this process"; }
    void begin(Task) override {}
    void hand_out(std::vector<ShotGroup> groups, bool, Sum& sum) override {
        groups_ = std::move(groups);
        next_ = 0;
        added_ = 0;
        sum_ = &sum;
    }
    std::optional<Task> await() override { return std::nullopt; }
    void share(std::span<std::byte>) override {}
    std::optional<ShotGroup> next() override {
        if (next_ == groups_.size()) return std::nullopt;
        return groups_[next_++];
    }
    bool deliver(const Part& part, double) override {
        sum_->add(part);
        added_ += part.group.shots();
        return true;
    }
    bool complete(double) override { return next_ == groups_.size(); }
    int shots_added() const override { return added_; }
    void undisturbed(const std::function<void()>& work) override { work(); }
    void withdraw() override { next_ = groups_.size(); }
    void meet() override {}
    void fail(const std::string&) override {}
    void check() override {}
};

}  // namespace

std::vector<ShotGroup> shot_groups(int at_once, std::span<const char> done) {
    const int shots = static_cast<int>(done.size());
    const auto is_done = [&](int shot) { return done[static_cast<std::size_t>(shot - 1)] != 0; };
    std::vector<ShotGroup> groups;
    for (int first = 1; first <= shots; first += at_once) {
        const int end = std::min(first + at_once, shots + 1);
        for (int shot = first; shot < end; ++shot) {
            if (is_done(shot)) continue;
            ShotGroup group{static_cast<int>(groups.size()), shot, shot + 1};
            while (group.end < end && !is_done(group.end)) ++group.end;
            shot = group.end - 1;
            groups.push_back(group);
        }
    }
    return groups;
}

std::unique_ptr<Team> serial_team() {
    return std::make_unique<SerialTeam>();
}

}  // namespace morvane
