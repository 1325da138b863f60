#pragma once

// Text with attributes over ranges. Positions and lengths count UTF-16 code
// units, as the mobile toolkit's strings do: "网络" is 2 long, an emoji outside
// the Basic Multilingual Plane 2 as well. The text itself is kept as UTF-8;
// malformed bytes are replaced by U+FFFD when the string is made.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/Font.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace krcommon::platform {

/// A range of UTF-16 code units.
struct Range {
    std::size_t location = 0;
    std::size_t length = 0;
    [[nodiscard]] std::size_t end() const noexcept { return location + length; }
    friend bool operator==(const Range&, const Range&) = default;
};

/// The attributes of one character. An absent attribute leaves the drawing
/// view's own setting in force (a label's font and text colour).
struct TextAttributes {
    std::optional<Font> font;
    std::optional<Color> foregroundColor;
    friend bool operator==(const TextAttributes&, const TextAttributes&) = default;
};

enum class AttributeName { Font, ForegroundColor };
using AttributeValue = std::variant<Font, Color>;

class KRCOMMON_EXPORT AttributedString {
public:
    /// One stretch of characters sharing the same attributes.
    struct Run {
        Range range;
        TextAttributes attributes;
    };

    AttributedString() = default;
    /// `text` (malformed bytes replaced by U+FFFD) with `attributes` over all of it.
    explicit AttributedString(std::string_view text, TextAttributes attributes = {});

    /// The text as UTF-8.
    [[nodiscard]] const std::string& string() const noexcept { return text_; }
    /// The length in UTF-16 code units.
    [[nodiscard]] std::size_t length() const noexcept { return byteOffsets_.size() - 1; }

    /// Sets one attribute over `range`, keeping the others. Throws platform::Exception
    /// "NSRangeException" when the range runs past the end and
    /// "NSInvalidArgumentException" when the value is not of the attribute's type.
    void addAttribute(AttributeName name, const AttributeValue& value, Range range);
    /// Removes one attribute over `range`. Throws as addAttribute does for a bad range.
    void removeAttribute(AttributeName name, Range range);
    /// Replaces every attribute over `range`. Throws as addAttribute does for a bad range.
    void setAttributes(const TextAttributes& attributes, Range range);
    /// Appends `other` with its attributes.
    void appendAttributedString(const AttributedString& other);

    /// The attributes at `index`; `effectiveRange`, when given, receives the longest
    /// range around it with the same attributes. Throws "NSRangeException" past the end.
    [[nodiscard]] TextAttributes attributesAtIndex(std::size_t index, Range* effectiveRange = nullptr) const;

    /// The runs in order, covering the whole text, neighbours always different.
    [[nodiscard]] const std::vector<Run>& runs() const noexcept { return runs_; }

    /// The UTF-8 byte offset of the UTF-16 position `index` (0...length()). A
    /// position between the two halves of a surrogate pair maps to the start of
    /// the character.
    [[nodiscard]] std::size_t byteOffset(std::size_t index) const;

    friend KRCOMMON_EXPORT bool operator==(const AttributedString& a, const AttributedString& b);

private:
    void checkRange(Range range) const;
    void split(std::size_t at);
    void coalesce();
    template <class Change>
    void change(Range range, Change&& change);

    std::string text_;
    std::vector<std::size_t> byteOffsets_{0};  // per UTF-16 unit, plus the end
    std::vector<Run> runs_;
};

}  // namespace krcommon::platform
