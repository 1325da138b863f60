#include <krcommon/platform/ui/Image.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/ui/ImageContext.h>

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

namespace krcommon::platform {

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const noexcept { cairo_surface_destroy(s); }
};
struct ContextDeleter {
    void operator()(cairo_t* c) const noexcept { cairo_destroy(c); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using ContextPtr = std::unique_ptr<cairo_t, ContextDeleter>;

// Copies an ARGB32 surface into an Image, row by row (cairo may pad rows).
std::shared_ptr<Image> copyOfSurface(cairo_surface_t* surface, double scale) {
    cairo_surface_flush(surface);
    const int w = cairo_image_surface_get_width(surface);
    const int h = cairo_image_surface_get_height(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    const unsigned char* data = cairo_image_surface_get_data(surface);
    std::vector<std::uint32_t> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
    for (int y = 0; y < h && data; ++y) {
        std::memcpy(pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(w),
                    data + static_cast<std::ptrdiff_t>(y) * stride, static_cast<std::size_t>(w) * 4);
    }
    return std::make_shared<Image>(w, h, scale, std::move(pixels));
}

// The scale a file name announces: "name@2x.png" is 2, anything else 1.
double scaleFromFileName(const std::filesystem::path& path) {
    const std::string stem = path.stem().string();
    const auto at = stem.rfind('@');
    if (at != std::string::npos && stem.size() == at + 3 && stem[at + 2] == 'x' && stem[at + 1] >= '1' &&
        stem[at + 1] <= '9') {
        return stem[at + 1] - '0';
    }
    return 1.0;
}

// Draws any decoded PNG surface onto an ARGB32 one, so that RGB24, A8 and the
// other formats cairo may return all read as premultiplied ARGB words.
std::shared_ptr<Image> imageFromDecoded(cairo_surface_t* decoded, double scale) {
    SurfacePtr owner(decoded);
    if (cairo_surface_status(decoded) != CAIRO_STATUS_SUCCESS) return nullptr;
    if (cairo_image_surface_get_format(decoded) == CAIRO_FORMAT_ARGB32) return copyOfSurface(decoded, scale);
    const int w = cairo_image_surface_get_width(decoded);
    const int h = cairo_image_surface_get_height(decoded);
    SurfacePtr argb(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h));
    if (cairo_surface_status(argb.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
    ContextPtr cr(cairo_create(argb.get()));
    cairo_set_source_surface(cr.get(), decoded, 0, 0);
    cairo_paint(cr.get());
    return copyOfSurface(argb.get(), scale);
}

struct ReadCursor {
    const Data* bytes;
    std::size_t offset;
};

cairo_status_t readFromData(void* closure, unsigned char* out, unsigned int length) {
    auto* cursor = static_cast<ReadCursor*>(closure);
    if (cursor->bytes->size() - cursor->offset < length) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(out, cursor->bytes->data() + cursor->offset, length);
    cursor->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

cairo_status_t appendToData(void* closure, const unsigned char* bytes, unsigned int length) {
    static_cast<Data*>(closure)->insert(static_cast<Data*>(closure)->end(), bytes, bytes + length);
    return CAIRO_STATUS_SUCCESS;
}

}  // namespace

Image::Image(int pixelWidth, int pixelHeight, double scale, std::vector<std::uint32_t> pixels)
    : width_(pixelWidth),
      height_(pixelHeight),
      scale_(std::isfinite(scale) && scale > 0 ? scale : 1.0),
      pixels_(std::move(pixels)) {
    if (width_ < 0 || height_ < 0 ||
        pixels_.size() != static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {
        throw Exception("NSInvalidArgumentException", "Image pixels do not match its size");
    }
}

std::shared_ptr<Image> Image::imageWithContentsOfFile(const std::filesystem::path& path) {
    auto bytes = FileManager::contentsAtPath(path.string());
    if (!bytes) return nullptr;
    return imageWithData(*bytes, scaleFromFileName(path));
}

std::shared_ptr<Image> Image::imageWithData(const Data& png, double scale) {
    ReadCursor cursor{&png, 0};
    return imageFromDecoded(cairo_image_surface_create_from_png_stream(readFromData, &cursor), scale);
}

std::shared_ptr<Image> Image::imageNamed(std::string_view name, const std::filesystem::path& directory) {
    std::string base(name);
    if (base.size() > 4 && base.compare(base.size() - 4, 4, ".png") == 0) base.resize(base.size() - 4);
    if (base.empty()) return nullptr;
    const int preferred = std::clamp(static_cast<int>(std::lround(Screen::mainScreen().scale())), 1, 3);
    std::vector<std::string> candidates;
    candidates.push_back(preferred == 1 ? base + ".png" : base + "@" + std::to_string(preferred) + "x.png");
    if (preferred != 1) candidates.push_back(base + ".png");
    for (int s = 3; s >= 2; --s) {
        if (s != preferred) candidates.push_back(base + "@" + std::to_string(s) + "x.png");
    }
    for (const auto& file : candidates) {
        if (FileManager::fileExistsAtPath((directory / file).string())) {
            if (auto image = imageWithContentsOfFile(directory / file)) return image;
        }
    }
    return nullptr;
}

Pixel Image::pixelAt(int x, int y) const noexcept {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return {};
    const std::uint32_t word = pixels_[static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                                       static_cast<std::size_t>(x)];
    const unsigned a = word >> 24;
    if (a == 0) return {};
    const auto straight = [a](unsigned c) { return static_cast<std::uint8_t>(std::min(255u, (c * 255 + a / 2) / a)); };
    return {straight((word >> 16) & 0xFF), straight((word >> 8) & 0xFF), straight(word & 0xFF),
            static_cast<std::uint8_t>(a)};
}

Data Image::PNGRepresentation() const {
    Data out;
    if (width_ == 0 || height_ == 0) return out;
    // cairo only reads the words here, so it may look at them in place.
    SurfacePtr surface(cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(pixels_.data())), CAIRO_FORMAT_ARGB32, width_,
        height_, width_ * 4));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS ||
        cairo_surface_write_to_png_stream(surface.get(), appendToData, &out) != CAIRO_STATUS_SUCCESS) {
        out.clear();
    }
    return out;
}

bool Image::writeToFile(const std::filesystem::path& path) const {
    const Data png = PNGRepresentation();
    if (png.empty()) {
        SystemLog::log("Image: cannot encode a %dx%d image as PNG", width_, height_);
        return false;
    }
    std::shared_ptr<Error> error;
    if (!FileManager::writeAtomically(path.string(), png, &error)) {
        SystemLog::log("Image: cannot write %@: %@", path.string(), error);
        return false;
    }
    return true;
}

}  // namespace krcommon::platform
