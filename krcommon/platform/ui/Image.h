#pragma once

// An immutable raster image: a size in points, a scale (pixels per point) and
// its pixels. Pixels are 32-bit words, alpha in the top byte then red, green and
// blue, with the colour premultiplied by alpha, rows packed without padding.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/ui/Geometry.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krcommon::platform {

/// One pixel with straight (not premultiplied) 8-bit components.
struct Pixel {
    std::uint8_t red = 0, green = 0, blue = 0, alpha = 0;
    friend bool operator==(const Pixel&, const Pixel&) = default;
};

class KRCOMMON_EXPORT Image {
public:
    /// An image of `pixelWidth` x `pixelHeight` premultiplied ARGB words at `scale`
    /// (a scale that is not positive counts as 1). Throws platform::Exception
    /// "NSInvalidArgumentException" when `pixels` does not hold exactly that many words.
    Image(int pixelWidth, int pixelHeight, double scale, std::vector<std::uint32_t> pixels);

    /// Reads a PNG file; the scale comes from an "@2x"/"@3x" suffix of the file name
    /// (1 without one). nullptr when the file cannot be read or decoded.
    static std::shared_ptr<Image> imageWithContentsOfFile(const std::filesystem::path& path);
    /// Decodes PNG bytes at the given scale; nullptr when they are not a PNG.
    static std::shared_ptr<Image> imageWithData(const Data& png, double scale = 1.0);
    /// The image `name` in `directory`, as the toolkit looks it up: the variant for the
    /// screen scale first ("name@2x.png"), then the other scales and the plain "name.png".
    /// `name` may carry its own ".png". nullptr when none is found.
    static std::shared_ptr<Image> imageNamed(std::string_view name, const std::filesystem::path& directory);
    /// As above, with each candidate file ("name@2x.png") read through `read`, which answers
    /// its bytes or nullopt: for pictures that live somewhere other than a folder.
    static std::shared_ptr<Image> imageNamed(std::string_view name,
                                             const std::function<std::optional<Data>(const std::string&)>& read);

    /// The size in points: the pixel size divided by the scale.
    [[nodiscard]] Size size() const noexcept { return {width_ / scale_, height_ / scale_}; }
    [[nodiscard]] double scale() const noexcept { return scale_; }
    [[nodiscard]] int pixelWidth() const noexcept { return width_; }
    [[nodiscard]] int pixelHeight() const noexcept { return height_; }
    /// The premultiplied ARGB words, row after row.
    [[nodiscard]] const std::vector<std::uint32_t>& pixels() const noexcept { return pixels_; }
    /// The pixel at column `x`, row `y`, un-premultiplied; a transparent pixel
    /// outside the image.
    [[nodiscard]] Pixel pixelAt(int x, int y) const noexcept;

    /// The image as PNG bytes (UIImagePNGRepresentation); empty if encoding fails.
    [[nodiscard]] Data PNGRepresentation() const;
    /// Writes the PNG bytes to `path` atomically; false (with a system-log line) on failure.
    bool writeToFile(const std::filesystem::path& path) const;

private:
    int width_;
    int height_;
    double scale_;
    std::vector<std::uint32_t> pixels_;
};

}  // namespace krcommon::platform
