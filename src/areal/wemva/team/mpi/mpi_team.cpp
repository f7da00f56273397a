#include "src/areal/wemva/team/mpi/mpi_team.h"

#include <mpi.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "src/areal/wemva/team/mpi/leader.h"
#include "src/areal/wemva/team/mpi/member.h"

namespace morvane {

MpiTeam::MpiTeam(int& argc, char**& argv) : stderr_(::dup(STDERR_FILENO)) {
    int provided = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_SERIALIZED, &provided);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank_);
    MPI_Comm_size(MPI_COMM_WORLD, &size_);
    if (provided < MPI_THREAD_SERIALIZED) {
        if (leads()) std::fputs("morvane_mpi: this MPI cannot be called from a thread of its own\n", stderr);
        MPI_Abort(MPI_COMM_WORLD, 23);
    }
    if (leads())
        leader_ = std::make_unique<Leader>(size_);
    else
        member_ = std::make_unique<Member>(rank_, size_);
}

MpiTeam::~MpiTeam() = default;

void MpiTeam::finish(int status) {
    constexpr double patience = 30.0;
    std::fflush(nullptr);
    if (member_) member_->leave();
    if (leader_ && !leader_->dismiss(patience)) MPI_Abort(MPI_COMM_WORLD, status != 0 ? status : 23);
    MPI_Finalize();
}

std::string MpiTeam::place() const {
    return leader_ ? leader_->place() : member_->place();
}

void MpiTeam::begin(Task task) {
    leader_->begin(task);
}

void MpiTeam::hand_out(std::vector<ShotGroup> groups, bool in_order, Sum& sum) {
    leader_->hand_out(std::move(groups), in_order, sum);
}

std::optional<Team::Task> MpiTeam::await() {
    return member_->await();
}

void MpiTeam::share(std::span<std::byte> bytes) {
    leader_ ? leader_->share(bytes) : member_->share(bytes);
}

std::optional<ShotGroup> MpiTeam::next() {
    return leader_ ? leader_->next() : member_->next();
}

bool MpiTeam::deliver(const Part& part, double seconds) {
    if (leader_) return leader_->deliver(part, seconds);
    member_->deliver(part);
    return true;
}

bool MpiTeam::complete(double seconds) {
    return leader_->complete(seconds);
}

int MpiTeam::shots_added() const {
    return leader_->shots_added();
}

void MpiTeam::undisturbed(const std::function<void()>& work) {
    leader_->undisturbed(work);
}

void MpiTeam::withdraw() {
    leader_->withdraw();
}

void MpiTeam::meet() {
    leader_ ? leader_->meet() : member_->meet();
}

void MpiTeam::fail(const std::string& reason) {
    constexpr double patience = 60.0;
    member_->fail(reason);
    if (member_->has_ended(patience)) return;
    ::dprintf(stderr_, "morvane_mpi: %s", reason.c_str());  // the leader waits for this rank, and does not listen
    MPI_Abort(MPI_COMM_WORLD, 23);
}

void MpiTeam::check() {
    leader_ ? leader_->check() : member_->check();
}

}  // namespace morvane
