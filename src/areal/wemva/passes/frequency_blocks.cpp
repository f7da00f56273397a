#include "src/areal/wemva/passes/frequency_blocks.h"

#include <algorithm>

#include "lib/base/index.h"

namespace morvane {

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
    const int nx = shared.banded() ? context.par.kxm.n : 0;
    for (LaneField* field : {&known_, &sum_.source, &sum_.receiver}) *field = arena.take<float>(lane_count, 2, nx);
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

void BlockImaging::spread_side(Spread side, ConstLaneField fields, int iz, LaneField sum) {
    using Lanes = Vector<float, lane_count>;
    Lanes c{}, s{};
    for (int i = 0; i < block_.count; ++i) {
        c[i] = phase_[at(i)].real();
        s[i] = side == Spread::source ? phase_[at(i)].imag() : -phase_[at(i)].imag();
    }
    const auto* in = reinterpret_cast<const Lanes*>(fields.p);
    auto* turned = reinterpret_cast<Lanes*>(known_.p);
    for (std::ptrdiff_t x = 0; x < fields.n[2]; ++x, in += 2, turned += 2) {
        const Lanes re = context_.taper.p[x] * in[0], im = context_.taper.p[x] * in[1];
        turned[0] = re * c - im * s;
        turned[1] = re * s + im * c;
    }
    kernels_.spread(side, known_, block_.count, shared_.slice(iz), sum, shared_.slice(iz - 1));
}

LanePair BlockImaging::spread(const LanePair& fields, int iz) {
    spread_side(Spread::source, fields.receiver, iz, sum_.source);
    spread_side(Spread::receiver, fields.source, iz, sum_.receiver);
    return sum_;
}

void BlockImaging::spread(const BlockPair& fields, int iz, View<const float, 3> plain, const BlockPair& out) {
    for (int i = 0; i < block_.count; ++i) {
        const int iw = block_.first + i;
        owimage_transpose(shared_.condition(), iw, Spread::source, context_.taper, fields.receiver.slice(i),
                          plain.slice(iz), out.source.slice(i), scratch_, plain.slice(iz - 1));
        owimage_transpose(shared_.condition(), iw, Spread::receiver, context_.taper, fields.source.slice(i),
                          plain.slice(iz), out.receiver.slice(i), scratch_, plain.slice(iz - 1));
    }
}

}  // namespace morvane
