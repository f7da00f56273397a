#include "src/areal/wemva/team/mpi/courier.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <thread>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/areal/wemva/run/interruption.h"

namespace morvane {

namespace {

constexpr int notes = 1, blocks = 2;  // tags
constexpr std::size_t largest_block = std::size_t{1} << 28;

void need(int code, const char* what) {
    if (code == MPI_SUCCESS) return;
    char text[MPI_MAX_ERROR_STRING] = "";
    int length = 0;
    MPI_Error_string(code, text, &length);
    throw std::runtime_error(std::string("the connection to other ranks is lost (") + what + ": " + text + ")");
}

/// Waits without spinning: the processors are for the shots.
void finish(MPI_Request& request, const char* what) {
    using std::chrono::microseconds;
    constexpr microseconds most(500);
    microseconds pause(10);
    for (int done = 0;;) {
        need(MPI_Test(&request, &done, MPI_STATUS_IGNORE), what);
        if (done) return;
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, most);
    }
}

}  // namespace

Courier::Courier(int rank, int size) : rank_(rank), size_(size) {
    MPI_Comm_set_errhandler(MPI_COMM_WORLD, MPI_ERRORS_RETURN);
    char name[MPI_MAX_PROCESSOR_NAME] = "";
    int length = 0;
    MPI_Get_processor_name(name, &length);
    place_ = "rank " + std::to_string(rank_) + " of " + std::to_string(size_) + " on " + name;
}

Courier::~Courier() {
    stop();
}

void Courier::start() {
    thread_ = std::thread([this] { run(); });
}

void Courier::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void Courier::run() {
    using std::chrono::microseconds;
    constexpr microseconds least(20), most(2000);
    microseconds pause = least;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        bool worked = do_jobs(lock);
        try {
            worked |= work(lock);
        } catch (const std::exception& error) {
            if (!lock.owns_lock()) lock.lock();
            set_failure(place_ + ": " + error.what());
        }
        pause = worked ? least : std::min(2 * pause, most);
        if (!worked) changed_.wait_for(lock, pause, [this] { return stopping_ || !jobs_.empty(); });
    }
}

bool Courier::do_jobs(std::unique_lock<std::mutex>& lock) {
    const bool any = !jobs_.empty();
    while (!jobs_.empty()) {
        Job& job = *jobs_.front();
        jobs_.pop_front();
        lock.unlock();
        try {
            (*job.work)();
        } catch (...) {
            job.error = std::current_exception();
        }
        lock.lock();
        job.done = true;
        changed_.notify_all();
    }
    return any;
}

void Courier::call(const std::function<void()>& work) {
    Job job{&work};
    std::unique_lock lock(mutex_);
    jobs_.push_back(&job);
    changed_.notify_all();
    changed_.wait(lock, [&] { return job.done; });
    if (job.error) std::rethrow_exception(job.error);
}

void Courier::set_failure(const std::string& reason) {
    if (failure_.empty()) failure_ = reason.empty() ? "unknown failure" : reason;
    if (failure_.back() != '\n') failure_ += '\n';
    interruption::drop();
    changed_.notify_all();
}

void Courier::check() {
    const std::lock_guard lock(mutex_);
    if (!failure_.empty()) throw qas::Fatal(failure_);
}

void Courier::share(std::span<std::byte> bytes) {
    call([&] {
        while (!bytes.empty()) {
            const std::size_t count = std::min(bytes.size(), largest_block);
            MPI_Request request = MPI_REQUEST_NULL;
            need(MPI_Ibcast(bytes.data(), static_cast<int>(count), MPI_BYTE, 0, MPI_COMM_WORLD, &request), "broadcast");
            finish(request, "broadcast");
            bytes = bytes.subspan(count);
        }
    });
}

void Courier::send(int to, const Note& note) const {
    need(MPI_Send(&note, sizeof note, MPI_BYTE, to, notes, MPI_COMM_WORLD), "send");
}

void Courier::send_block(int to, const void* bytes, std::size_t count) const {
    const auto* next = static_cast<const std::byte*>(bytes);
    for (std::size_t part = 0; count > 0; next += part, count -= part) {
        part = std::min(count, largest_block);
        MPI_Request request = MPI_REQUEST_NULL;
        need(MPI_Isend(next, static_cast<int>(part), MPI_BYTE, to, blocks, MPI_COMM_WORLD, &request), "send");
        finish(request, "send");
    }
}

void Courier::receive_block(int from, void* bytes, std::size_t count) const {
    auto* next = static_cast<std::byte*>(bytes);
    for (std::size_t part = 0; count > 0; next += part, count -= part) {
        part = std::min(count, largest_block);
        MPI_Request request = MPI_REQUEST_NULL;
        need(MPI_Irecv(next, static_cast<int>(part), MPI_BYTE, from, blocks, MPI_COMM_WORLD, &request), "receive");
        finish(request, "receive");
    }
}

bool Courier::receive(Note& note, int& from) const {
    int there = 0;
    MPI_Status status;
    need(MPI_Iprobe(MPI_ANY_SOURCE, notes, MPI_COMM_WORLD, &there, &status), "probe");
    if (!there) return false;
    from = status.MPI_SOURCE;
    need(MPI_Recv(&note, sizeof note, MPI_BYTE, from, notes, MPI_COMM_WORLD, MPI_STATUS_IGNORE), "receive");
    return true;
}

}  // namespace morvane
