#include <krcommon/platform/ui/Button.h>

#include <krcommon/platform/ui/ImageContext.h>

namespace krcommon::platform {

Button::Button(const Rect& frame) : Control(frame), titleLabel_(std::make_shared<Label>()) {
    titleLabel_->setFont(Font::systemFontOfSize(15));  // the toolkit's button title size
    titleLabel_->setTextAlignment(TextAlignment::Center);
}

std::shared_ptr<Button> Button::buttonWithType(ButtonType type) {
    auto button = std::make_shared<Button>();
    button->type_ = type;
    return button;
}

Button::~Button() = default;

template <class V>
const V* Button::lookup(const std::map<unsigned, V>& values, unsigned state) {
    if (auto it = values.find(state); it != values.end()) return &it->second;
    if (auto it = values.find(ControlStateNormal); it != values.end()) return &it->second;
    return nullptr;
}

void Button::setTitle(std::optional<std::string> title, unsigned state) {
    if (title) {
        titles_[state] = std::move(*title);
    } else {
        titles_.erase(state);
    }
}

std::optional<std::string> Button::titleForState(unsigned state) const {
    if (const auto* title = lookup(titles_, state)) return *title;
    return std::nullopt;
}

void Button::setTitleColor(std::optional<Color> color, unsigned state) {
    if (color) {
        titleColors_.insert_or_assign(state, *color);
    } else {
        titleColors_.erase(state);
    }
}

Color Button::titleColorForState(unsigned state) const {
    if (const auto* color = lookup(titleColors_, state)) return *color;
    if (type_ == ButtonType::System) return Color::colorWithRed(0, 122 / 255.0, 1, 1);
    return Color::whiteColor();
}

void Button::setBackgroundImage(std::shared_ptr<Image> image, unsigned state) {
    if (image) {
        backgrounds_[state] = std::move(image);
    } else {
        backgrounds_.erase(state);
    }
}

std::shared_ptr<Image> Button::backgroundImageForState(unsigned state) const {
    if (const auto* image = lookup(backgrounds_, state)) return *image;
    return nullptr;
}

void Button::drawContent(GraphicsContext& context) const {
    const Rect bounds{0, 0, frame().width(), frame().height()};
    if (auto background = currentBackgroundImage()) context.drawImage(*background, bounds);
    if (auto title = currentTitle(); title && !title->empty()) {
        const AttributedString text(*title);
        context.drawText(text, bounds, titleLabel_->textAlignment(), titleLabel_->font(), currentTitleColor(),
                         titleLabel_->numberOfLines());
    }
}

}  // namespace krcommon::platform
