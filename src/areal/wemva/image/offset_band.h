#pragma once
/// The image over subsurface offset while it is summed over blocks of frequencies: a banded outer product.
///
/// With u = x - h and v = x + h, I(x, h) += sum over frequencies of Re(conj(ws(u)) wr(v)). A slice is kept by u, the
/// offsets of each u in a row. Where offsets are evenly spaced, by k samples, the v of such a row lie 2k apart; with
/// the receiver's samples kept in 2k classes they are neighbours, and a row of offsets stays in registers for all the
/// frequencies of a block. Rows start where a whole vector of their class starts.
#include <cstdint>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "lib/base/lanes.h"
#include "src/areal/wemva/image/ow_image_areal.h"

namespace morvane {

/// Where the samples of a slice lie.
class OffsetBand {
public:
    /// @param nx samples of the line
    OffsetBand(const ImageCondition& condition, int nx);
    /// Whether it holds the image of this condition: offsets, evenly spaced, and enough of them to be worth it.
    bool serves() const { return step_ > 0; }
    /// Floats of one slice.
    std::ptrdiff_t size() const { return row_ * nx_; }

    /// image += slice, once a shot.
    /// @param image (nx, nh)
    void add_to(const float* slice, View<float, 2> image) const;
    /// slice = image
    void take(View<const float, 2> image, float* slice) const;

private:
    friend class BandKernels;
    static constexpr std::ptrdiff_t vector = 8;
    /// Position in the padded class of receiver samples of the first offset of u.
    std::ptrdiff_t first_partner(std::ptrdiff_t u) const {
        return (u + 2 * first_offset_ - class_of(u)) / step_ + pad_;
    }
    std::ptrdiff_t class_of(std::ptrdiff_t u) const;
    /// The sample of u and offset 0, from which the other offsets follow.
    std::ptrdiff_t start(std::ptrdiff_t u) const { return u * row_ + first_partner(u) % vector; }
    template <class Copy>
    void for_all(Copy copy) const;

    std::ptrdiff_t nx_, nh_ = 0, first_offset_ = 0;
    std::ptrdiff_t step_ = 0;  // between the partners of neighbouring offsets; 0: does not serve
    std::ptrdiff_t row_ = 0, pad_ = 0;
    std::vector<int> offsets_;
};

/// What a thread needs to sum a block into slices, and to spread them.
class BandKernels {
public:
    BandKernels(const OffsetBand& band, Arena& arena);

    /// slice += correlation over offset, frequency by frequency in their order, in two parts: load() is what can be
    /// done before the slice is at hand.
    /// @param ws, wr (nx, frequencies) fields at this depth
    /// @param phase  of each frequency, by which the receiver field is turned
    void load(View<const cf, 2> ws, View<const cf, 2> wr, const cf* phase);
    /// @param next null, or the slice that is asked for next, to be brought into the cache meanwhile
    void add(float* slice, const float* next) const;

    /// The slice spread onto one side: out = J' slice, where `known` holds the fields of the other side, turned.
    /// @param next null, or the slice that is asked for next, to be brought into the cache meanwhile
    void spread(Spread side, ConstLaneField known, int count, const float* slice, LaneField out,
                const float* next) const;

private:
    struct Tile;
    void sum_source(Tile& tile, std::ptrdiff_t y0, std::ptrdiff_t samples, const float* known,
                    const float* slice) const;
    void sum_receiver(Tile& tile, std::ptrdiff_t y0, std::ptrdiff_t samples, const float* known,
                      const float* slice) const;

    const OffsetBand& band_;
    std::vector<std::ptrdiff_t> starts_;  // OffsetBand::start of each u
    std::ptrdiff_t length_;               // of a padded class of receiver samples
    int count_ = 0;
    LaneField source_;
    View<float, 4> receiver_;  // (length, classes, 2, lane_count) real and imaginary parts
};

}  // namespace morvane
