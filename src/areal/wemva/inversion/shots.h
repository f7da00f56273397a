#pragma once
/// The shots of a survey: their wavefields, read one at a time, and their windows of model and image.
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "src/areal/wemva/focus/focus.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/passes/kept_fields.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/medium.h"

namespace morvane {

/// The shot at hand, and what is kept between the passes over all of them.
class Shots {
public:
    /// @param freezes whether the reference velocities of the start model serve for every model, and margins are
    /// cleared
    Shots(const Parms& par, bool freezes);
    /// Puts both datasets to their start; with one source function, reads it and sets it at its trace.
    void rewind(const Inversion& run);
    /// Reads the wavefields of this shot and cuts its slowness out of the model.
    /// @param model (img.xm.n, img.z.n)
    /// Ends the run when the data hold numbers that are not finite, naming the dataset and the shot.
    void load(const Inversion& run, View<const float, 2> model, int ishot);
    /// What the passes of this shot share.
    WaveContext context(const Inversion& run, int nodes);
    /// First column of its window in the image, from 1.
    int first_column() const { return ish_; }

    Array<cf, 2> recv;                       ///< (rec.h.n, rec.w.n) receiver wavefield
    Array<cf, 2> source;                     ///< (sou.h.n or rec.h.n, sou.w.n) source wavefield
    Array<float, 2> vel;                     ///< (kxm.n, img.z.n) slowness
    std::vector<ReferenceTable> references;  ///< frozen: of each shot's window of the start model (areal: of the model)

private:
    /// Where the fields of this shot are kept; null if there is no room for them.
    KeptFields* kept();
    void seek(const Inversion& run, int ishot);

    Array<float, 2> start_;           // (kxm.n, img.z.n) frozen: window of the start model
    std::int64_t most_kept_;          // shots whose fields are kept
    std::map<int, KeptFields> kept_;  // by number
    std::vector<Arena> memory_;       // work arrays of the passes, one arena per thread
    bool freezes_;
    int ishot_ = 1, ish_ = 1;
    int next_ = 1;  // the shot that the datasets stand at
};

/// Some shots with their windows of the start model, to look at beside the run: nothing is written or said.
/// @param numbers counted from 1
std::vector<ShotFields> load_shots(const Inversion& run, std::span<const int> numbers);

std::int64_t count_not_finite(std::span<const float> samples);

/// Adds the columns of a shot's window to those of the image from column `ish` on, counted from 1.
void stack(View<const float, 2> window, View<float, 2> image, int ish);
void stack(View<const float, 3> window, View<float, 3> image, int ish, int nodes);
/// The window of the image that begins at column `ish`, counted from 1.
void cut_window(View<const float, 2> image, View<float, 2> window, int ish);
void cut_window(View<const float, 3> image, View<float, 3> window, int ish);

}  // namespace morvane
