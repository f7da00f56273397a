#include "src/tools/morvane_prepare/line.h"

#include <cmath>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane::prepare {

void PrincipalAxis::add(const Point& p) {
    if (n_ == 0) first_ = p;
    const double x = p.x - first_.x, y = p.y - first_.y;
    n_ += 1;
    x_ += x;
    y_ += y;
    xx_ += x * x;
    xy_ += x * y;
    yy_ += y * y;
}

Line PrincipalAxis::line() const {
    if (xx_ == 0 && yy_ == 0)
        qas::qaserr(
            "all sources and groups lie at x=%.9g y=%.9g: the headers hold no coordinates, or hold them elsewhere; "
            "name their words by source_x_word=, source_y_word=, group_x_word=, group_y_word=\n",
            first_.x, first_.y);
    if (yy_ == 0) return {0, first_.y, 1, 0};
    if (xx_ == 0) return {first_.x, 0, 0, 1};
    const double sxx = xx_ - x_ * x_ / n_, sxy = xy_ - x_ * y_ / n_, syy = yy_ - y_ * y_ / n_;
    const double angle = 0.5 * std::atan2(2 * sxy, sxx - syy);  // between -90 and 90 degrees: towards greater x
    return {first_.x + x_ / n_, first_.y + y_ / n_, std::cos(angle), std::sin(angle)};
}

Line line_through(const Point& from, const Point& to) {
    const double length = std::hypot(to.x - from.x, to.y - from.y);
    if (!(length > 0) || !std::isfinite(length))
        qas::qaserr("line=%.9g,%.9g,%.9g,%.9g: its two points must differ\n", from.x, from.y, to.x, to.y);
    return {from.x, from.y, (to.x - from.x) / length, (to.y - from.y) / length};
}

double settle_origin(Line& line, double least, double most) {
    const bool coordinates = line.ux == 1 || line.uy == 1;
    double shift = least;
    if (coordinates) shift = most < 1e5 ? 0.0 : std::floor(least / 1000) * 1000;
    line.x0 += shift * line.ux;
    line.y0 += shift * line.uy;
    return shift;
}

}  // namespace morvane::prepare
