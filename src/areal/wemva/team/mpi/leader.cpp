#include "src/areal/wemva/team/mpi/leader.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/areal/wemva/run/interruption.h"

namespace morvane {

namespace {

using Seconds = std::chrono::duration<double>;

}  // namespace

Leader::Leader(int size) : Courier(0, size) {
    start();
}

Leader::~Leader() {
    stop();
}

void Leader::throw_failure() const {
    if (!failure_.empty()) throw qas::Fatal(failure_);
}

void Leader::begin(Team::Task task) {
    call([&] {
        Note note;
        note.what = Note::task;
        note.first = task.what;
        note.number = task.number;
        for (int member = 1; member < size(); ++member) send(member, note);
    });
}

void Leader::hand_out(std::vector<ShotGroup> groups, bool in_order, Sum& sum) {
    call([&] {
        const std::lock_guard lock(mutex_);
        groups_ = std::move(groups);
        next_ = 0;
        groups_added_ = 0;
        told_ = 0;
        shots_added_ = 0;
        in_order_ = in_order;
        sum_ = &sum;
        open_ = true;
        for (const int member : std::exchange(asking_, {})) answer_question(member);
    });
}

void Leader::answer_question(int from) {
    if (!open_) return asking_.push_back(from);
    Note note;
    note.what = Note::no_group;
    if (next_ < groups_.size()) {
        const ShotGroup& group = groups_[next_++];
        note.what = Note::group;
        note.number = group.number;
        note.first = group.first;
        note.end_shot = group.end;
    } else {
        ++told_;
    }
    send(from, note);
}

std::optional<ShotGroup> Leader::next() {
    const std::lock_guard lock(mutex_);
    throw_failure();
    if (next_ == groups_.size()) return std::nullopt;
    return groups_[next_++];
}

void Leader::answer(const Note& note, int from) {
    switch (note.what) {
        case Note::ask:
            answer_question(from);
            break;
        case Note::offer:
            offers_[note.number] = {from, note};
            break;
        case Note::ready:
            ++ready_;
            break;
        case Note::failed: {
            std::string text(static_cast<std::size_t>(note.length), ' ');
            receive_block(from, text.data(), text.size());
            set_failure(text);
            break;
        }
        case Note::signal:
            interruption::note_signal(note.number);
            break;
        case Note::bye:
            ++gone_;
            break;
        default:
            break;
    }
    changed_.notify_all();
}

bool Leader::work(std::unique_lock<std::mutex>& lock) {
    if (interruption::signal() != 0 && !std::exchange(stopped_by_signal_, true)) interruption::drop();
    bool worked = false;
    Note note;
    for (int from = 0; receive(note, from); worked = true) answer(note, from);
    return take_one(lock) || worked;
}

void Leader::add_unlocked(std::unique_lock<std::mutex>& lock, const std::function<void()>& add) {
    adding_ = true;
    lock.unlock();
    try {
        add();
    } catch (...) {
        lock.lock();
        adding_ = false;
        throw;
    }
    lock.lock();
    adding_ = false;
}

bool Leader::take_one(std::unique_lock<std::mutex>& lock) {
    if (!open_ || paused_ || adding_ || !failure_.empty()) return false;
    const auto found = std::ranges::find_if(offers_, [this](const auto& entry) { return has_turn(entry.first); });
    if (found == offers_.end()) return false;
    const Offer offer = found->second;
    offers_.erase(found);
    add_unlocked(lock, [&] { take(offer); });
    count({offer.note.number, offer.note.first, offer.note.end_shot});
    return true;
}

/// Some levels at a time, so that no second image is needed here.
void Leader::take(const Offer& offer) {
    const Note& n = offer.note;
    Note note;
    note.what = Note::take;
    send(offer.from, note);
    Part part;
    part.group = {n.number, n.first, n.end_shot};
    part.first_column = n.first_column;
    part.is_last = false;
    const int at_once =
        std::min(n.levels, levels_at_once(static_cast<std::size_t>(n.columns) * static_cast<std::size_t>(n.rows)));
    Array<float, 3> some({n.columns, n.rows, at_once});
    for (part.first_level = 0; part.first_level < n.levels; part.first_level += at_once) {
        View<float, 3> levels = some;
        levels.n[2] = std::min(at_once, n.levels - part.first_level);
        receive_block(offer.from, levels.p, levels.flat().size_bytes());
        part.image = levels;
        sum_->add(part);
    }
    Array<float, 2> light({n.light_columns, n.light_levels});
    std::vector<double> sums(static_cast<std::size_t>(n.sums));
    std::vector<float> seconds(static_cast<std::size_t>(n.seconds));
    receive_block(offer.from, light.view().p, light.flat().size_bytes());
    receive_block(offer.from, sums.data(), sums.size() * sizeof(double));
    receive_block(offer.from, seconds.data(), seconds.size() * sizeof(float));
    part.image = {};
    part.light = light;
    part.sums = sums;
    part.seconds = seconds;
    part.is_last = true;
    sum_->add(part);
}

void Leader::count(const ShotGroup& group) {
    ++groups_added_;
    shots_added_ += group.shots();
    changed_.notify_all();
}

bool Leader::deliver(const Part& part, double seconds) {
    std::unique_lock lock(mutex_);
    const auto may_add = [&] { return !failure_.empty() || (!adding_ && has_turn(part.group.number)); };
    if (!changed_.wait_for(lock, Seconds(seconds), may_add)) return false;
    throw_failure();
    add_unlocked(lock, [&] { sum_->add(part); });
    count(part.group);
    return true;
}

bool Leader::complete(double seconds) {
    std::unique_lock lock(mutex_);
    // a member that has not heard of the end would take the next question's answer for one of this pass
    const auto all = [&] { return groups_added_ == static_cast<int>(groups_.size()) && told_ == size() - 1; };
    changed_.wait_for(lock, Seconds(seconds),
                      [&] { return !failure_.empty() || all() || interruption::signal() != 0; });
    throw_failure();
    return all();
}

void Leader::undisturbed(const std::function<void()>& work) {
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !adding_ || !failure_.empty(); });
        throw_failure();
        paused_ = true;
    }
    struct Pause {
        Leader& leader;
        ~Pause() {
            const std::lock_guard lock(leader.mutex_);
            leader.paused_ = false;
        }
    } pause{*this};
    work();
}

void Leader::withdraw() {
    std::unique_lock lock(mutex_);
    open_ = false;
    next_ = groups_.size();
    changed_.wait(lock, [&] { return !adding_; });
    sum_ = nullptr;
}

void Leader::meet() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ready_ == size() - 1 || !failure_.empty(); });
    throw_failure();
    ready_ = 0;
}

bool Leader::dismiss(double seconds) {
    call([&] {
        Note note;
        note.what = Note::end;
        for (int member = 1; member < size(); ++member) send(member, note);
    });
    bool all = false;
    {
        std::unique_lock lock(mutex_);
        all = changed_.wait_for(lock, Seconds(seconds), [&] { return gone_ == size() - 1; });
    }
    if (all) stop();
    return all;
}

}  // namespace morvane
