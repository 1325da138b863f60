#pragma once

// A view that shows text: plain text with a font and a colour, or an attributed
// string whose attributes win where they are set. One line by default, cut
// short with an ellipsis; the text is centred vertically.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/AttributedString.h>
#include <krcommon/platform/ui/ImageContext.h>
#include <krcommon/platform/ui/View.h>

#include <optional>
#include <string>

namespace krcommon::platform {

class KRCOMMON_EXPORT Label : public View {
public:
    /// A label with no text, the system font at 17 points, black text, natural
    /// alignment, one line; user interaction off.
    explicit Label(const Rect& frame = {});
    ~Label() override;

    /// The text; absent when none is set.
    [[nodiscard]] std::optional<std::string> text() const;
    /// Sets plain text, styled with the label's font and colour.
    void setText(std::optional<std::string> text);
    /// The text with its attributes; absent when none is set.
    [[nodiscard]] const std::optional<AttributedString>& attributedText() const noexcept { return attributed_; }
    /// Sets the attributed text as given; an empty string counts as none.
    void setAttributedText(std::optional<AttributedString> text);

    [[nodiscard]] const Font& font() const noexcept { return font_; }
    /// Sets the font, and applies it over the whole current text.
    void setFont(const Font& font);
    [[nodiscard]] const Color& textColor() const noexcept { return textColor_; }
    /// Sets the colour, and applies it over the whole current text.
    void setTextColor(const Color& color);
    [[nodiscard]] TextAlignment textAlignment() const noexcept { return alignment_; }
    void setTextAlignment(TextAlignment alignment) noexcept { alignment_ = alignment; }
    /// At most this many lines; 0 for no limit.
    [[nodiscard]] int numberOfLines() const noexcept { return lines_; }
    void setNumberOfLines(int lines) noexcept { lines_ = lines < 0 ? 0 : lines; }

    /// The size the text needs, at most `width` wide (0: unbounded).
    [[nodiscard]] Size sizeThatFits(double width) const;

    /// The text laid out in the bounds (see the file comment); nothing without text.
    void drawContent(GraphicsContext& context) const override;

private:
    void applyToAll(AttributeName name, const AttributeValue& value);

    std::optional<AttributedString> attributed_;
    Font font_;
    Color textColor_ = Color::blackColor();
    TextAlignment alignment_ = TextAlignment::Natural;
    int lines_ = 1;
};

}  // namespace krcommon::platform
