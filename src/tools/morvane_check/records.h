#pragma once
/// What the records themselves tell, before any migration.
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/shots.h"

namespace morvane {

/// Of the shots that were looked at. Densities are energy per sample of time, of the whole record's mean.
struct Records {
    std::vector<double> data, source;    ///< rms amplitude by frequency
    std::vector<double> shot_rms;        ///< of every shot of the survey
    double peak = 0.0;                   ///< frequency of the largest product of the two, cycles/time
    double lowest = 0.0, highest = 0.0;  ///< where it has a tenth of that
    double early = 0.0;                  ///< density before the fastest arrival that the model allows
    double direct = 0.0;  ///< density around the direct wave, at offsets where it is clear of steep reflections
    double tail = 0.0;    ///< density in the last twentieth of the record
    double length = 0.0;  ///< of the record, 1 / df
};

/// Reads all shots once. Times are those after the source's wavelet is taken out in phase.
/// @param used numbers of the shots whose traces are brought back to time, from 1
Records look_at_records(const Inversion& run, Shots& shots, View<const float, 2> model, const std::vector<int>& used);

/// Index of the source's trace: where its field is largest.
std::ptrdiff_t source_trace(View<const cf, 2> source);

}  // namespace morvane
