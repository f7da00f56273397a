/// The scripts that build.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/dataset_files.h"

// A build that fails says why, and ends the script that asked for it.
TEST(Scripts, AFailedBuildShowsWhatTheCompilerSaid) {
    const files::TempDir dir;
    files::write_text(dir / "cmake",
                      "#!/bin/sh\n[ $1 = --preset ] || { echo 'x.cpp:1: error: wrong'; echo stopped; exit 3; }\n");
    ASSERT_EQ(chmod((dir / "cmake").c_str(), 0755), 0);
    const files::Outcome build = files::run_program("/bin/bash", {MORVANE_SOURCE_DIR "/scripts/build", "release"},
                                                    dir.text(), "PATH='" + dir.text() + "':\"$PATH\"");
    EXPECT_EQ(build.status, 3);
    EXPECT_EQ(build.err, "x.cpp:1: error: wrong\nstopped\n");
}
