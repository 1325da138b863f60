#include <krcommon/platform/ui/Image.h>

#include <krcommon/platform/app/SystemLog.h>
#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/io/FileManager.h>
#include <krcommon/platform/ui/ImageContext.h>

#include <cairo.h>
#include <png.h>
#include <zlib.h>

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

// One PNG encoding: the pixels (ARGB32, premultiplied), where the bytes go and
// a row buffer wide enough for one output row.
struct PNGJob {
    const std::uint32_t* pixels;
    std::size_t width;
    std::size_t height;
    bool opaque;  // written as RGB, without an alpha channel
    Data* out;
    png_byte* row;
};

void writePNG(png_structp png, png_infop info, const PNGJob& job) {
    png_set_write_fn(
        png, job.out,
        [](png_structp p, png_bytep bytes, png_size_t length) {
            auto* sink = static_cast<Data*>(png_get_io_ptr(p));
            sink->insert(sink->end(), bytes, bytes + length);
        },
        nullptr);
    png_set_IHDR(png, info, static_cast<png_uint_32>(job.width), static_cast<png_uint_32>(job.height), 8,
                 job.opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    // A fast deflate level with run-length matching and the "up" filter suits
    // what the library draws (flat fills, text, one picture): a fraction of
    // the default settings' time for files about as small.
    png_set_compression_level(png, 1);
    png_set_compression_strategy(png, Z_RLE);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
    png_write_info(png, info);
    for (std::size_t y = 0; y < job.height; ++y) {
        const std::uint32_t* source = job.pixels + y * job.width;
        png_byte* target = job.row;
        for (std::size_t x = 0; x < job.width; ++x) {
            const std::uint32_t word = source[x];
            const unsigned a = word >> 24;
            unsigned r = (word >> 16) & 0xFF, g = (word >> 8) & 0xFF, b = word & 0xFF;
            if (a != 0xFF && a != 0) {  // PNG holds straight colour
                r = std::min(255u, (r * 255 + a / 2) / a);
                g = std::min(255u, (g * 255 + a / 2) / a);
                b = std::min(255u, (b * 255 + a / 2) / a);
            }
            target[0] = static_cast<png_byte>(r);
            target[1] = static_cast<png_byte>(g);
            target[2] = static_cast<png_byte>(b);
            if (!job.opaque) target[3] = static_cast<png_byte>(a);
            target += job.opaque ? 3 : 4;
        }
        png_write_row(png, job.row);
    }
    png_write_end(png, nullptr);
}

// libpng reports errors by jumping back to the setjmp here; nothing of this
// frame needs cleaning up.
bool encodePNG(png_structp png, png_infop info, const PNGJob& job) {
    if (setjmp(png_jmpbuf(png))) return false;
    writePNG(png, info, job);
    return true;
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
    return imageNamed(name, [&directory](const std::string& file) -> std::optional<Data> {
        const auto path = directory / file;
        if (!FileManager::fileExistsAtPath(path.string())) return std::nullopt;
        return FileManager::contentsAtPath(path.string());
    });
}

std::shared_ptr<Image> Image::imageNamed(std::string_view name,
                                         const std::function<std::optional<Data>(const std::string&)>& read) {
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
        if (auto bytes = read(file)) {
            if (auto image = imageWithData(*bytes, scaleFromFileName(file))) return image;
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
    if (width_ <= 0 || height_ <= 0) return {};
    const bool opaque =
        std::all_of(pixels_.begin(), pixels_.end(), [](std::uint32_t word) { return (word >> 24) == 0xFF; });
    Data out;
    out.reserve(pixels_.size() / 2);
    std::vector<png_byte> row(static_cast<std::size_t>(width_) * (opaque ? 3 : 4));
    const PNGJob job{pixels_.data(), static_cast<std::size_t>(width_), static_cast<std::size_t>(height_), opaque,
                     &out, row.data()};
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    const bool encoded = png && info && encodePNG(png, info, job);
    png_destroy_write_struct(&png, &info);
    if (!encoded) out.clear();
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
