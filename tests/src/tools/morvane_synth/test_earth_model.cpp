#include <gtest/gtest.h>

#include <cmath>

#include "src/tools/morvane_synth/earth_model.h"

using namespace morvane;

namespace {

const Axis x{201, 10.0f, -1000.0f, {}}, z{101, 10.0f, 0.0f, {}};

ModelSpec plain() {
    ModelSpec spec;
    spec.dv = 0.0f;
    return spec;
}

double velocity(const Array<float, 2>& slowness, double px, double pz) {
    return 1.0 / slowness(std::lround((px - x.o) / x.d), std::lround((pz - z.o) / z.d));
}

}  // namespace

TEST(EarthModel, BackgroundAndBodyByHand) {
    ModelSpec spec = plain();
    spec.dv = -600;
    spec.start_scale = 0.92f;
    const EarthModel model = build_model(spec, x, z);
    EXPECT_NEAR(velocity(model.smooth, -1000, 0), 1800, 1e-2);
    EXPECT_NEAR(velocity(model.smooth, 0, 480), 1800 + 240 - 600, 1e-2);
    EXPECT_NEAR(velocity(model.smooth, 220, 480), 1800 + 240 - 300, 1e-2);
    EXPECT_NEAR(velocity(model.smooth, 0, 590), 1800 + 295 - 300, 1e-2);
    EXPECT_NEAR(velocity(model.start, 0, 480), 0.92 * (1800 + 240), 1e-2);
    EXPECT_TRUE(std::ranges::equal(model.full.flat(), model.smooth.flat()));
}

// Positive dip deepens with x; the line is centred between two rows where it passes there; only `full` has it.
TEST(EarthModel, ReflectorsFollowTheirDip) {
    ModelSpec spec = plain();
    spec.gradient = 0.0f;
    spec.middle = 100.0f;
    const float dip = static_cast<float>(std::atan(0.1) * 180 / M_PI);
    spec.reflectors = {{300, dip, 0.1f}, {600, 0, -0.05f}};
    const EarthModel model = build_model(spec, x, z);
    struct Row {
        double px, pz, change;
    };
    for (const Row& r :
         {Row{100, 300, 0.1}, Row{100, 290, 0}, Row{100, 310, 0}, Row{300, 320, 0.1}, Row{-100, 280, 0.1},
          Row{150, 300, 0.05}, Row{150, 310, 0.05}, Row{-500, 600, -0.05}, Row{500, 600, -0.05}}) {
        SCOPED_TRACE(testing::Message() << r.px << ' ' << r.pz);
        EXPECT_NEAR(velocity(model.full, r.px, r.pz), 1800 * (1 + r.change), 0.1);
        EXPECT_NEAR(velocity(model.smooth, r.px, r.pz), 1800, 1e-2);
    }
}

// Results are reported by seed: the models must stay what they are, on every machine and library.
TEST(RandomModel, ASeedKeepsItsModel) {
    const RandomModel model(1);
    ASSERT_EQ(model.layers.size(), 5u);
    const RandomLayer& last = model.layers.back();
    EXPECT_NEAR(last.z, 1114.218603, 1e-5);
    EXPECT_NEAR(last.dip, -4.777870, 1e-5);
    EXPECT_NEAR(last.strength, 0.055843, 1e-5);
    EXPECT_NEAR(last.fold, 17.604634, 1e-5);
    EXPECT_NEAR(model.fold_length, 2042.048457, 1e-5);
    EXPECT_NEAR(model.fold_phase, 2.204758, 1e-5);
    EXPECT_NEAR(model.anomaly(0, 600), 0.063530315, 1e-8);
    EXPECT_NEAR(model.anomaly(-500, 300), -0.021621656, 1e-8);
    EXPECT_EQ(model.anomaly(-500, 0), 0);
    EXPECT_NE(RandomModel(2).layers.front().z, model.layers.front().z);
}

// The start model is the background alone; the layers bend, and the dips know it.
TEST(EarthModel, AnomaliesAndFolds) {
    ModelSpec spec = plain();
    spec.gradient = 0.0f;
    spec.fold_length = 1000;
    spec.fold_phase = M_PI / 2;
    spec.reflectors = {{500, 0, 0.1f, 40}};
    Draw draw(3);
    spec.anomaly = RandomField(draw, 0.1, 400, 300);
    spec.middle = 100.0f;
    const EarthModel model = build_model(spec, x, z);
    EXPECT_NEAR(velocity(model.start, 300, 700), 1800, 1e-2);
    EXPECT_NEAR(velocity(model.smooth, 300, 700), 1800 / (1 + spec.anomaly(200, 700)), 0.1);
    EXPECT_GT(std::abs(spec.anomaly(200, 700)), 0.01);
    for (const auto& [px, pz] : {std::pair{100, 500}, {350, 460}, {600, 500}, {-150, 540}})
        EXPECT_NEAR(velocity(model.full, px, pz), 1.1 * velocity(model.smooth, px, pz), 0.1) << px;
    const Array<float, 2> dips = layer_dips(spec, x, z);
    EXPECT_NEAR(dips(50, 110), std::atan(-40 * 2 * M_PI / 1000) * 180 / M_PI, 1e-3);
    EXPECT_NEAR(dips(46, 135), 0, 1e-3);
}

// Depth fastest; the angle counts samples, here four per column where the layer falls by one in one.
TEST(EarthModel, DipsFollowTheLayers) {
    const Axis wide{11, 20.0f, -100.0f, {}}, fine{81, 5.0f, 0.0f, {}};
    const auto degrees = [](double slope) { return std::atan(4 * slope) * 180 / M_PI; };
    ModelSpec spec = plain();
    spec.tilt = 45.0f;
    const Array<float, 2> tilted = layer_dips(spec, wide, fine);
    ASSERT_EQ(tilted.n(), (Extents<2>{81, 11}));
    EXPECT_NEAR(tilted(40, 0), degrees(1), 1e-4);
    spec.reflectors = {{300, 0, 0.1f}, {100, static_cast<float>(std::atan(0.5) * 180 / M_PI), 0.1f}};
    const Array<float, 2> dips = layer_dips(spec, wide, fine);
    for (const auto& [ix, depth, slope] : {std::tuple{5, 0.0, 0.5},
                                           {5, 100.0, 0.5},
                                           {5, 150.0, 0.375},
                                           {5, 300.0, 0.0},
                                           {5, 400.0, 0.0},
                                           {10, 100.0, 0.5},
                                           {10, 150.0, 0.5},
                                           {10, 225.0, 0.25},
                                           {0, 50.0, 0.5},
                                           {0, 175.0, 0.25}})
        EXPECT_NEAR(dips(std::lround(depth / 5), ix), degrees(slope), 1e-3) << ix << ' ' << depth;
}

TEST(EarthModel, TiltMovesTheBackgroundDownTheDip) {
    ModelSpec spec = plain();
    spec.tilt = static_cast<float>(std::atan(0.2) * 180 / M_PI);
    spec.middle = 200.0f;
    const EarthModel model = build_model(spec, x, z);
    EXPECT_NEAR(velocity(model.smooth, 200, 400), 1800 + 0.5 * 400, 0.05);
    EXPECT_NEAR(velocity(model.smooth, 700, 400), 1800 + 0.5 * (400 - 100), 0.05);  // shallower below the plane
}

TEST(EarthModel, SmoothingKeepsConstantsAndTheSum) {
    Array<float, 2> model({41, 31});
    model.fill(2.0f);
    const Array<float, 2> flat = smoothed(model.view(), 10, 5, 30);
    for (float s : flat.flat()) EXPECT_NEAR(s, 2.0f, 1e-6);
    model.fill(0.0f);
    model(20, 15) = 1.0f;
    const Array<float, 2> spike = smoothed(model.view(), 10, 5, 20);
    double sum = 0;
    for (float s : spike.flat()) sum += s;
    EXPECT_NEAR(sum, 1.0, 1e-5);
    EXPECT_NEAR(spike(22, 15) / spike(20, 15), std::exp(-0.5), 1e-4);  // one length away along x: two columns
    EXPECT_NEAR(spike(20, 19) / spike(20, 15), std::exp(-0.5), 1e-4);  // along z: four rows
    const Array<float, 2> copy = smoothed(model.view(), 10, 5, 0);
    EXPECT_TRUE(std::ranges::equal(copy.flat(), model.flat()));
}
