#include "src/areal/wemva/run/text_log.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "lib/base/fixed_format.h"
#include "lib/corelibs/qas/session.h"

namespace morvane {

namespace {

std::string column_velocity(double velocity, int width) {
    if (!(std::abs(velocity) < 1e9)) return std::string(static_cast<std::size_t>(width), '*');
    return column_int(static_cast<long long>(velocity), width);
}

}  // namespace

TextLog::TextLog(qas::Session& session, const std::string& key, const std::string& name)
    : file_(session.claim_output({name, key + "=" + name})) {}

void TextLog::line(std::string_view text) {
    file_.write(std::string(text) + '\n');
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

}  // namespace morvane
