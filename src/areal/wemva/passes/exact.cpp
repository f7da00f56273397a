// The passes of the exact mode: the image, its derivative with respect to slowness by the recursion of the migration
// itself, and the transpose of that.
#include "src/areal/wemva/passes/exact.h"

#include <algorithm>
#include <cassert>
#include <optional>
#include <vector>

#include "lib/base/index.h"
#include "src/areal/wemva/passes/frequency_blocks.h"
#include "src/areal/wemva/passes/kept_fields.h"

namespace morvane {

namespace {

BlockPair take_pair(const Parms& par, Arena& arena) {
    return {arena.take<cf>(par.kxm.n, lane_count), arena.take<cf>(par.kxm.n, lane_count)};
}

BlockPair first_columns(BlockPair pair, int count) {
    pair.source.n[1] = pair.receiver.n[1] = count;
    return pair;
}

void clear_pair(const BlockPair& pair) {
    clear_samples(pair.source);
    clear_samples(pair.receiver);
}

/// to = from * taper
void taper_pair(const WaveContext& context, const BlockPair& from, const BlockPair& to) {
    for (std::ptrdiff_t i = 0; i < from.source.n[1]; ++i) {
        apply_taper(context.taper, from.source.slice(i), to.source.slice(i));
        apply_taper(context.taper, from.receiver.slice(i), to.receiver.slice(i));
    }
}

void add_illumination(View<const cf, 2> ws, View<float, 1> illum) {
    for (std::ptrdiff_t b = 0; b < ws.n[1]; ++b) {
        const float* const z = parts(ws.slice(b).p);
        for (std::ptrdiff_t i = 0; i < ws.n[0]; ++i) illum.p[i] += z[2 * i] * z[2 * i] + z[2 * i + 1] * z[2 * i + 1];
    }
}

/// What a thread needs in every pass.
struct Slot {
    BlockPair fields;  // running, after the taper
    BlockSteps steps;
    BlockImaging imaging;
    Slot(const WaveContext& context, const Medium& medium, const SharedImage& shared, Arena& arena)
        : fields(take_pair(context.par, arena)),
          steps(context.par, medium, context.fft, arena),
          imaging(context, shared, arena) {}
};

/// And what it needs where fields are carried up, or their changes down.
struct RecordingSlot : Slot {
    std::optional<BlockRecord> record;  // unless the migration has kept them
    BlockPair carried;                  // running adjoint fields, or changes of the fields
    View<cf, 2> predicted;              // running predicted receiver fields
    View<float, 2> gradients;           // (nx, lane_count) of the frequencies at a level
    RecordingSlot(const WaveContext& context, const Medium& medium, const SharedImage& shared, Arena& arena)
        : Slot(context, medium, shared, arena),
          carried(take_pair(context.par, arena)),
          predicted(arena.take<cf>(context.par.kxm.n, context.prediction ? lane_count : 0)),
          gradients(arena.take<float>(context.par.kxm.n, lane_count)) {}
};

/// A pass over a shot: what all its blocks share.
template <class SlotType>
struct Pass {
    const WaveContext& context;
    View<const cf, 2> recv, source;
    DepthRange depths;
    Medium medium;
    ImageCondition condition;
    std::vector<Arena> own;
    std::span<Arena> arenas;
    SharedImage shared;
    Turns turns;
    std::vector<Block> blocks;
    std::vector<SlotType> slots;

    Pass(const WaveContext& with, View<const cf, 2> receivers, View<const cf, 2> sources, View<const float, 2> vel)
        : context(with),
          recv(receivers),
          source(sources),
          depths(with.par),
          medium(prepare_medium(with.par, vel, with.sref, with.frozen)),
          condition(with.par),
          arenas(arenas_of(with, own)),
          shared(with, condition, arenas[0]),
          turns(std::max(0, depths.end - depths.first), with.reproducible),
          blocks(cut_into_blocks(with.par.first_frequency(), with.par.end_frequency(), with.nodes,
                                 shared.worthwhile_block())) {
        slots.reserve(arenas.size());
        for (Arena& arena : arenas) slots.emplace_back(context, medium, shared, arena);
    }

    /// `work(slot, block)` for every block, whose surface fields are in the slot's.
    template <class Work>
    void run(Work work) {
        over_blocks(context, blocks, slots, turns, [&](SlotType& slot, const Block& block) {
            slot.steps.set_frequencies(block.first, block.count);
            slot.imaging.start(block);
            for (int i = 0; i < block.count; ++i) {
                load_surface(context.par, source, block.first + i, true, slot.fields.source.slice(i));
                load_surface(context.par, recv, block.first + i, true, slot.fields.receiver.slice(i));
            }
            work(slot, block);
        });
    }
    template <class Work>
    void in_turn(int iz, const Block& block, Work work) {
        turns.pass(iz - depths.first, block.turn, work);
    }
};

struct RecordedPass : Pass<RecordingSlot> {
    using Pass::Pass;

    /// The background fields at every depth, those of the slot if nobody has kept them.
    const BlockRecord& background(RecordingSlot& slot, const Block& block) {
        const BlockPair fields = first_columns(slot.fields, block.count);
        for (int iz = depths.first; iz < depths.end; ++iz) {
            slot.steps.prepare(iz - 1);
            slot.steps.carry(fields, context.taper, *slot.record);
        }
        return *slot.record;
    }
    /// Memory for them.
    void make_records() {
        for (std::size_t i = 0; i < slots.size(); ++i)
            slots[i].record.emplace(context.par, medium, shared.worthwhile_block(), arenas[i]);
    }

    void transposed(RecordingSlot& slot, const Block& block, const BlockRecord& record, View<const float, 3> deltai,
                    View<float, 2> deltas) {
        const BlockPair carried = first_columns(slot.carried, block.count);
        View<float, 2> gradients = slot.gradients;
        gradients.n[1] = block.count;
        clear_pair(carried);
        clear_samples(slot.predicted);
        for (int iz = depths.end - 1; iz >= depths.first; --iz) {
            slot.steps.prepare(iz - 1);
            LanePair spread;
            if (slot.imaging.banded())
                spread = slot.imaging.spread(slot.steps.load_after(record), iz);
            else
                slot.imaging.spread(record.after(iz - 1, block.count), iz, deltai, carried);
            if (context.prediction) predict(slot, block, record, iz);
            slot.steps.transposed(carried, spread, context.taper, record, gradients);
            in_turn(iz, block, [&] {
                for (int i = 0; i < block.count; ++i) add_to(gradients.slice(i).flat(), deltas.slice(iz - 1).flat());
            });
        }
        if (!context.prediction) return;
        for (int i = 0; i < block.count; ++i)
            if (slot.steps.steps(i)) compare(slot.predicted.slice(i), block.first + i);
    }

    /// The receiver side of the transpose for the zero-offset image of level iz and the fields from below, one level
    /// up.
    void predict(RecordingSlot& slot, const Block& block, const BlockRecord& record, int iz) const {
        const float *const image = context.prediction->image.slice(iz).p, *const taper = context.taper.p;
        View<cf, 2> predicted = slot.predicted;
        predicted.n[1] = block.count;
        const BlockPair fields = record.after(iz - 1, block.count);
        for (int b = 0; b < block.count; ++b) {
            const cf* const ws = fields.source.slice(b).p;
            cf* const d = predicted.slice(b).p;
            for (std::ptrdiff_t i = 0; i < predicted.n[0]; ++i) d[i] = taper[i] * (d[i] + image[i] * taper[i] * ws[i]);
        }
        slot.steps.transposed(predicted);
    }

    void compare(View<const cf, 1> predicted_field, int iw) const {
        const Parms& par = context.par;
        double both = 0.0, predicted = 0.0, recorded = 0.0;
        for (int i = 0; i < par.rec.h.n; ++i) {
            const std::complex<double> r = recv(i, iw), d = predicted_field(i + par.tapertr + par.padtraces);
            if (r == 0.0) continue;
            both += r.real() * d.real() + r.imag() * d.imag();
            predicted += std::norm(d);
            recorded += std::norm(r);
        }
        const View<double, 1> sums = context.prediction->sums.slice(iw);
        sums(0) += both;
        sums(1) += predicted;
        sums(2) += recorded;
    }

    void derivative(RecordingSlot& slot, const Block& block, View<const float, 2> deltas, View<float, 3> deltai) {
        const BlockPair changes = first_columns(slot.carried, block.count);
        const BlockPair fields = first_columns(slot.fields, block.count);
        clear_pair(changes);
        for (int iz = depths.first; iz < depths.end; ++iz) {
            slot.steps.prepare(iz - 1);
            slot.steps.derivative(changes, *slot.record, deltas.slice(iz - 1));
            taper_pair(context, changes, changes);
            taper_pair(context, slot.record->after(iz - 1, block.count), fields);
            in_turn(iz, block, [&] {
                for (const BlockPair& pair :
                     {BlockPair{changes.source, fields.receiver}, BlockPair{fields.source, changes.receiver}}) {
                    slot.imaging.load(pair);
                    slot.imaging.add(pair, iz, deltai.slice(iz));
                }
            });
        }
    }
};

}  // namespace

void migrate_blocks(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 3> image, View<float, 2> illum) {
    Pass<Slot> pass(context, recv, source, vel);
    const int top = context.par.nzmin - 1;
    pass.shared.clear();
    if (context.kept) context.kept->start(context.par, vel);
    pass.run([&](Slot& slot, const Block& block) {
        const BlockPair fields = first_columns(slot.fields, block.count);
        const BlockRecord* const record =
            context.kept ? &context.kept->record(context.par, pass.medium, block) : nullptr;
        for (int iz = pass.depths.first; iz < pass.depths.end; ++iz) {
            slot.steps.prepare(iz - 1);
            if (record)
                slot.steps.carry(fields, context.taper, *record);
            else
                slot.steps.carry(fields, context.taper);
            slot.imaging.load(fields);
            pass.in_turn(iz, block, [&] {
                if (illum.size() > 0) add_illumination(fields.source, illum.slice(iz));
                slot.imaging.add(fields, iz, image.slice(iz - top));
            });
        }
    });
    if (context.kept && !interruption::is_overdue()) context.kept->finish();
    pass.shared.add_to(image, top);
}

void owwei_gradient(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 2> deltas, View<const float, 3> deltai) {
    assert(context.frozen.references != nullptr && context.clear_margins);
    RecordedPass pass(context, recv, source, vel);
    pass.shared.take(deltai);
    const bool kept = context.kept && context.kept->holds(context.par, vel);
    if (kept)
        pass.blocks = context.kept->blocks();
    else
        pass.make_records();
    pass.run([&](RecordingSlot& slot, const Block& block) {
        const BlockRecord& record = kept ? context.kept->record(block) : pass.background(slot, block);
        pass.transposed(slot, block, record, deltai, deltas);
    });
}

void owwei_derivative(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                      View<const float, 2> vel, View<const float, 2> deltas, View<float, 3> deltai) {
    assert(context.frozen.references != nullptr && context.clear_margins);
    RecordedPass pass(context, recv, source, vel);
    pass.shared.clear();
    pass.make_records();
    pass.run([&](RecordingSlot& slot, const Block& block) {
        pass.background(slot, block);
        pass.derivative(slot, block, deltas, deltai);
    });
    pass.shared.add_to(deltai, 0);
}

}  // namespace morvane
