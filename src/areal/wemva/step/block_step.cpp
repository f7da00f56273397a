#include "src/areal/wemva/step/block_step.h"

#include <algorithm>
#include <utility>

#include "lib/base/index.h"

namespace morvane {

namespace {

bool any_blends(const Medium& medium) {
    return std::ranges::any_of(medium.levels, [](const MediumLevel& level) { return level.dweight.n()[0] > 0; });
}

LanePair take_lanes(Arena& arena, std::ptrdiff_t nx) {
    return {arena.take<float>(lane_count, 2, nx), arena.take<float>(lane_count, 2, nx)};
}

View<cf, 2> first_columns(View<cf, 2> all, int count) {
    all.n[1] = count;
    return all;
}

/// gradient += Re(conj(field) factor derivative), out = field table
void correlate_and_multiply(View<const cf, 1> field, cf factor, View<const cf, 1> derivative, View<const cf, 1> table,
                            bool conjugate, View<float, 1> gradient, cf* out) {
    const float *const x = parts(field.p), *const d = parts(derivative.p), *const t = parts(table.p);
    float *const g = gradient.p, *const y = parts(out);
    const float c = factor.real(), s = factor.imag(), turn = conjugate ? -1.0f : 1.0f;
#pragma GCC ivdep
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) {
        const float xr = x[2 * i], xi = x[2 * i + 1], dr = d[2 * i], di = d[2 * i + 1];
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        g[i] += c * (xr * dr + xi * di) + s * (xi * dr - xr * di);
        y[2 * i] = xr * tr - xi * ti;
        y[2 * i + 1] = xr * ti + xi * tr;
    }
}

/// Where the first product of a transposed shift goes.
cf* first_product(const DepthStep& step, View<cf, 1> field, StepScratch& s) {
    return step.blends ? field.p : s.field.view().p;
}

/// What of the transpose of shift() follows that product: the sum over the references.
void sum_references(const DepthStep& step, const LateralFft& fft, bool conjugate, View<cf, 1> field, StepScratch& s) {
    const View<cf, 1> spectrum = s.spectrum, shifted = s.shifted, work = s.field;
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        if (step.blends) {
            weigh(field, step.level->weight.view().slice(k), work.p);
        } else if (k > 0) {
            multiply(field, step.space.slice(k), conjugate, work.p);
        }
        fft.forward.run(work, shifted);
        (k == 0 ? multiply : multiply_add)(shifted, step.phase.slice(k), conjugate, spectrum.p);
    }
    fft.inverse.run(spectrum, field);
}

/// The derivative of a shifted field with respect to slowness: a factor, and the field that it multiplies.
struct ShiftDerivative {
    cf factor;
    View<const cf, 1> field;
};
ShiftDerivative shift_derivative(const DepthStep& step, int sign, View<const cf, 1> blend, View<const cf, 1> shifted) {
    if (step.blends) return {1.0f, blend};
    return {{0.0f, static_cast<float>(sign) * step.dz_w}, shifted};
}

/// fields = taper (fields + image)
void add_tapered(const LanePair& fields, const LanePair& image, View<const float, 1> taper) {
    using Lanes = Vector<float, lane_count>;
    for (const auto& [field, add] : {std::pair(fields.source, image.source), {fields.receiver, image.receiver}}) {
        auto* const z = reinterpret_cast<Lanes*>(field.p);
        const auto* const sum = reinterpret_cast<const Lanes*>(add.p);
        for (std::ptrdiff_t x = 0; x < taper.n[0]; ++x)
            for (std::ptrdiff_t part = 2 * x; part < 2 * x + 2; ++part) z[part] = taper.p[x] * (z[part] + sum[part]);
    }
}

/// Source and receiver side: a sign, and its member of a pair.
constexpr std::pair<int, View<cf, 2> BlockPair::*> sides[] = {{+1, &BlockPair::source}, {-1, &BlockPair::receiver}};

}  // namespace

BlockRecord::BlockRecord(const Parms& par, const Medium& medium, int frequencies, Arena& arena) {
    const std::ptrdiff_t nx = par.kxm.n, nz = par.img.z.n;
    source_ = arena.take<cf>(nx, frequencies, nz);
    receiver_ = arena.take<cf>(nx, frequencies, nz);
    const int nstage = LaneStages::count(par, medium);
    if (nstage > 0) stages_ = arena.take<float>(lane_count, 2, nx, 2 * nstage, nz);
    if (!any_blends(medium)) return;
    blend_source_ = arena.take<cf>(nx, frequencies, nz);
    blend_receiver_ = arena.take<cf>(nx, frequencies, nz);
}

BlockPair BlockRecord::after(int level, int count) const {
    return {first_columns(source_.slice(level), count), first_columns(receiver_.slice(level), count)};
}

BlockPair BlockRecord::blend(int level, int count) const {
    if (!blends()) return {};
    return {first_columns(blend_source_.slice(level), count), first_columns(blend_receiver_.slice(level), count)};
}

LanePair BlockRecord::before(int level, int stage) const {
    const View<float, 4> all = stages_.slice(level);
    return {all.slice(2 * stage), all.slice(2 * stage + 1)};
}

BlockSteps::BlockSteps(const Parms& par, const Medium& medium, const LateralFft& fft, Arena& arena)
    : par_(par), medium_(medium), fft_(fft), stages_(par, medium, arena), scratch_(par.kxm.n) {
    const std::ptrdiff_t nx = par.kxm.n;
    std::size_t nref = 1;
    for (const MediumLevel& level : medium.levels) nref = std::max(nref, level.vref.size());
    phase_ = arena.take<cf>(nx, static_cast<std::ptrdiff_t>(nref), lane_count);
    space_ = arena.take<cf>(nx, static_cast<std::ptrdiff_t>(nref), lane_count);
    work_ = arena.take<float>(nx, 2);
    lanes_ = take_lanes(arena, nx);
    after_ = take_lanes(arena, nx);
    columns_ = arena.take<cf>(nx, lane_count);
}

void BlockSteps::set_frequencies(int first, int count) {
    first_ = first;
    count_ = count;
    const std::span<const float> w(par_.rec.w.all);
    stages_.set_frequencies(w.subspan(at(first), at(count)));
    for (int i = 0; i < count; ++i) steps_at_[at(i)] = par_.ffd() ? w[at(first + i)] != 0.0f : par_.pspi();
}

void BlockSteps::prepare(int level) {
    level_ = level;
    stages_.set_level(level);
    for (int i = 0; i < count_; ++i) {
        if (!steps(i)) continue;
        DepthStep& step = steps_[at(i)];
        step.level = &medium_.levels[at(level)];
        prepare_phases(par_, par_.rec.w.all[at(first_ + i)], phase_.slice(i), space_.slice(i), work_, step);
    }
}

void BlockSteps::to_lanes(const BlockPair& fields) {
    morvane::to_lanes(fields.source, lanes_.source);
    morvane::to_lanes(fields.receiver, lanes_.receiver);
}

void BlockSteps::from_lanes(const BlockPair& fields) const {
    morvane::from_lanes(lanes_.source, fields.source);
    morvane::from_lanes(lanes_.receiver, fields.receiver);
}

void BlockSteps::carry(const BlockPair& fields, View<const float, 1> taper) {
    const bool stages = stages_.count() > 0;
    for (int i = 0; i < count_; ++i) {
        for (const auto& [sign, side] : sides) {
            const View<cf, 1> field = (fields.*side).slice(i);
            if (steps(i)) shift(steps_[at(i)], fft_, sign, field, field, nullptr, scratch_);
            if (!stages) weigh(field, taper, field.p);
        }
    }
    if (!stages) return;
    to_lanes(fields);
    for (int k = 0; k < stages_.count(); ++k) stages_.apply(k, lanes_, lanes_);
    from_lanes(fields);
    for (int i = 0; i < count_; ++i)
        for (const auto& [sign, side] : sides) weigh((fields.*side).slice(i), taper, (fields.*side).slice(i).p);
}

void BlockSteps::carry(const BlockPair& fields, View<const float, 1> taper, const BlockRecord& record) {
    const BlockPair out = record.after(level_, count_), blend = record.blend(level_, count_);
    const int nstage = stages_.count();
    for (int i = 0; i < count_; ++i) {
        for (const auto& [sign, side] : sides) {
            const View<cf, 1> field = (fields.*side).slice(i), to = (out.*side).slice(i);
            const DepthStep& step = steps_[at(i)];
            if (steps(i))
                shift(step, fft_, sign, field, to, step.blends ? (blend.*side).slice(i).p : nullptr, scratch_);
            else
                std::ranges::copy(field.flat(), to.p);
            if (nstage == 0) weigh(to, taper, field.p);
        }
    }
    if (nstage == 0) return;
    const LanePair first = record.before(level_, 0);
    morvane::to_lanes(out.source, first.source);
    morvane::to_lanes(out.receiver, first.receiver);
    for (int k = 0; k < nstage; ++k)
        stages_.apply(k, record.before(level_, k), k + 1 < nstage ? record.before(level_, k + 1) : lanes_);
    from_lanes(out);
    for (int i = 0; i < count_; ++i)
        for (const auto& [sign, side] : sides) weigh((out.*side).slice(i), taper, (fields.*side).slice(i).p);
}

LanePair BlockSteps::load_after(const BlockRecord& record) {
    const BlockPair out = record.after(level_, count_);
    morvane::to_lanes(out.source, after_.source);
    morvane::to_lanes(out.receiver, after_.receiver);
    return after_;
}

LanePair BlockSteps::after_stage(const BlockRecord& record, int stage) const {
    return stage + 1 < stages_.count() ? record.before(level_, stage + 1) : after_;
}

void BlockSteps::derivative(const BlockPair& fields, const BlockRecord& record, View<const float, 1> ds) {
    // The shifted fields, of which the thin lens takes the derivative, are those before the first stage.
    BlockPair shifted = record.after(level_, count_);
    const BlockPair blend = record.blend(level_, count_);
    Array<cf, 2> before_source, before_receiver;
    if (stages_.count() > 0) {
        before_source = before_receiver = Array<cf, 2>(shifted.source.n);
        shifted = {before_source, before_receiver};
        morvane::from_lanes(record.before(level_, 0).source, shifted.source);
        morvane::from_lanes(record.before(level_, 0).receiver, shifted.receiver);
    }
    for (int i = 0; i < count_; ++i) {
        if (!steps(i)) continue;
        for (const auto& [sign, side] : sides) {
            const View<cf, 1> field = (fields.*side).slice(i);
            shift(steps_[at(i)], fft_, sign, field, field, nullptr, scratch_);
            const auto [factor, d] =
                shift_derivative(steps_[at(i)], sign, record.blends() ? (blend.*side).slice(i) : View<cf, 1>{},
                                 (shifted.*side).slice(i));
            for (std::ptrdiff_t x = 0; x < ds.n[0]; ++x) field(x) += factor * d(x) * ds(x);
        }
    }
    if (stages_.count() == 0) return;
    load_after(record);
    to_lanes(fields);
    for (int k = 0; k < stages_.count(); ++k)
        stages_.derivative(k, record.before(level_, k), after_stage(record, k), ds, lanes_);
    from_lanes(fields);
}

void BlockSteps::add_image(const BlockPair& fields, const LanePair& image, View<const float, 1> taper) {
    for (const auto& [side, sum] : {std::pair(fields.source, image.source), {fields.receiver, image.receiver}}) {
        const View<cf, 2> columns = first_columns(columns_, count_);
        morvane::from_lanes(sum, columns);
        for (int i = 0; i < count_; ++i) {
            const float *const add = parts(columns.slice(i).p), *const t = taper.p;
            float* const z = parts(side.slice(i).p);
            for (std::ptrdiff_t x = 0; x < side.n[0]; ++x) {
                z[2 * x] = t[x] * (z[2 * x] + add[2 * x]);
                z[2 * x + 1] = t[x] * (z[2 * x + 1] + add[2 * x + 1]);
            }
        }
    }
}

void BlockSteps::transpose_stages(const BlockRecord& record, View<float, 2> gradients) {
    for (int k = stages_.count() - 1; k >= 0; --k)
        stages_.transposed(k, record.before(level_, k), after_stage(record, k), lanes_);
    stages_.add_thin_lens(par_.v.z.d, record.before(level_, 0), lanes_);
    stages_.get_gradients(gradients);
}

void BlockSteps::transposed(const BlockPair& fields, const LanePair& image, View<const float, 1> taper,
                            const BlockRecord& record, View<float, 2> gradients) {
    const bool stages = stages_.count() > 0;
    if (stages) {
        to_lanes(fields);
        if (image.source.p)
            add_tapered(lanes_, image, taper);
        else
            load_after(record);
        transpose_stages(record, gradients);
        from_lanes(fields);
    } else {
        if (image.source.p) add_image(fields, image, taper);
        std::ranges::fill(gradients.flat(), 0.0f);
    }
    const BlockPair shifted = record.after(level_, count_), blend = record.blend(level_, count_);
    for (int i = 0; i < count_; ++i) {
        if (!steps(i)) continue;
        const DepthStep& step = steps_[at(i)];
        for (const auto& [sign, side] : sides) {
            const View<cf, 1> field = (fields.*side).slice(i);
            const bool conjugate = sign > 0;
            if (stages) {
                multiply(field, step.space.slice(0), conjugate, first_product(step, field, scratch_));
            } else {
                const auto [factor, derivative] = shift_derivative(
                    step, sign, record.blends() ? (blend.*side).slice(i) : View<cf, 1>{}, (shifted.*side).slice(i));
                correlate_and_multiply(field, factor, derivative, step.space.slice(0), conjugate, gradients.slice(i),
                                       first_product(step, field, scratch_));
            }
            sum_references(step, fft_, conjugate, field, scratch_);
        }
    }
}

void BlockSteps::transposed(View<cf, 2> receiver) {
    if (stages_.count() > 0) {
        morvane::to_lanes(receiver, lanes_.receiver);
        for (int k = stages_.count() - 1; k >= 0; --k) stages_.transposed(k, lanes_.receiver);
        morvane::from_lanes(lanes_.receiver, receiver);
    }
    constexpr bool conjugate = false;
    for (int i = 0; i < count_; ++i) {
        if (!steps(i)) continue;
        const DepthStep& step = steps_[at(i)];
        const View<cf, 1> field = receiver.slice(i);
        multiply(field, step.space.slice(0), conjugate, first_product(step, field, scratch_));
        sum_references(step, fft_, conjugate, field, scratch_);
    }
}

}  // namespace morvane
