#pragma once
/// Plain text outputs of a run: the iteration log, the progress listing, and the lines they hold.
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// A text file that is written line by line; each line reaches the file at once, so that a killed run leaves all of
/// them.
class TextLog {
    qas::PlainOutput file_;

public:
    /// Opens the file `name`, which parameter `key` gave; ends the run if that fails, or if it is a file of another
    /// input or output. What it holds stays until begin().
    TextLog(qas::Session& session, const std::string& key, const std::string& name);
    /// Empties the file.
    void begin() { file_.begin(); }
    /// Instead: goes on behind the first `bytes`, and what it held beyond is cut off.
    void resume(std::int64_t bytes) { file_.resume(bytes); }
    /// The size of the file, once that is on the disk.
    std::int64_t sync() { return file_.sync(); }
    /// Appends one line; ends the run if it cannot be written.
    void line(std::string_view text);
    /// Puts the file on the disk and closes it.
    void finish() { file_.finish(); }
};

/// fun as the log shows it: rounded to single precision, in `width` columns with 6 decimals.
std::string column_fun(double fun, int width);

/// The line of an evaluation or an accepted step: counters, the solver's task, fun, and the extreme velocities 1/x as
/// whole numbers (asterisks where they do not fit or are no numbers).
/// @param task the first five characters are shown
/// @param x    slowness, double precision
std::string iteration_line(int iter, int titer, std::string_view task, double fun, std::span<const double> x);

}  // namespace morvane
