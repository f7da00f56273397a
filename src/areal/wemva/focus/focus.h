#pragma once
/// How well a few shots focus as they are, with other signs, and with another time zero.
#include <cstddef>
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/medium.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// What is done to the wavefields before they are migrated.
struct Variant {
    bool conjugate_rec = false, conjugate_sou = false;
    double shift = 0.0;  ///< the records begin so much later
};

/// The variants of sign: as they are, both conjugated, rec, sou.
inline constexpr Variant sign_variants[] = {{}, {true, true}, {true, false}, {false, true}};

/// Energy of an image by depth: at zero offset, and at all offsets.
struct Focus {
    std::vector<double> zero, all;
    /// The share at zero offset over depths first to end - 1.
    double share(std::size_t first, std::size_t end) const;
    /// Depths down to which the image holds a third of its energy: nearer the surface an error of velocity matters
    /// less.
    std::size_t shallow_end() const;
    double shallow_share() const { return share(0, shallow_end()); }
};

/// One shot as it is migrated.
struct ShotFields {
    Array<cf, 2> recv, source;  ///< (rec.h.n, rec.w.n), (rec.h.n or more, rec.w.n)
    Array<float, 2> vel;        ///< (kxm.n, img.z.n) slowness
    int column;                 ///< of the image, where its window begins, from 1
};

/// A few shots of a survey, held in memory.
class FewShots {
public:
    /// @param every take one of so many frequencies
    FewShots(const Parms& par, const LateralFft& fft, View<const float, 1> taper, View<const float, 3> vref,
             std::vector<ShotFields> shots, int every);
    FewShots(const FewShots&) = delete;
    FewShots& operator=(const FewShots&) = delete;
    std::size_t size() const { return shots_.size(); }
    int offsets() const { return par_.nsecdim; }
    /// From now on they are migrated with so many times their velocity.
    void scale_velocity(double factor);
    Focus focus(const Variant& variant);
    /// How well the data that their image at zero offset predicts agree with the variant's records: see passes/fit.h.
    double fit(const Variant& variant);

private:
    /// The fields of a shot as the variant has them.
    void take(const ShotFields& shot, const Variant& variant);
    WaveContext context(const Parms& par, std::size_t shot);
    /// (columns, par.nsecdim, img.z.n)
    Array<float, 3> image(const Parms& par, const Variant& variant);

    Parms par_, at_zero_;  // of the frequencies that are taken; with the image at zero offset alone
    const LateralFft& fft_;
    View<const float, 1> taper_;
    View<const float, 3> vref_;
    std::vector<ShotFields> shots_;
    std::vector<ReferenceTable> references_;
    double factor_ = 1.0;
    int first_ = 1, width_ = 0;  // columns that the shots' windows cover
    int nodes_;
    Array<cf, 2> recv_, source_;
    std::vector<Arena> memory_;
};

}  // namespace morvane
