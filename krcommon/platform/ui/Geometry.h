#pragma once

// Points, sizes and rectangles of the view layer, in points (double precision),
// with the origin at the top left and y growing downwards.

#include <cmath>

namespace krcommon::platform {

struct Point {
    double x = 0.0;
    double y = 0.0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    double width = 0.0;
    double height = 0.0;
    friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
    Point origin;
    Size size;

    constexpr Rect() = default;
    constexpr Rect(Point o, Size s) : origin(o), size(s) {}
    constexpr Rect(double x, double y, double width, double height) : origin{x, y}, size{width, height} {}

    [[nodiscard]] constexpr double minX() const { return origin.x; }
    [[nodiscard]] constexpr double minY() const { return origin.y; }
    [[nodiscard]] constexpr double midX() const { return origin.x + size.width / 2; }
    [[nodiscard]] constexpr double midY() const { return origin.y + size.height / 2; }
    [[nodiscard]] constexpr double maxX() const { return origin.x + size.width; }
    [[nodiscard]] constexpr double maxY() const { return origin.y + size.height; }
    [[nodiscard]] constexpr double width() const { return size.width; }
    [[nodiscard]] constexpr double height() const { return size.height; }
    [[nodiscard]] constexpr Point center() const { return {midX(), midY()}; }
    /// Whether `p` lies inside; the left and top edges count, the right and bottom ones do not.
    [[nodiscard]] constexpr bool contains(Point p) const {
        return p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
    }

    friend bool operator==(const Rect&, const Rect&) = default;
};

}  // namespace krcommon::platform
