#include <krcommon/platform/ui/Color.h>

#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/ui/ImageContext.h>

#include <algorithm>
#include <cmath>

namespace krcommon::platform {

namespace {
double clamp01(double v) { return std::isnan(v) ? 0.0 : std::clamp(v, 0.0, 1.0); }

// Prints a component as the toolkit does: the shortest form that reads back.
std::string component(double v) { return format("%g", v); }
}  // namespace

Color Color::colorWithRed(double red, double green, double blue, double alpha) {
    Color c;
    c.space_ = Space::RGB;
    c.c0_ = clamp01(red);
    c.c1_ = clamp01(green);
    c.c2_ = clamp01(blue);
    c.alpha_ = clamp01(alpha);
    return c;
}

Color Color::colorWithWhite(double white, double alpha) {
    Color c;
    c.space_ = Space::Grey;
    c.c0_ = c.c1_ = c.c2_ = clamp01(white);
    c.alpha_ = clamp01(alpha);
    return c;
}

Color Color::colorWithPatternImage(std::shared_ptr<const Image> image) {
    Color c;
    c.space_ = Space::Pattern;
    c.pattern_ = std::move(image);
    return c;
}

bool Color::getRed(double& red, double& green, double& blue, double& alpha) const noexcept {
    if (space_ == Space::Pattern) return false;
    red = c0_;
    green = c1_;
    blue = c2_;
    alpha = alpha_;
    return true;
}

bool Color::getWhite(double& white, double& alpha) const noexcept {
    if (space_ == Space::Pattern) return false;
    white = space_ == Space::Grey ? c0_ : (c0_ + c1_ + c2_) / 3.0;
    alpha = alpha_;
    return true;
}

Color Color::colorWithAlphaComponent(double alpha) const {
    if (space_ == Space::Pattern) return *this;
    Color c = *this;
    c.alpha_ = clamp01(alpha);
    return c;
}

void Color::set() const {
    if (auto* context = getCurrentContext()) {
        context->setFillColor(*this);
        context->setStrokeColor(*this);
    }
}

void Color::setFill() const {
    if (auto* context = getCurrentContext()) context->setFillColor(*this);
}

void Color::setStroke() const {
    if (auto* context = getCurrentContext()) context->setStrokeColor(*this);
}

std::string Color::description() const {
    switch (space_) {
        case Space::RGB:
            return "UIExtendedSRGBColorSpace " + component(c0_) + " " + component(c1_) + " " + component(c2_) + " " +
                   component(alpha_);
        case Space::Grey:
            return "UIExtendedGrayColorSpace " + component(c0_) + " " + component(alpha_);
        case Space::Pattern:
            break;
    }
    return format("<Pattern: %p>", static_cast<const void*>(pattern_.get()));
}

bool operator==(const Color& a, const Color& b) noexcept {
    if (a.space_ != b.space_) return false;
    if (a.space_ == Color::Space::Pattern) return a.pattern_ == b.pattern_;
    return a.c0_ == b.c0_ && a.c1_ == b.c1_ && a.c2_ == b.c2_ && a.alpha_ == b.alpha_;
}

}  // namespace krcommon::platform
