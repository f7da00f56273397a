#include "src/areal/wemva/text_log.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "lib/base/fixed_format.h"
#include "src/areal/wemva/messages.h"

namespace {

std::string column_velocity(double velocity, int width) {
    if (!(std::abs(velocity) < 1e9)) return std::string(static_cast<std::size_t>(width), '*');
    return column_int(static_cast<long long>(velocity), width);
}

}  // namespace

TextLog::TextLog(std::string_view key, std::string name)
    : key_(key), name_(std::move(name)), file_(std::fopen(name_.c_str(), "w")) {
    if (!file_) refuse("%s=%s: cannot create this file: %s", key_.c_str(), name_.c_str(), std::strerror(errno));
}

void TextLog::line(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), file_.get());
    std::fputc('\n', file_.get());
    if (std::fflush(file_.get()) != 0 || std::ferror(file_.get()))
        refuse("%s=%s: cannot write to this file: %s", key_.c_str(), name_.c_str(), std::strerror(errno));
}

std::string column_fun(double fun, int width) {
    return column_exp(static_cast<float>(fun), width, 6);
}

std::string iteration_line(int iter, int titer, std::string_view task, double fun, std::span<const double> x) {
    double least = std::numeric_limits<double>::infinity(), most = -least;
    for (const double slowness : x) {
        const double velocity = 1.0 / slowness;
        least = std::min(least, velocity);
        most = std::max(most, velocity);
    }
    std::string text = " iter = " + column_int(iter, 4) + " titer= " + column_int(titer, 4) + " task = ";
    text += task.substr(0, 5);
    text += " J(x) = " + column_fun(fun, 15);
    text += " min_x =" + column_velocity(least, 5) + " max_x =" + column_velocity(most, 5);
    return text;
}
