#include <krcommon/platform/ui/Font.h>

#include <cmath>
#include <utility>

namespace krcommon::platform {

namespace {
// A negative or NaN size would make the text engine refuse the font: use none.
double sane(double size) { return std::isfinite(size) && size > 0 ? size : 0.0; }
}  // namespace

Font::Font(std::string familyName, double pointSize, bool bold)
    : family_(std::move(familyName)), size_(sane(pointSize)), bold_(bold) {}

Font Font::systemFontOfSize(double pointSize) { return Font(systemFamilyName(), pointSize, false); }

Font Font::boldSystemFontOfSize(double pointSize) { return Font(systemFamilyName(), pointSize, true); }

const std::string& Font::systemFamilyName() {
    static const std::string family = "Noto Sans CJK SC, sans-serif";
    return family;
}

}  // namespace krcommon::platform
