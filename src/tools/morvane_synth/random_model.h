#pragma once
/// Models drawn from a seed: layers that dip and bend, and smooth anomalies of slowness between them.
#include <cstdint>
#include <random>
#include <vector>

namespace morvane {

/// Random numbers that are the same everywhere: the standard fixes the engine's sequence but leaves its distributions
/// to the library, so those are made here.
class Draw {
    std::mt19937_64 engine_;

public:
    explicit Draw(std::uint64_t seed) : engine_(seed) {}
    /// Evenly distributed, low <= value < high.
    double uniform(double low, double high);
    /// low <= value <= high, each as likely as the others.
    int whole(int low, int high);
    /// Mean 0, variance 1 (Box and Muller).
    double normal();
};

/// A smooth stationary random field: the sum of plane waves with normally distributed wavenumbers, whose correlation is
/// exp(-(x/lx)^2 - (z/lz)^2), squashed to its range. Near the surface it fades out, as (z/150)^2.
class RandomField {
    struct Wave {
        double kx, kz, phase;
    };
    std::vector<Wave> waves_;
    double largest_ = 0.0;

public:
    RandomField() = default;  ///< zero everywhere
    /// @param largest  bound of the magnitude; about 0.4 of it is the standard deviation
    /// @param lx, lz   correlation lengths
    RandomField(Draw& draw, double largest, double lx, double lz);
    double operator()(double x, double z) const;
};

/// One layer of a random model: depth in the middle of the line, degrees, relative change of velocity, half the height
/// from trough to crest of its folds.
struct RandomLayer {
    double z, dip, strength, fold;
};

/// All that a seed decides; lengths in metres.
struct RandomModel {
    std::vector<RandomLayer> layers;  ///< 5 to 8, near 225 to near 1150 deep, dips to 6.5 degrees
    double fold_length, fold_phase;   ///< from crest to crest, 2000 to 4000; radians
    RandomField anomaly;              ///< relative change of slowness, up to 6 to 12 %; lengths of 300 to 900
    explicit RandomModel(std::uint64_t seed);
};

}  // namespace morvane
