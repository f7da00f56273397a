/// XDR panels against plain copies of the same file: compare bytes_per_second of the lines of one run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "lib/corelibs/qas/session.h"

namespace {

/// A folder with one dataset "panel" of `bytes` bytes, removed at the end.
struct Folder {
    std::filesystem::path dir;
    std::vector<std::string> words;

    explicit Folder(std::int64_t bytes) {
        std::string name = (std::filesystem::temp_directory_path() / "bench_qas_XXXXXX").string();
        if (!::mkdtemp(name.data())) std::abort();
        dir = name;
        words = {"bench", "panel=" + name + "/panel", "copy=" + name + "/copy", "datapath=" + name + "/"};
        const std::vector<float> samples(static_cast<std::size_t>(bytes / 4), 1.25f);
        qas::Session(words).srite("panel", samples.data(), bytes);
    }
    ~Folder() { std::filesystem::remove_all(dir); }
    std::string data(const char* name) const { return (dir / name).string() + "@"; }
};

void count(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

}  // namespace

static void BM_PlainRead(benchmark::State& state) {
    const Folder folder(state.range(0));
    std::vector<float> samples(static_cast<std::size_t>(state.range(0) / 4));
    for (auto _ : state) {
        const int fd = ::open(folder.data("panel").c_str(), O_RDONLY);
        if (::read(fd, samples.data(), static_cast<std::size_t>(state.range(0))) != state.range(0)) std::abort();
        ::close(fd);
    }
    count(state);
}

static void BM_XdrRead(benchmark::State& state) {
    const Folder folder(state.range(0));
    std::vector<float> samples(static_cast<std::size_t>(state.range(0) / 4));
    qas::Session session(folder.words);
    session.sreed("panel", samples.data(), 4);
    for (auto _ : state) {
        session.sseek("panel", 0, 0);
        if (session.sreed("panel", samples.data(), state.range(0)) != state.range(0)) std::abort();
    }
    count(state);
}

static void BM_PlainWrite(benchmark::State& state) {
    const Folder folder(state.range(0));
    const std::vector<float> samples(static_cast<std::size_t>(state.range(0) / 4), 1.25f);
    const int fd = ::open(folder.data("plain").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (::write(fd, samples.data(), static_cast<std::size_t>(state.range(0))) != state.range(0)) std::abort();
    for (auto _ : state) {
        ::lseek(fd, 0, SEEK_SET);
        if (::write(fd, samples.data(), static_cast<std::size_t>(state.range(0))) != state.range(0)) std::abort();
    }
    ::close(fd);
    count(state);
}

static void BM_XdrWrite(benchmark::State& state) {
    const Folder folder(state.range(0));
    const std::vector<float> samples(static_cast<std::size_t>(state.range(0) / 4), 1.25f);
    qas::Session session(folder.words);
    session.srite("copy", samples.data(), state.range(0));
    for (auto _ : state) {
        session.sseek("copy", 0, 0);
        if (session.srite("copy", samples.data(), state.range(0)) != state.range(0)) std::abort();
    }
    count(state);
}

/// A whole copy of the file, by plain calls and through two datasets, onto blocks that exist already.
static void BM_PlainCopy(benchmark::State& state) {
    const Folder folder(state.range(0));
    std::vector<char> block(1 << 20);
    const int from = ::open(folder.data("panel").c_str(), O_RDONLY);
    const int to = ::open(folder.data("plain").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const auto copy = [&] {
        ::lseek(from, 0, SEEK_SET);
        ::lseek(to, 0, SEEK_SET);
        for (ssize_t got; (got = ::read(from, block.data(), block.size())) > 0;)
            if (::write(to, block.data(), static_cast<std::size_t>(got)) != got) std::abort();
    };
    copy();
    for (auto _ : state) copy();
    ::close(from);
    ::close(to);
    count(state);
}

static void BM_XdrCopy(benchmark::State& state) {
    const Folder folder(state.range(0));
    std::vector<float> samples(1 << 18);
    const auto block = static_cast<std::int64_t>(4 * samples.size());
    qas::Session session(folder.words);
    session.sreed("panel", samples.data(), 4);
    session.srite("copy", samples.data(), 4);
    const auto copy = [&] {
        session.sseek("panel", 0, 0);
        session.sseek("copy", 0, 0);
        for (std::int64_t left = state.range(0); left > 0; left -= block) {
            session.sreed("panel", samples.data(), block);
            session.srite("copy", samples.data(), block);
        }
    };
    copy();
    for (auto _ : state) copy();
    count(state);
}

constexpr std::int64_t panel = std::int64_t{1} << 30;
BENCHMARK(BM_PlainRead)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_XdrRead)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainWrite)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_XdrWrite)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainCopy)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_XdrCopy)->Arg(panel)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
