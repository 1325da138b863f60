#pragma once

// Reads a PNG file back with cairo, independently of the library's own image
// code, so that tests check what a viewer of the file would see.

#include <cairo.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace krcommon::test {

struct Rgba {
    int r = 0, g = 0, b = 0, a = 0;
};

class PngReader {
public:
    explicit PngReader(const std::string& path) : surface_(cairo_image_surface_create_from_png(path.c_str())) {}
    ~PngReader() { cairo_surface_destroy(surface_); }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;

    [[nodiscard]] bool ok() const { return cairo_surface_status(surface_) == CAIRO_STATUS_SUCCESS; }
    [[nodiscard]] int width() const { return cairo_image_surface_get_width(surface_); }
    [[nodiscard]] int height() const { return cairo_image_surface_get_height(surface_); }

    /// The straight colour at pixel (x, y); transparent outside.
    [[nodiscard]] Rgba at(int x, int y) const {
        if (x < 0 || y < 0 || x >= width() || y >= height()) return {};
        const auto* row = cairo_image_surface_get_data(surface_) + y * cairo_image_surface_get_stride(surface_);
        std::uint32_t word = 0;
        std::memcpy(&word, row + x * 4, 4);
        const int a = static_cast<int>(word >> 24);
        if (cairo_image_surface_get_format(surface_) == CAIRO_FORMAT_RGB24) {
            return {static_cast<int>(word >> 16 & 0xFF), static_cast<int>(word >> 8 & 0xFF),
                    static_cast<int>(word & 0xFF), 255};
        }
        if (a == 0) return {};
        const auto un = [a](std::uint32_t c) { return static_cast<int>((c * 255 + a / 2) / a); };
        return {un(word >> 16 & 0xFF), un(word >> 8 & 0xFF), un(word & 0xFF), a};
    }

    /// How many pixels in the rectangle satisfy `test`.
    [[nodiscard]] int count(int x0, int y0, int x1, int y1, const std::function<bool(const Rgba&)>& test) const {
        int n = 0;
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) n += test(at(x, y)) ? 1 : 0;
        }
        return n;
    }

private:
    cairo_surface_t* surface_;
};

/// Whether `c` is within `tolerance` of (r, g, b) on each channel, and opaque.
inline bool near(const Rgba& c, int r, int g, int b, int tolerance = 2) {
    const auto close = [tolerance](int x, int y) { return x - y <= tolerance && y - x <= tolerance; };
    return c.a == 255 && close(c.r, r) && close(c.g, g) && close(c.b, b);
}

}  // namespace krcommon::test
