#include "src/areal/wemva/restart/archive.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <optional>

#include "src/areal/wemva/restart/checkpoint_file.h"
#include "tests/dataset_files.h"
#include "tests/quiet.h"

using namespace morvane;
using ::testing::HasSubstr;

namespace {

struct State {
    int count = 0;
    std::vector<double> x;
    std::vector<int> nothing;
    std::string text;
    Array<float, 2> image{{3, 2}};
    bool operator==(const State& other) const {
        return count == other.count && x == other.x && text == other.text &&
               std::ranges::equal(image.flat(), other.image.flat());
    }
    void archive(Archive& archive) {
        archive.value("count", count);
        archive.sequence("x", x);
        archive.sequence("nothing", nothing);
        archive.sequence("text", text);
        archive.values("image", image);
    }
};

State sample() {
    State state;
    state.count = 7;
    state.x = {1.5, -2.25, 1e300};
    state.text = "two\nlines";
    std::iota(state.image.flat().begin(), state.image.flat().end(), 0.5f);
    return state;
}

void write(const std::string& name, State state) {
    const qas::Descriptor fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
    ArchiveWriter archive(fd.get());
    state.archive(archive);
    ASSERT_TRUE(archive.finish());
}

/// Why a file cannot be used; nothing if it can.
std::optional<std::string> trouble(const std::string& name, State& state) {
    try {
        ArchiveReader archive(name);
        state.archive(archive);
        return std::nullopt;
    } catch (const ArchiveError& error) {
        return error.reason;
    }
}

}  // namespace

TEST(Archive, GivesBackWhatItWasGivenAndNothingDamaged) {
    const files::TempDir dir;
    const std::string name = dir / "a";
    write(name, sample());
    State state;
    EXPECT_EQ(trouble(name, state), std::nullopt);
    EXPECT_EQ(state, sample());

    const std::string whole = files::read_text(name);
    for (std::size_t i = 0; i < whole.size(); ++i) {
        files::write_text(name, whole.substr(0, i));
        EXPECT_NE(trouble(name, state), std::nullopt) << "cut to " << i;
        std::string flipped = whole;
        flipped[i] = static_cast<char>(flipped[i] ^ 1);
        files::write_text(name, flipped);
        EXPECT_NE(trouble(name, state), std::nullopt) << "byte " << i;
    }
    files::write_text(name, whole + "\n");
    EXPECT_EQ(trouble(name, state), "is incomplete or damaged");
    EXPECT_THAT(*trouble(dir / "none", state), HasSubstr("cannot be opened: No such file"));
    EXPECT_THAT(*trouble(dir.text(), state), HasSubstr("no checkpoint of this program"));
}

TEST(Archive, SectionsOfAnotherNameOrSizeAreRefused) {
    const files::TempDir dir;
    write(dir / "a", sample());
    ArchiveReader other(dir / "a");
    int count = 0;
    EXPECT_THROW(other.value("number", count), ArchiveError);
    ArchiveReader shorter(dir / "a");
    short half = 0;
    try {
        shorter.value("count", half);
        FAIL();
    } catch (const ArchiveError& error) {
        EXPECT_EQ(error.reason, "has 4 bytes of \"count\" where 2 are needed");
    }
}

// The older one serves where the newest is damaged or gone; a file that cannot be written leaves both.
TEST(CheckpointFile, TheOneBeforeServesAndAFailedWriteLeavesBoth) {
    const files::TempDir dir;
    const Quiet quiet;
    const std::string name = dir / "ck";
    const auto session = [] { return std::make_unique<qas::Session>(std::vector<std::string>{"morvane"}); };
    const auto read = [&] {
        auto s = session();
        State state;
        CheckpointFile(*s, name).read([&](Archive& archive) { state.archive(archive); });
        return state.count;
    };
    {
        auto s = session();
        CheckpointFile file(*s, name);
        EXPECT_FALSE(file.existed());
        State state = sample();
        for (state.count = 1; state.count <= 3; ++state.count) {
            file.write([&](Archive& archive) { state.archive(archive); });
            EXPECT_TRUE(file.is_usable());
        }
        auto second = session();
        EXPECT_THROW(CheckpointFile(*second, name), qas::Fatal) << "another run writes it";
    }
    EXPECT_EQ(read(), 3);
    const std::string whole = files::read_text(name);
    files::write_text(name, whole.substr(0, whole.size() / 2));
    EXPECT_EQ(read(), 2);
    {
        auto s = session();
        CheckpointFile file(*s, name);
        State state;
        const auto keep = [&](Archive& archive) { state.archive(archive); };
        file.read(keep);
        file.write([&](Archive& archive) {
            keep(archive);
            std::filesystem::remove(name + ".new");  // ends as a kill before the last rename does
        });
    }
    EXPECT_EQ(read(), 2) << "a damaged file does not take the place of the good one before it";
    std::filesystem::remove(name);
    EXPECT_EQ(read(), 2) << "killed between two renames";
    files::write_text(name, whole);

    {
        auto s = session();
        CheckpointFile file(*s, name);
        EXPECT_TRUE(file.existed());
        State state = sample();
        file.write([&](Archive& archive) {
            state.archive(archive);
            std::filesystem::remove(name + ".new");  // cannot get into place then
        });
        EXPECT_FALSE(file.is_usable());
    }
    EXPECT_EQ(read(), 3);
    files::write_text(name, "");
    files::write_text(name + ".1", "x");
    EXPECT_THROW(read(), qas::Fatal);
}
