#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "lib/base/fixed_format.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "tests/dataset_files.h"

using namespace morvane;

namespace {

/// Model of 7 columns from -20, image of 5 from 0 (column 3), three levels, shots with windows of 3 columns.
Parms geometry() {
    Parms par;
    par.v.xm = {7, 10.0f, -20.0f, {}};
    par.v.z = {4, 5.0f, 0.0f, {}};
    par.img.xm = {5, 10.0f, 0.0f, {}};
    par.img.z = {3, 5.0f, 0.0f, {}};
    par.kxm.n = 3;
    par.rec.h = {1, 10.0f, 0.0f, {}};
    par.rec.xd = {3, 10.0f, 10.0f, {}};
    par.tapertr = 1;
    return par;
}

Array<float, 2> numbered(std::ptrdiff_t nx, std::ptrdiff_t nz) {
    Array<float, 2> model({nx, nz});
    std::iota(model.flat().begin(), model.flat().end(), 1.0f);
    return model;
}

qas::Session session_in(const files::TempDir& dir, std::vector<std::string> more) {
    files::write_text(dir / "empty", "");
    std::vector<std::string> words = {"test", "stdin=" + dir / "empty", "head=" + dir / "history",
                                      "datapath=" + dir.text() + "/"};
    words.insert(words.end(), more.begin(), more.end());
    return qas::Session(words);
}

}  // namespace

TEST(OwgrabVel, TheImageIsCutByColumnsFromTheTop) {
    const files::TempDir dir;
    qas::Session session = session_in(dir, {});
    const Parms par = geometry();
    const Array<float, 2> model = numbered(7, 4);
    Array<float, 2> image({5, 3});
    EXPECT_EQ(owgrab_vel(par, session, model, image, true, 0), 3);
    for (int iz = 0; iz < 3; ++iz)
        for (int ix = 0; ix < 5; ++ix) EXPECT_EQ(image(ix, iz), model(ix + 2, iz));
    Parms same = par;
    same.v.xm.o = same.img.xm.o;
    EXPECT_EQ(owgrab_vel(same, session, model, image, true, 0), 1);
}

TEST(OwgrabVel, ShotWindowsMoveAlongTheLineAndAreListed) {
    const files::TempDir dir;
    qas::Session session = session_in(dir, {});
    const Parms par = geometry();
    const Array<float, 2> image = numbered(5, 3);
    Array<float, 2> window({3, 3});
    for (int shot = 1; shot <= 3; ++shot) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(owgrab_vel(par, session, image, window, false, shot), shot);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  list_line({10.0 * (shot - 1), static_cast<long long>(shot)}) + "\n");
        for (int iz = 0; iz < 3; ++iz)
            for (int ix = 0; ix < 3; ++ix) EXPECT_EQ(window(ix, iz), image(ix + shot - 1, iz));
    }
}

TEST(OwgrabVel, TheNearestColumnIsTaken) {
    const files::TempDir dir;
    qas::Session session = session_in(dir, {});
    Parms par = geometry();
    const Array<float, 2> image = numbered(5, 3);
    Array<float, 2> window({3, 3});
    for (const auto& [origin, column] : {std::pair(14.0f, 1), {15.0f, 2}, {16.0f, 2}, {24.9f, 2}}) {
        par.rec.xd.o = origin;
        EXPECT_EQ(owgrab_vel(par, session, image, window, false, 1), column) << origin;
    }
}

TEST(OwgrabVel, DebugOutputsHoldVelocityAndTheirAxes) {
    const files::TempDir dir;
    qas::Session session = session_in(dir, {"xxx=" + dir / "image.H", "zzz=" + dir / "window.H"});
    const Parms par = geometry();
    const Array<float, 2> model = numbered(7, 4);
    Array<float, 2> image({5, 3}), window({3, 3});
    owgrab_vel(par, session, model, image, true, 0);
    owgrab_vel(par, session, image, window, false, 2);
    owgrab_vel(par, session, image, window, false, 3);
    struct Case {
        const char* file;
        std::vector<const char*> values;  // n1 d1 o1 n2 d2 o2 n3 d3 o3 n4 d4 o4 n5 d5 o5 esize
    };
    const char* names[] = {"n1", "d1", "o1", "n2", "d2", "o2", "n3", "d3",
                           "o3", "n4", "d4", "o4", "n5", "d5", "o5", "esize"};
    for (const Case& c :
         {Case{"image.H", {"5", "10", "0", "1", "1", "0", "3", "5", "0", "1", "1", "0", "1", "1", "0", "4"}},
          Case{"window.H", {"3", "10", "20", "1", "1", "0", "3", "5", "0", "1", "1", "0", "1", "1", "0", "4"}}}) {
        const std::string header = files::read_text(dir / c.file);
        for (std::size_t i = 0; i < std::size(names); ++i)
            EXPECT_EQ(files::header_value(header, names[i]), c.values[i]) << c.file << " " << names[i];
    }
    const std::vector<float> velocity = files::read_dataset(dir / "image.H");
    ASSERT_EQ(velocity.size(), 15u);
    EXPECT_FLOAT_EQ(velocity[6], 1.0f / image(1, 1));
    EXPECT_EQ(files::read_dataset(dir / "window.H").size(), 18u) << "one panel per shot";
}

TEST(Oweditvel, OnlySamplesStrictlyAboveThePickGoBackToTheStartModel) {
    Parms par = geometry();
    par.zmin = 1.0f;  // levels at 1, 6, 11
    const Array<float, 2> vel0 = numbered(5, 3);
    Array<double, 2> vel({5, 3});
    vel.fill(-1.0);
    const std::vector<float> picks = {6.0f, 6.9f, 7.0f, 9999.0f, -5.0f};
    const int above[] = {1, 1, 2, 3, 0};  // 6.9 counts as 6, where the level lies
    oweditvel(par, picks, vel, vel0);
    for (int ix = 0; ix < 5; ++ix)
        for (int iz = 0; iz < 3; ++iz) EXPECT_EQ(vel(ix, iz), iz < above[ix] ? vel0(ix, iz) : -1.0) << ix << " " << iz;
}

TEST(Oweditvel, WithoutAStartModelTheSidesTakeTheColumnsInsideTheLimits) {
    Parms par = geometry();
    par.xv_min = 10.0f;  // column 2
    par.xv_max = 30.0f;  // column 4
    Array<double, 2> vel({5, 3});
    for (int ix = 0; ix < 5; ++ix)
        for (int iz = 0; iz < 3; ++iz) vel(ix, iz) = 10.0 * (ix + 1) + iz;
    const std::vector<float> picks = {0.0f, 0.0f, 1.0f, 0.0f, 0.0f};
    testing::internal::CaptureStderr();
    oweditvel(par, picks, vel, {});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), list_line({2LL, 4LL}) + "\n");
    const double first_level[] = {30, 20, 0, 40, 0};  // column 5 takes column 3, muted by then
    const double second_level[] = {31, 21, 31, 41, 31};
    for (int ix = 0; ix < 5; ++ix) {
        EXPECT_EQ(vel(ix, 0), first_level[ix]) << ix;
        EXPECT_EQ(vel(ix, 1), second_level[ix]) << ix;
    }
    par.xv_min = 1e9f;  // sources beyond the image are taken at its edge
    par.xv_max = -1e9f;
    oweditvel(par, picks, vel, {});
}

TEST(Oweditvel, SinglePrecisionTwin) {
    const Parms par = geometry();  // levels at 0, 5, 10
    const Array<float, 2> vel0 = numbered(5, 3);
    const std::vector<float> picks(5, 6.0f);
    Array<float, 2> vel({5, 3});
    vel.fill(-1.0f);
    oweditvel_sngl(par, picks, vel, vel0);
    EXPECT_EQ(vel(2, 1), vel0(2, 1));
    EXPECT_EQ(vel(2, 2), -1.0f);
    oweditvel_sngl(par, picks, vel, {});
    EXPECT_EQ(vel(2, 1), 0.0f);
    EXPECT_EQ(vel(2, 2), -1.0f);
}
