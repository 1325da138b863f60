#pragma once

// A push button with a background image, a title and a title colour per state.
// A state without its own value shows the normal state's. The title is drawn
// centred with the font of titleLabel().

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Control.h>
#include <krcommon/platform/ui/Image.h>
#include <krcommon/platform/ui/Label.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace krcommon::platform {

enum class ButtonType { Custom = 0, System = 1 };

class KRCOMMON_EXPORT Button : public Control {
public:
    /// A custom button (no images, white titles) with the frame given.
    explicit Button(const Rect& frame = {});
    /// A shared button of `type` with an empty frame; a system button's default title colour is
    /// the tint blue.
    static std::shared_ptr<Button> buttonWithType(ButtonType type);
    ~Button() override;

    [[nodiscard]] ButtonType buttonType() const noexcept { return type_; }

    /// setTitle(), setTitleColor() and setBackgroundImage() store a value for exactly `state` (a
    /// ControlState mask); nullopt or nullptr removes that state's own value, so it falls back again.
    void setTitle(std::optional<std::string> title, unsigned state);
    /// The title for `state`, falling back to the normal state's.
    [[nodiscard]] std::optional<std::string> titleForState(unsigned state) const;
    void setTitleColor(std::optional<Color> color, unsigned state);
    /// The title colour for `state`, falling back to the normal state's and then to
    /// the type's default: white for a custom button, the tint blue for a system one.
    [[nodiscard]] Color titleColorForState(unsigned state) const;
    void setBackgroundImage(std::shared_ptr<Image> image, unsigned state);
    /// The background image for `state`, falling back to the normal state's.
    [[nodiscard]] std::shared_ptr<Image> backgroundImageForState(unsigned state) const;

    /// The values for the control's current state().
    [[nodiscard]] std::optional<std::string> currentTitle() const { return titleForState(state()); }
    [[nodiscard]] Color currentTitleColor() const { return titleColorForState(state()); }
    [[nodiscard]] std::shared_ptr<Image> currentBackgroundImage() const { return backgroundImageForState(state()); }

    /// The label whose font, alignment and number of lines the title is drawn with.
    [[nodiscard]] const std::shared_ptr<Label>& titleLabel() const noexcept { return titleLabel_; }

    /// The current background image stretched over the bounds, then the current title, if not
    /// empty, in the current title colour.
    void drawContent(GraphicsContext& context) const override;

private:
    template <class V>
    static const V* lookup(const std::map<unsigned, V>& values, unsigned state);

    ButtonType type_ = ButtonType::Custom;
    std::map<unsigned, std::string> titles_;
    std::map<unsigned, Color> titleColors_;
    std::map<unsigned, std::shared_ptr<Image>> backgrounds_;
    std::shared_ptr<Label> titleLabel_;
};

}  // namespace krcommon::platform
