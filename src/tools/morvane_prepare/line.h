#pragma once
/// The straight line on which a survey is projected.
#include <span>
#include <string>

namespace morvane::prepare {

struct Point {
    double x = 0, y = 0;
};

/// Position along the line: (x - x0) ux + (y - y0) uy; (ux, uy) has length 1.
struct Line {
    double x0 = 0, y0 = 0, ux = 1, uy = 0;
    double position(const Point& p) const { return (p.x - x0) * ux + (p.y - y0) * uy; }
    double distance(const Point& p) const { return (p.x - x0) * -uy + (p.y - y0) * ux; }  ///< signed, to the left
};

/// Sums over points from which their principal axis follows; relative to the first one, which keeps their digits.
class PrincipalAxis {
    Point first_;
    double n_ = 0, x_ = 0, y_ = 0, xx_ = 0, xy_ = 0, yy_ = 0;

public:
    void add(const Point& p);
    /// The line through their centre along the direction of their greatest spread, pointing to greater x (or y).
    /// If all points have one y (or x), the position is x (or y) as it stands.
    /// Refuses (qas::Fatal) points that all coincide.
    Line line() const;
};

/// The line through two points, position 0 at the first. Refuses (qas::Fatal) points that coincide.
Line line_through(const Point& from, const Point& to);

/// Moves the origin along the line so that `least` gets position 0 (fitted lines), or, where positions are coordinates,
/// so that none up to `most` in size needs more than six digits: by whole thousands. Returns the shift.
double settle_origin(Line& line, double least, double most);

}  // namespace morvane::prepare
