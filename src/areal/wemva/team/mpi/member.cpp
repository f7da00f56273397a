#include "src/areal/wemva/team/mpi/member.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "src/areal/wemva/run/interruption.h"

namespace morvane {

Member::Member(int rank, int size) : Courier(rank, size) {
    start();
}

Member::~Member() {
    stop();
}

void Member::say(const Note& note) {
    call([&] { send(0, note); });
}

bool Member::work(std::unique_lock<std::mutex>& lock) {
    if (interruption::signal() != 0 && !std::exchange(told_signal_, true)) {
        Note note;
        note.what = Note::signal;
        note.number = interruption::signal();
        send(0, note);
    }
    Note note;
    int from = 0;
    if (!receive(note, from)) return false;
    switch (note.what) {
        case Note::task:
            task_ = Team::Task{note.first, note.number};
            break;
        case Note::group:
        case Note::no_group:
            reply_ = note;
            break;
        case Note::take:
            lock.unlock();
            send_part();
            lock.lock();
            waits_ = false;
            break;
        case Note::end:
            ended_ = true;
            interruption::drop();
            break;
        default:
            break;
    }
    changed_.notify_all();
    return true;
}

std::optional<Team::Task> Member::await() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ended_ || task_ || !failure_.empty(); });
    if (!waits_) image_ = {};  // a pass is over, and another one may need the memory
    if (ended_ || !failure_.empty()) return std::nullopt;
    return std::exchange(task_, std::nullopt);
}

std::optional<ShotGroup> Member::next() {
    Note note;
    note.what = Note::ask;
    say(note);
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ended_ || reply_ || !failure_.empty(); });
    if (!reply_) return std::nullopt;
    const Note reply = *std::exchange(reply_, std::nullopt);
    if (reply.what == Note::no_group) return std::nullopt;
    return ShotGroup{reply.number, reply.first, reply.end_shot};
}

void Member::deliver(const Part& part) {
    Note note;
    note.what = Note::offer;
    note.number = part.group.number;
    note.first = part.group.first;
    note.end_shot = part.group.end;
    note.first_column = part.first_column;
    note.columns = static_cast<int>(part.image.n[0]);
    note.rows = static_cast<int>(part.image.n[1]);
    note.levels = static_cast<int>(part.image.n[2]);
    note.light_columns = static_cast<int>(part.light.n[0]);
    note.light_levels = static_cast<int>(part.light.n[1]);
    note.sums = static_cast<int>(part.sums.size());
    note.seconds = static_cast<int>(part.seconds.size());
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !waits_ || ended_ || !failure_.empty(); });
        if (ended_ || !failure_.empty()) return;
        const auto image = part.image.flat(), light = part.light.flat();
        image_.assign(image.begin(), image.end());
        light_.assign(light.begin(), light.end());
        sums_.assign(part.sums.begin(), part.sums.end());
        seconds_.assign(part.seconds.begin(), part.seconds.end());
        level_ = static_cast<std::size_t>(part.image.n[0] * part.image.n[1]);
        waits_ = true;
    }
    say(note);
}

void Member::send_part() {
    const std::size_t block = level_ * static_cast<std::size_t>(levels_at_once(level_));
    for (std::size_t at = 0; at < image_.size(); at += block)
        send_block(0, image_.data() + at, std::min(block, image_.size() - at) * sizeof(float));
    send_block(0, light_.data(), light_.size() * sizeof(float));
    send_block(0, sums_.data(), sums_.size() * sizeof(double));
    send_block(0, seconds_.data(), seconds_.size() * sizeof(float));
}

void Member::meet() {
    Note note;
    note.what = Note::ready;
    say(note);
}

void Member::fail(const std::string& reason) {
    call([&] {
        Note note;
        note.what = Note::failed;
        note.length = static_cast<int>(reason.size());
        send(0, note);
        send_block(0, reason.data(), reason.size());
    });
}

bool Member::has_ended(double seconds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return ended_; });
}

void Member::leave() {
    Note note;
    note.what = Note::bye;
    say(note);
    stop();
}

}  // namespace morvane
