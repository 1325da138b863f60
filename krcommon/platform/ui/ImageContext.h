#pragma once

// Offscreen bitmap contexts, like the toolkit's image contexts: a per-thread
// stack of drawing targets. begin pushes a context, getCurrentContext() answers
// the top one, getImageFromCurrentImageContext() snapshots it as an Image and
// endImageContext() pops it. A context is drawn in points; its bitmap holds
// size x scale pixels.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/AttributedString.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/Geometry.h>
#include <krcommon/platform/ui/Image.h>

#include <memory>

namespace krcommon::platform {

enum class TextAlignment { Left = 0, Center = 1, Right = 2, Justified = 3, Natural = 4 };

/// A drawing target. Coordinates are in points, origin at the top left.
class KRCOMMON_EXPORT GraphicsContext {
public:
    ~GraphicsContext();
    GraphicsContext(const GraphicsContext&) = delete;
    GraphicsContext& operator=(const GraphicsContext&) = delete;

    /// The colour later fills use (a pattern tiles its image, a null pattern fills nothing);
    /// opaque black at first. Nothing in this layer strokes, so the stroke colour is only kept.
    void setFillColor(const Color& color);
    void setStrokeColor(const Color& color);
    /// Fills `rect` with the fill colour (replacing nothing: drawn over what is there).
    void fillRect(const Rect& rect);
    /// Fills `rect` with rounded corners of `radius` (capped at half the shorter side).
    void fillRoundedRect(const Rect& rect, double radius);
    /// Narrows the clip to `rect` with rounded corners.
    void clipToRoundedRect(const Rect& rect, double radius);
    /// Draws `image` stretched over `rect`, its pixels interpolated smoothly.
    void drawImage(const Image& image, const Rect& rect);
    /// Lays `text` out in `rect` and draws it: wrapped to at most `numberOfLines`
    /// lines (0: no limit) and cut short with an ellipsis beyond, aligned as asked,
    /// centred vertically. Characters without a font or colour use the defaults.
    void drawText(const AttributedString& text, const Rect& rect, TextAlignment alignment, const Font& defaultFont,
                  const Color& defaultColor, int numberOfLines);
    /// The size the text takes laid out at most `width` wide (0: unbounded).
    [[nodiscard]] static Size sizeOfText(const AttributedString& text, double width, const Font& defaultFont,
                                         int numberOfLines);

    /// Save and restore, in pairs, the clip, the translation and the fill and stroke colours.
    /// A restore without a save is ignored.
    void saveGState();
    void restoreGState();
    /// Moves the origin of later drawing by (dx, dy) points.
    void translateCTM(double dx, double dy);
    /// Starts drawing into a transparency group, composited with `alpha` at endTransparencyLayer().
    void beginTransparencyLayer(double alpha);
    void endTransparencyLayer();

private:
    friend struct ImageContextAccess;
    struct Impl;
    explicit GraphicsContext(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

/// The device's screen: its scale, the default for image contexts opened with scale 0.
class KRCOMMON_EXPORT Screen {
public:
    static Screen& mainScreen();
    /// Pixels per point; 2 unless the host sets another.
    [[nodiscard]] double scale() const noexcept;
    /// Sets the scale; a value that is not positive and finite is ignored.
    void setScale(double scale) noexcept;

private:
    Screen() = default;
};

/// Opens a bitmap context of `size` points at scale 1, not opaque.
KRCOMMON_EXPORT void beginImageContext(Size size);
/// Opens a bitmap context of `size` points at `scale` (0: the screen's scale). An opaque
/// context starts opaque black, otherwise transparent. A size without area (or too large
/// for a bitmap) opens no drawable context: a line goes to the system log, getCurrentContext()
/// answers nullptr and the matching endImageContext() is still expected.
KRCOMMON_EXPORT void beginImageContextWithOptions(Size size, bool opaque, double scale);
/// The context on top of this thread's stack, or nullptr.
KRCOMMON_EXPORT GraphicsContext* getCurrentContext();
/// A snapshot of the current context, or nullptr without one.
KRCOMMON_EXPORT std::shared_ptr<Image> getImageFromCurrentImageContext();
/// Pops the top context of this thread's stack; nothing when the stack is empty.
KRCOMMON_EXPORT void endImageContext();
/// Pops the top context and returns its pixels as an image, handed over rather than copied:
/// what getImageFromCurrentImageContext() then endImageContext() give, for less. nullptr
/// when the top context is not drawable or the stack is empty.
KRCOMMON_EXPORT std::shared_ptr<Image> endImageContextTakingImage();

}  // namespace krcommon::platform
