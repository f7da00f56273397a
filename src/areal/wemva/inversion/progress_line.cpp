#include "src/areal/wemva/inversion/progress_line.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace morvane {

namespace {

using Pass = Position::Pass;

std::string duration(double seconds) {
    char text[32];
    if (seconds < 90.0)
        std::snprintf(text, sizeof text, "%.0f s", seconds);
    else if (seconds < 5400.0)
        std::snprintf(text, sizeof text, "%.0f min", seconds / 60.0);
    else
        std::snprintf(text, sizeof text, "%.1f h", seconds / 3600.0);
    return text;
}

}  // namespace

double monotonic_seconds() {
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

ProgressLine::ProgressLine(std::string program, const Parms& par)
    : program_(std::move(program)),
      shots_(par.rec.xd.n),
      niter_(par.niter),
      on_(par.progress && !par.quiet),
      terminal_(::isatty(STDERR_FILENO) == 1),
      begun_(monotonic_seconds()),
      shown_(begun_) {}

std::string ProgressLine::text(double now, int iter, int titer, const Position& position) const {
    const bool image = position.pass == Pass::image;
    // a gradient costs about two images until one has been timed
    const double gradient = gradient_seconds_ > 0.0 ? gradient_seconds_ : 2.0 * image_seconds_;
    const double shots = shots_, left = shots_ - position.shot + 1;
    const double of_evaluation = image ? left * image_seconds_ + shots * gradient : left * gradient;
    const double of_run = of_evaluation + std::max(niter_ - iter, 0) * shots * (image_seconds_ + gradient);
    std::string line = program_ + ": evaluation " + std::to_string(titer) + ", " + (image ? "image" : "gradient") +
                       ", shot " + std::to_string(position.shot) + " of " + std::to_string(shots_) + "; " +
                       duration(now - begun_) + " spent";
    if (image_seconds_ > 0.0)
        line += ", " + duration(of_evaluation) + " left of this evaluation, about " + duration(of_run) + " of the run";
    return line;
}

void ProgressLine::show(int iter, int titer, const Position& position) {
    if (!on_) return;
    const double now = monotonic_seconds();
    if (position.pass == last_.pass && position.shot > first_.shot)
        (position.pass == Pass::image ? image_seconds_ : gradient_seconds_) =
            (now - pass_begun_) / (position.shot - first_.shot);
    if (position.pass != last_.pass || position.shot < last_.shot) {
        pass_begun_ = now;
        first_ = position;
    }
    last_ = position;
    if (now - shown_ < (terminal_ ? 0.5 : 60.0)) return;
    shown_ = now;
    standing_ = terminal_;
    std::fprintf(stderr, terminal_ ? "\r%s\033[K\r" : "%s\n", text(now, iter, titer, position).c_str());
}

void ProgressLine::clear() {
    if (std::exchange(standing_, false)) std::fputs("\r\033[K", stderr);
}

}  // namespace morvane
