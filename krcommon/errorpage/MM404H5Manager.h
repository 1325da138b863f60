#pragma once

// The process-wide appearance of the web error page (MM404H5View): a picture,
// title and subtitle texts and button colours that the host app sets once, and
// the host's delegate for taps on the subtitle. Every property starts empty, and
// an empty property leaves the page's built-in look. A view reads the manager
// when it fills itself; setting a property does not touch views already shown.
// Main thread only.

#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/AttributedString.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/Image.h>

#include <memory>
#include <optional>

namespace krcommon {

/// The type of the manager's delegate; its operations are the interfaces below.
class KRCOMMON_EXPORT MM404H5ManagerDelegate {
public:
    virtual ~MM404H5ManagerDelegate();
};

/// Optional: the user tapped the subtitle of an error page. A delegate without this
/// interface leaves the tap to the page, which opens the app's settings page.
class KRCOMMON_EXPORT MM404H5ManagerSubTitleClickDelegate {
public:
    virtual ~MM404H5ManagerSubTitleClickDelegate();
    virtual void MM404H5ManagerDelegate_onSubTitleClickAction() = 0;
};

/// Raised by a direct construction of the manager: named "Sigleton", with the reason
/// "Use +[MM404H5Manager sharedManager]".
class KRCOMMON_EXPORT MM404H5ManagerSingletonException : public platform::Exception {
public:
    MM404H5ManagerSingletonException();
    ~MM404H5ManagerSingletonException() override;
};

/// The appearance store (see the file comment). A page reads the picture, texts and colours once,
/// when it is made (MM404H5View::updateUserDefinedContent()), so their setters affect only pages
/// made afterwards; the delegate is looked up at each tap on a subtitle.
class KRCOMMON_EXPORT MM404H5Manager {
public:
    /// The one instance, made on first use.
    static MM404H5Manager& sharedManager();

    /// Not a way in: always throws MM404H5ManagerSingletonException, so that no second
    /// instance can exist. Use sharedManager().
    MM404H5Manager();
    MM404H5Manager(const MM404H5Manager&) = delete;
    MM404H5Manager& operator=(const MM404H5Manager&) = delete;

    /// Shown instead of the built-in error picture.
    [[nodiscard]] const std::shared_ptr<platform::Image>& image() const noexcept { return image_; }
    void setImage(std::shared_ptr<platform::Image> image) noexcept { image_ = std::move(image); }
    /// Replaces the built-in title, with its own fonts and colours.
    [[nodiscard]] const std::optional<platform::AttributedString>& attrTitleString() const noexcept {
        return attrTitleString_;
    }
    void setAttrTitleString(std::optional<platform::AttributedString> text) { attrTitleString_ = std::move(text); }
    /// Replaces the built-in subtitle.
    [[nodiscard]] const std::optional<platform::AttributedString>& attrSubtitleString() const noexcept {
        return attrSubtitleString_;
    }
    void setAttrSubtitleString(std::optional<platform::AttributedString> text) {
        attrSubtitleString_ = std::move(text);
    }
    /// The refresh button's fill (normal state; pressed is a darker shade).
    [[nodiscard]] const std::optional<platform::Color>& refreshButtonBackgroundColor() const noexcept {
        return refreshButtonBackgroundColor_;
    }
    void setRefreshButtonBackgroundColor(std::optional<platform::Color> color) {
        refreshButtonBackgroundColor_ = std::move(color);
    }
    /// The refresh button's title colour (normal state).
    [[nodiscard]] const std::optional<platform::Color>& refreshButtonTitleColor() const noexcept {
        return refreshButtonTitleColor_;
    }
    void setRefreshButtonTitleColor(std::optional<platform::Color> color) {
        refreshButtonTitleColor_ = std::move(color);
    }
    /// The close button's fill (normal state; pressed is a darker shade).
    [[nodiscard]] const std::optional<platform::Color>& closeButtonBackgroundColor() const noexcept {
        return closeButtonBackgroundColor_;
    }
    void setCloseButtonBackgroundColor(std::optional<platform::Color> color) {
        closeButtonBackgroundColor_ = std::move(color);
    }
    /// The close button's title colour (normal state).
    [[nodiscard]] const std::optional<platform::Color>& closeButtonTitleColor() const noexcept {
        return closeButtonTitleColor_;
    }
    void setCloseButtonTitleColor(std::optional<platform::Color> color) { closeButtonTitleColor_ = std::move(color); }
    /// The host's delegate, held weakly: nullptr once it is gone.
    [[nodiscard]] std::shared_ptr<MM404H5ManagerDelegate> delegate() const noexcept { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<MM404H5ManagerDelegate> delegate) noexcept { delegate_ = std::move(delegate); }

private:
    struct Private {};
    explicit MM404H5Manager(Private);
    /// The place for defaults; there are none, so every property starts empty.
    void doInit();

    std::shared_ptr<platform::Image> image_;
    std::optional<platform::AttributedString> attrTitleString_;
    std::optional<platform::AttributedString> attrSubtitleString_;
    std::optional<platform::Color> refreshButtonBackgroundColor_;
    std::optional<platform::Color> refreshButtonTitleColor_;
    std::optional<platform::Color> closeButtonBackgroundColor_;
    std::optional<platform::Color> closeButtonTitleColor_;
    std::weak_ptr<MM404H5ManagerDelegate> delegate_;
};

}  // namespace krcommon
