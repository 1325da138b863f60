#pragma once

// An immutable colour in one of three spaces, as the mobile toolkit has them:
// RGB with alpha, grey (white level with alpha) and a pattern that tiles an
// image. RGB and grey colours convert to each other's components the way the
// toolkit converts compatible spaces; a pattern has no components at all, so
// operations that need red, green and blue answer nothing for it.

#include <krcommon/platform/core/Export.h>

#include <memory>
#include <string>

namespace krcommon::platform {

class Image;

class KRCOMMON_EXPORT Color {
public:
    enum class Space { RGB, Grey, Pattern };

    /// Opaque black (grey space), the toolkit's default for a plain colour.
    Color() = default;

    /// Components are clamped to 0...1 (a NaN reads as 0).
    static Color colorWithRed(double red, double green, double blue, double alpha);
    static Color colorWithWhite(double white, double alpha);
    /// A colour that fills by tiling `image` (scaled by its scale). A null image tiles nothing.
    static Color colorWithPatternImage(std::shared_ptr<const Image> image);

    static Color blackColor() { return colorWithWhite(0, 1); }
    static Color whiteColor() { return colorWithWhite(1, 1); }
    static Color grayColor() { return colorWithWhite(0.5, 1); }
    /// Fully transparent: white 0, alpha 0.
    static Color clearColor() { return colorWithWhite(0, 0); }

    [[nodiscard]] Space space() const noexcept { return space_; }

    /// Writes red, green, blue and alpha and answers true for an RGB or grey colour;
    /// answers false and writes nothing for a pattern.
    bool getRed(double& red, double& green, double& blue, double& alpha) const noexcept;
    /// Writes the white level (the mean of red, green and blue for an RGB colour)
    /// and alpha; false for a pattern.
    bool getWhite(double& white, double& alpha) const noexcept;

    /// The alpha component (1 for a pattern, whose image carries its own).
    [[nodiscard]] double alpha() const noexcept { return alpha_; }
    /// The same colour with another alpha; a pattern is returned unchanged.
    [[nodiscard]] Color colorWithAlphaComponent(double alpha) const;

    /// The image a pattern tiles; nullptr for other colours.
    [[nodiscard]] const std::shared_ptr<const Image>& patternImage() const noexcept { return pattern_; }

    /// Makes this colour the fill and stroke colour of the current graphics context
    /// (see ImageContext.h); nothing happens without one.
    void set() const;
    /// The fill colour only.
    void setFill() const;
    /// The stroke colour only.
    void setStroke() const;

    /// "UIExtendedSRGBColorSpace 1 0 0 1", "UIExtendedGrayColorSpace 1 1" or
    /// "<Pattern: image>": what the toolkit prints for a colour.
    [[nodiscard]] std::string description() const;

    /// Same space, same components (patterns: the same image object).
    friend KRCOMMON_EXPORT bool operator==(const Color& a, const Color& b) noexcept;

private:
    Space space_ = Space::Grey;
    double c0_ = 0, c1_ = 0, c2_ = 0;  // red, green, blue; or white in c0_
    double alpha_ = 1;
    std::shared_ptr<const Image> pattern_;
};

}  // namespace krcommon::platform
