#pragma once

// A font: a family, a point size and a weight. The system font is Noto Sans
// CJK SC, which carries Latin and CJK glyphs alike, with the generic sans-serif
// family behind it for anything it lacks.

#include <krcommon/platform/core/Export.h>

#include <string>

namespace krcommon::platform {

class KRCOMMON_EXPORT Font {
public:
    /// The system font at 17 points, the toolkit's default for labels.
    Font() = default;
    /// A font of the given family (a fontconfig family list such as "DejaVu Serif, serif").
    Font(std::string familyName, double pointSize, bool bold = false);

    static Font systemFontOfSize(double pointSize);
    static Font boldSystemFontOfSize(double pointSize);
    /// The family list of the system font.
    static const std::string& systemFamilyName();

    [[nodiscard]] const std::string& familyName() const noexcept { return family_; }
    [[nodiscard]] double pointSize() const noexcept { return size_; }
    [[nodiscard]] bool isBold() const noexcept { return bold_; }

    friend bool operator==(const Font&, const Font&) = default;

private:
    std::string family_ = systemFamilyName();
    double size_ = 17.0;
    bool bold_ = false;
};

}  // namespace krcommon::platform
