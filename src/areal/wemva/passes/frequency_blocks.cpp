#include "src/areal/wemva/passes/frequency_blocks.h"

#include <algorithm>

#include "lib/base/index.h"

namespace morvane {

std::optional<Block> BlockQueue::next() {
    const std::lock_guard lock(guard_);
    const int left = end_ - at_;
    if (left == 0) return std::nullopt;
    const int fewest = std::min({4, most_, std::max(1, frequencies_ / threads_)});
    const int count = std::min(left, std::clamp((left + threads_ - 1) / threads_, fewest, most_));
    const Block block{at_, count, turn_++};
    at_ += count;
    return block;
}

SharedImage::SharedImage(const WaveContext& context, const ImageCondition& condition, Arena& arena)
    : nodes_(context.nodes),
      ffd_(context.par.ffd()),
      condition_(condition),
      band_(condition, context.par.kxm.n),
      depths_(context.par) {
    if (banded()) samples_ = arena.take<float>(band_.size(), context.par.img.z.n);
}

void SharedImage::phases(const Block& block, cf* phase) const {
    for (int i = 0; i < block.count; ++i) phase[i] = condition_.receiver_phase(block.first + i);
}

void SharedImage::clear() {
    if (!banded()) return;
    in_parallel(nodes_, [&](int i) {
        for (std::ptrdiff_t iz = i; iz < samples_.n[1]; iz += nodes_) std::fill_n(slice(iz), samples_.n[0], 0.0f);
    });
}

void SharedImage::add_to(View<float, 3> image, int first) const {
    if (!banded()) return;
    in_parallel(nodes_, [&](int i) {
        for (std::ptrdiff_t iz = depths_.first + i; iz < depths_.end; iz += nodes_)
            band_.add_to(slice(iz), image.slice(iz - first));
    });
}

void SharedImage::take(View<const float, 3> image) {
    if (!banded()) return;
    in_parallel(nodes_, [&](int i) {
        for (std::ptrdiff_t iz = depths_.first + i; iz < depths_.end; iz += nodes_)
            band_.take(image.slice(iz), slice(iz));
    });
}

BlockImaging::BlockImaging(const WaveContext& context, const SharedImage& shared, Arena& arena)
    : context_(context),
      shared_(shared),
      kernels_(shared.band(), arena),
      scratch_(context.par.kxm.n),
      phase_(lane_count) {
    const int nx = context.par.kxm.n;
    known_ = arena.take<float>(lane_count, 2, shared.banded() ? nx : 0);
    sum_ = arena.take<float>(lane_count, 2, shared.banded() ? nx : 0);
    column_ = arena.take<cf>(nx, shared.banded() ? lane_count : 0);
}

void BlockImaging::start(const Block& block) {
    block_ = block;
    shared_.phases(block, phase_.data());
}

void BlockImaging::load(const BlockPair& fields) {
    if (shared_.banded()) kernels_.load(fields.source, fields.receiver, phase_.data());
}

void BlockImaging::add(const BlockPair& fields, int iz, View<float, 2> plain) {
    if (shared_.banded()) return kernels_.add(shared_.slice(iz), shared_.slice_after(iz));
    for (int i = 0; i < block_.count; ++i)
        owimage_forward(shared_.condition(), block_.first + i, fields.source.slice(i), fields.receiver.slice(i), plain,
                        scratch_);
}

void BlockImaging::spread_side(Spread side, View<const cf, 2> fields, int iz, View<cf, 2> out) {
    to_lanes(fields, known_);
    const float* const taper = context_.taper.p;
    Vector<float, lane_count> c{}, s{};
    for (int i = 0; i < block_.count; ++i) {
        c[i] = phase_[at(i)].real();
        s[i] = side == Spread::source ? phase_[at(i)].imag() : -phase_[at(i)].imag();
    }
    for (std::ptrdiff_t x = 0; x < fields.n[0]; ++x) {
        auto* const z = reinterpret_cast<Vector<float, lane_count>*>(known_.p) + 2 * x;
        const auto re = taper[x] * z[0], im = taper[x] * z[1];
        z[0] = re * c - im * s;
        z[1] = re * s + im * c;
    }
    kernels_.spread(side, known_, block_.count, shared_.slice(iz), sum_, shared_.slice(iz - 1));
    View<cf, 2> columns = column_;
    columns.n[1] = block_.count;
    from_lanes(sum_, columns);
    for (int i = 0; i < block_.count; ++i) {
        const float* const add = parts(columns.slice(i).p);
        float* const z = parts(out.slice(i).p);
        for (std::ptrdiff_t x = 0; x < out.n[0]; ++x) {
            z[2 * x] = taper[x] * (z[2 * x] + add[2 * x]);
            z[2 * x + 1] = taper[x] * (z[2 * x + 1] + add[2 * x + 1]);
        }
    }
}

void BlockImaging::spread(const BlockPair& fields, int iz, View<const float, 3> plain, const BlockPair& out) {
    if (shared_.banded()) {
        spread_side(Spread::source, fields.receiver, iz, out.source);
        spread_side(Spread::receiver, fields.source, iz, out.receiver);
        return;
    }
    for (int i = 0; i < block_.count; ++i) {
        const int iw = block_.first + i;
        owimage_transpose(shared_.condition(), iw, Spread::source, context_.taper, fields.receiver.slice(i),
                          plain.slice(iz), out.source.slice(i), scratch_, plain.slice(iz - 1));
        owimage_transpose(shared_.condition(), iw, Spread::receiver, context_.taper, fields.source.slice(i),
                          plain.slice(iz), out.receiver.slice(i), scratch_, plain.slice(iz - 1));
    }
}

}  // namespace morvane
