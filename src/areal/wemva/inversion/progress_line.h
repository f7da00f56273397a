#pragma once
/// One line that tells how far a run is.
#include <string>

#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Seconds since some moment, which do not jump.
double monotonic_seconds();

/// On the standard error: written over itself on a terminal, else a line per minute. Silent with progress=n or quiet=y.
class ProgressLine {
public:
    ProgressLine(std::string program, const Parms& par);
    /// Before a shot.
    void show(int iter, int titer, const Position& position);
    /// Leaves the terminal's line empty for other messages.
    void clear();

private:
    std::string text(double now, int iter, int titer, const Position& position) const;

    std::string program_;
    int shots_, niter_;
    bool on_, terminal_, standing_ = false;
    double begun_, shown_, pass_begun_ = 0.0;
    double image_seconds_ = 0.0, gradient_seconds_ = 0.0;  // of one shot, as far as is known
    Position last_, first_;                                // the shot before; the first that this pass began with
};

}  // namespace morvane
