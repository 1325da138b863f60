#include <krcommon/platform/ui/ImageContext.h>

#include <krcommon/platform/app/SystemLog.h>

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <tuple>
#include <vector>

namespace krcommon::platform {

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const noexcept { cairo_surface_destroy(s); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;

// The largest bitmap side cairo accepts.
constexpr double kMaxPixels = 32767;

// Wraps an image's words in a surface without copying; cairo only reads from it.
SurfacePtr wrap(const Image& image) {
    return SurfacePtr(cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(image.pixels().data())), CAIRO_FORMAT_ARGB32,
        image.pixelWidth(), image.pixelHeight(), image.pixelWidth() * 4));
}

void roundedRectPath(cairo_t* cr, const Rect& r, double radius) {
    radius = std::clamp(radius, 0.0, std::min(std::abs(r.width()), std::abs(r.height())) / 2);
    if (radius <= 0) {
        cairo_rectangle(cr, r.minX(), r.minY(), r.width(), r.height());
        return;
    }
    const double degrees = M_PI / 180.0;
    cairo_new_sub_path(cr);
    cairo_arc(cr, r.maxX() - radius, r.minY() + radius, radius, -90 * degrees, 0);
    cairo_arc(cr, r.maxX() - radius, r.maxY() - radius, radius, 0, 90 * degrees);
    cairo_arc(cr, r.minX() + radius, r.maxY() - radius, radius, 90 * degrees, 180 * degrees);
    cairo_arc(cr, r.minX() + radius, r.minY() + radius, radius, 180 * degrees, 270 * degrees);
    cairo_close_path(cr);
}

PangoFontDescription* describe(const Font& font) {
    PangoFontDescription* description = pango_font_description_new();
    pango_font_description_set_family(description, font.familyName().c_str());
    pango_font_description_set_weight(description, font.isBold() ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    // Sizes are in the context's units (points), whatever the screen resolution.
    pango_font_description_set_absolute_size(description, font.pointSize() * PANGO_SCALE);
    return description;
}

std::uint16_t channel(double v) { return static_cast<std::uint16_t>(std::lround(std::clamp(v, 0.0, 1.0) * 65535)); }

// Lays `text` out on `context` the way drawText() draws it. Metrics are taken
// unhinted so that a layout does not depend on the output's scale.
PangoLayout* makeLayout(PangoContext* context, const AttributedString& text, double width, TextAlignment alignment,
                        const Font& defaultFont, const Color* defaultColor, int numberOfLines) {
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
    pango_cairo_context_set_font_options(context, options);
    cairo_font_options_destroy(options);

    PangoLayout* layout = pango_layout_new(context);
    pango_layout_set_text(layout, text.string().data(), static_cast<int>(text.string().size()));
    PangoFontDescription* base = describe(defaultFont);
    pango_layout_set_font_description(layout, base);
    pango_font_description_free(base);

    PangoAttrList* list = pango_attr_list_new();
    for (const auto& run : text.runs()) {
        const auto start = static_cast<guint>(text.byteOffset(run.range.location));
        const auto end = static_cast<guint>(text.byteOffset(run.range.end()));
        const auto add = [&](PangoAttribute* attribute) {
            attribute->start_index = start;
            attribute->end_index = end;
            pango_attr_list_insert(list, attribute);
        };
        if (run.attributes.font) {
            PangoFontDescription* description = describe(*run.attributes.font);
            add(pango_attr_font_desc_new(description));
            pango_font_description_free(description);
        }
        const Color* color = run.attributes.foregroundColor ? &*run.attributes.foregroundColor : defaultColor;
        double r = 0, g = 0, b = 0, a = 1;
        if (color && color->getRed(r, g, b, a)) {
            add(pango_attr_foreground_new(channel(r), channel(g), channel(b)));
            add(pango_attr_foreground_alpha_new(channel(a)));
        }
    }
    pango_layout_set_attributes(layout, list);
    pango_attr_list_unref(list);

    if (width > 0) pango_layout_set_width(layout, static_cast<int>(std::min(width, 1e6) * PANGO_SCALE));
    pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
    if (numberOfLines > 0) {
        pango_layout_set_height(layout, -numberOfLines);
        pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_END);
    }
    switch (alignment) {
        case TextAlignment::Center: pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER); break;
        case TextAlignment::Right: pango_layout_set_alignment(layout, PANGO_ALIGN_RIGHT); break;
        case TextAlignment::Justified: pango_layout_set_justify(layout, TRUE); break;
        case TextAlignment::Left:
        case TextAlignment::Natural: pango_layout_set_alignment(layout, PANGO_ALIGN_LEFT); break;
    }
    return layout;
}

// The text engine's fonts. One font map of the library's own rather than the
// thread's default one, so that its caches go with it at exit; the engine is not
// thread-safe, so every use of the map holds this lock.
struct FontMap {
    std::mutex lock;
    PangoFontMap* map = pango_cairo_font_map_new();
    ~FontMap() { g_object_unref(map); }
};

FontMap& fonts() {
    static FontMap fontMap;
    return fontMap;
}

Size layoutSize(PangoLayout* layout) {
    PangoRectangle logical{};
    pango_layout_get_extents(layout, nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE, static_cast<double>(logical.height) / PANGO_SCALE};
}

}  // namespace

struct GraphicsContext::Impl {
    std::vector<std::uint32_t> pixels;  // the surface draws into these; an image may take them at the end
    SurfacePtr surface;
    cairo_t* cr = nullptr;
    double scale = 1;
    Color fill = Color::blackColor();
    Color stroke = Color::blackColor();
    std::vector<std::pair<Color, Color>> savedColors;  // fill and stroke at each saveGState()
    // The images a pattern source draws from must outlive the drawing calls that use them.
    std::vector<std::shared_ptr<const Image>> keepAlive;
    std::vector<double> layerAlphas;

    ~Impl() {
        if (cr) cairo_destroy(cr);
    }

    void setSource(const Color& color) {
        double r = 0, g = 0, b = 0, a = 0;
        if (color.getRed(r, g, b, a)) {
            cairo_set_source_rgba(cr, r, g, b, a);
            return;
        }
        const auto& image = color.patternImage();
        if (!image || image->pixelWidth() == 0 || image->pixelHeight() == 0) {
            cairo_set_source_rgba(cr, 0, 0, 0, 0);
            return;
        }
        keepAlive.push_back(image);
        SurfacePtr tile = wrap(*image);
        cairo_pattern_t* pattern = cairo_pattern_create_for_surface(tile.get());
        cairo_pattern_set_extend(pattern, CAIRO_EXTEND_REPEAT);
        cairo_matrix_t matrix;
        cairo_matrix_init_scale(&matrix, image->scale(), image->scale());
        cairo_pattern_set_matrix(pattern, &matrix);
        cairo_set_source(cr, pattern);
        cairo_pattern_destroy(pattern);
    }
};

GraphicsContext::GraphicsContext(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
GraphicsContext::~GraphicsContext() = default;

void GraphicsContext::setFillColor(const Color& color) { impl_->fill = color; }
void GraphicsContext::setStrokeColor(const Color& color) { impl_->stroke = color; }

void GraphicsContext::fillRect(const Rect& rect) { fillRoundedRect(rect, 0); }

void GraphicsContext::fillRoundedRect(const Rect& rect, double radius) {
    cairo_t* cr = impl_->cr;
    impl_->setSource(impl_->fill);
    cairo_new_path(cr);
    roundedRectPath(cr, rect, radius);
    cairo_fill(cr);
}

void GraphicsContext::clipToRoundedRect(const Rect& rect, double radius) {
    cairo_new_path(impl_->cr);
    roundedRectPath(impl_->cr, rect, radius);
    cairo_clip(impl_->cr);
}

void GraphicsContext::drawImage(const Image& image, const Rect& rect) {
    if (image.pixelWidth() == 0 || image.pixelHeight() == 0 || rect.width() == 0 || rect.height() == 0) return;
    cairo_t* cr = impl_->cr;
    SurfacePtr source = wrap(image);
    cairo_save(cr);
    cairo_translate(cr, rect.minX(), rect.minY());
    cairo_scale(cr, rect.width() / image.pixelWidth(), rect.height() / image.pixelHeight());
    cairo_set_source_surface(cr, source.get(), 0, 0);
    // Padding keeps the edges solid when a small image is stretched (a 1 x 1 fill).
    cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_new_path(cr);
    cairo_rectangle(cr, 0, 0, image.pixelWidth(), image.pixelHeight());
    cairo_fill(cr);
    cairo_restore(cr);
}

void GraphicsContext::drawText(const AttributedString& text, const Rect& rect, TextAlignment alignment,
                               const Font& defaultFont, const Color& defaultColor, int numberOfLines) {
    if (text.length() == 0 || rect.width() <= 0 || rect.height() <= 0) return;
    cairo_t* cr = impl_->cr;
    std::lock_guard guard(fonts().lock);
    PangoContext* context = pango_font_map_create_context(fonts().map);
    pango_cairo_update_context(cr, context);
    PangoLayout* layout =
        makeLayout(context, text, rect.width(), alignment, defaultFont, &defaultColor, numberOfLines);
    const Size size = layoutSize(layout);
    cairo_save(cr);
    cairo_rectangle(cr, rect.minX(), rect.minY(), rect.width(), rect.height());
    cairo_clip(cr);
    cairo_move_to(cr, rect.minX(), rect.minY() + (rect.height() - size.height) / 2);
    cairo_set_source_rgba(cr, 0, 0, 0, 1);
    pango_cairo_show_layout(cr, layout);
    cairo_restore(cr);
    g_object_unref(layout);
    g_object_unref(context);
}

Size GraphicsContext::sizeOfText(const AttributedString& text, double width, const Font& defaultFont,
                                 int numberOfLines) {
    if (text.length() == 0) return {};
    std::lock_guard guard(fonts().lock);
    PangoContext* context = pango_font_map_create_context(fonts().map);
    PangoLayout* layout = makeLayout(context, text, width, TextAlignment::Natural, defaultFont, nullptr, numberOfLines);
    const Size size = layoutSize(layout);
    g_object_unref(layout);
    g_object_unref(context);
    return size;
}

void GraphicsContext::saveGState() {
    impl_->savedColors.emplace_back(impl_->fill, impl_->stroke);
    cairo_save(impl_->cr);
}

void GraphicsContext::restoreGState() {
    // Unmatched, cairo would put the context in an error state and draw nothing more.
    if (impl_->savedColors.empty()) return;
    std::tie(impl_->fill, impl_->stroke) = impl_->savedColors.back();
    impl_->savedColors.pop_back();
    cairo_restore(impl_->cr);
}
void GraphicsContext::translateCTM(double dx, double dy) { cairo_translate(impl_->cr, dx, dy); }

void GraphicsContext::beginTransparencyLayer(double alpha) {
    impl_->layerAlphas.push_back(std::clamp(std::isnan(alpha) ? 0.0 : alpha, 0.0, 1.0));
    cairo_push_group(impl_->cr);
}

void GraphicsContext::endTransparencyLayer() {
    if (impl_->layerAlphas.empty()) return;
    cairo_pop_group_to_source(impl_->cr);
    cairo_paint_with_alpha(impl_->cr, impl_->layerAlphas.back());
    impl_->layerAlphas.pop_back();
}

// ---------------------------------------------------------------------------

namespace {
std::atomic<double> screenScale{2.0};

// This thread's stack of contexts; a null entry stands for a context that could not be made.
thread_local std::vector<std::unique_ptr<GraphicsContext>> contextStack;
}  // namespace

Screen& Screen::mainScreen() {
    static Screen screen;
    return screen;
}

double Screen::scale() const noexcept { return screenScale.load(std::memory_order_relaxed); }

void Screen::setScale(double scale) noexcept {
    if (std::isfinite(scale) && scale > 0) screenScale.store(scale, std::memory_order_relaxed);
}

struct ImageContextAccess {
    static std::unique_ptr<GraphicsContext> make(Size size, bool opaque, double scale) {
        const double pw = std::ceil(size.width * scale);
        const double ph = std::ceil(size.height * scale);
        if (!(pw >= 1 && ph >= 1 && pw <= kMaxPixels && ph <= kMaxPixels)) {
            SystemLog::log("beginImageContext() failed to allocate a bitmap context: size={%g, %g}, scale=%f",
                           size.width, size.height, scale);
            return nullptr;
        }
        auto impl = std::make_unique<GraphicsContext::Impl>();
        const int width = static_cast<int>(pw);
        const int height = static_cast<int>(ph);
        // 32-bit pixels, rows without padding: the stride cairo wants for this format.
        impl->pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
        impl->surface.reset(cairo_image_surface_create_for_data(reinterpret_cast<unsigned char*>(impl->pixels.data()),
                                                                CAIRO_FORMAT_ARGB32, width, height, width * 4));
        if (cairo_surface_status(impl->surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
        impl->cr = cairo_create(impl->surface.get());
        impl->scale = scale;
        cairo_scale(impl->cr, scale, scale);
        if (opaque) {
            cairo_set_source_rgb(impl->cr, 0, 0, 0);
            cairo_paint(impl->cr);
        }
        return std::unique_ptr<GraphicsContext>(new GraphicsContext(std::move(impl)));
    }

    static std::shared_ptr<Image> snapshot(GraphicsContext& context) {
        auto& impl = *context.impl_;
        cairo_surface_flush(impl.surface.get());
        return std::make_shared<Image>(cairo_image_surface_get_width(impl.surface.get()),
                                       cairo_image_surface_get_height(impl.surface.get()), impl.scale, impl.pixels);
    }
    // The context is about to go: its pixels become the image, without a copy.
    static std::shared_ptr<Image> take(GraphicsContext& context) {
        auto& impl = *context.impl_;
        const int width = cairo_image_surface_get_width(impl.surface.get());
        const int height = cairo_image_surface_get_height(impl.surface.get());
        cairo_surface_finish(impl.surface.get());  // cairo touches the pixels no more
        return std::make_shared<Image>(width, height, impl.scale, std::move(impl.pixels));
    }
};

void beginImageContext(Size size) { beginImageContextWithOptions(size, false, 1.0); }

void beginImageContextWithOptions(Size size, bool opaque, double scale) {
    if (!(scale > 0) || !std::isfinite(scale)) scale = Screen::mainScreen().scale();
    contextStack.push_back(ImageContextAccess::make(size, opaque, scale));
}

GraphicsContext* getCurrentContext() { return contextStack.empty() ? nullptr : contextStack.back().get(); }

std::shared_ptr<Image> getImageFromCurrentImageContext() {
    GraphicsContext* context = getCurrentContext();
    return context ? ImageContextAccess::snapshot(*context) : nullptr;
}

void endImageContext() {
    if (!contextStack.empty()) contextStack.pop_back();
}

std::shared_ptr<Image> endImageContextTakingImage() {
    if (contextStack.empty()) return nullptr;
    const auto context = std::move(contextStack.back());
    contextStack.pop_back();
    return context ? ImageContextAccess::take(*context) : nullptr;
}

}  // namespace krcommon::platform
