#include <krcommon/platform/ui/Label.h>

namespace krcommon::platform {

Label::Label(const Rect& frame) : View(frame) { setUserInteractionEnabled(false); }
Label::~Label() = default;

std::optional<std::string> Label::text() const {
    if (!attributed_) return std::nullopt;
    return attributed_->string();
}

void Label::setText(std::optional<std::string> text) {
    if (!text || text->empty()) {
        attributed_.reset();
        return;
    }
    attributed_ = AttributedString(*text, TextAttributes{font_, textColor_});
}

void Label::setAttributedText(std::optional<AttributedString> text) {
    if (text && text->length() == 0) text.reset();
    attributed_ = std::move(text);
}

void Label::applyToAll(AttributeName name, const AttributeValue& value) {
    if (attributed_) attributed_->addAttribute(name, value, {0, attributed_->length()});
}

void Label::setFont(const Font& font) {
    font_ = font;
    applyToAll(AttributeName::Font, font);
}

void Label::setTextColor(const Color& color) {
    textColor_ = color;
    applyToAll(AttributeName::ForegroundColor, color);
}

Size Label::sizeThatFits(double width) const {
    if (!attributed_) return {};
    return GraphicsContext::sizeOfText(*attributed_, width, font_, lines_);
}

void Label::drawContent(GraphicsContext& context) const {
    if (!attributed_) return;
    context.drawText(*attributed_, {0, 0, frame().width(), frame().height()}, alignment_, font_, textColor_, lines_);
}

}  // namespace krcommon::platform
