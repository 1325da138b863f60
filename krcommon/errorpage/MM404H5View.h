#pragma once

// The page shown in place of a web page that failed to load: a picture, a bold
// title, a tappable subtitle, a filled "refresh" button and a "close" button,
// stacked and centred in a scroll view that always scrolls by at least 100
// points. The screen that owns it becomes its delegate and hears of refresh and
// close; a tap on the subtitle goes to the appearance manager's delegate
// (MM404H5Manager) or, without one, opens the app's page in the system settings.
//
// The built-in look (white page, grey texts, blue refresh button, light grey
// close button, round-ended buttons) is applied at creation, then the manager's
// values over it; every layout pass applies the built-in look again, so only
// what the built-in look leaves alone (the refresh button's title colour) keeps
// the manager's value after the first pass. Main thread only.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/AttributedString.h>
#include <krcommon/platform/ui/Button.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/GestureRecognizer.h>
#include <krcommon/platform/ui/Image.h>
#include <krcommon/platform/ui/ImageView.h>
#include <krcommon/platform/ui/Label.h>
#include <krcommon/platform/ui/LayoutConstraint.h>
#include <krcommon/platform/ui/ScrollView.h>

#include <memory>
#include <optional>

namespace krcommon {

/// The type of the page's delegate (the scroll view's delegate, retyped); its
/// operations are the interfaces below, each called only if the delegate has it.
class KRCOMMON_EXPORT MM404ViewDelegate : public platform::ScrollViewDelegate {
public:
    ~MM404ViewDelegate() override;
};

/// Optional: the user pressed the refresh button; the owner reloads the web page.
class KRCOMMON_EXPORT MM404ViewRefreshDelegate {
public:
    virtual ~MM404ViewRefreshDelegate();
    virtual void MM404ViewDelegate_RefreshCurrentPage() = 0;
};

/// Optional: the user pressed the close button; the owner closes the page.
class KRCOMMON_EXPORT MM404ViewCloseDelegate {
public:
    virtual ~MM404ViewCloseDelegate();
    virtual void MM404ViewDelegate_CloseCurrentPage() = 0;
};

class KRCOMMON_EXPORT MM404H5View : public platform::ScrollView {
    struct Key {
        explicit Key() = default;
    };

public:
    /// A page filling `frame`, complete with content, manager values and actions (doInit()).
    static std::shared_ptr<MM404H5View> initWithFrame(const platform::Rect& frame);
    /// For initWithFrame() only (the page must be shared before it can wire its actions).
    MM404H5View(Key, const platform::Rect& frame);
    ~MM404H5View() override;

    /// In order: the content size (frame width x the larger of frame width and height,
    /// plus 100), addConstraintToCustomViews(), updateCustomViewContent(),
    /// updateUserDefinedContent(), addButtonAction().
    void doInit();
    /// The scroll view's layout pass, then updateCustomViewContent().
    void layoutSubviews() override;

    /// Adds the five subviews and ties them to the page: each centred; the picture
    /// 0.15 H below the top, 0.28 of the width square; the title 10 below it, 0.8 wide,
    /// 30 high; the subtitle right below, 0.8 wide, 25 high; the refresh button 0.23 H
    /// below the subtitle, 0.67 wide and 0.18 of its width high; the close button the
    /// same size 20 below it. H is the frame height now; those offsets stay fixed.
    void addConstraintToCustomViews();
    /// Applies the built-in look (see the file comment) element by element.
    void updateCustomViewContent();
    /// Applies the appearance manager's values over the built-in look.
    void updateUserDefinedContent();

    /// Sets the picture; an absent image changes nothing.
    void update404ImageView(const std::shared_ptr<platform::Image>& image);
    /// Replace the title / subtitle; an absent or empty string changes nothing.
    void update404Title(const std::optional<platform::AttributedString>& title);
    void update404SubTitle(const std::optional<platform::AttributedString>& subtitle);
    /// A present background colour becomes the normal background (1 x 1 image of it) and
    /// its darker shade the highlighted one; a present title colour the normal title
    /// colour. Absent colours change nothing.
    void update404RefreshButtonBackgroundColor(const std::optional<platform::Color>& backgroundColor,
                                               const std::optional<platform::Color>& titleColor);
    void update404CloseButtonBackgroundColor(const std::optional<platform::Color>& backgroundColor,
                                             const std::optional<platform::Color>& titleColor);

    /// addRefreshButtonAction(), addCloseButtonAction(), addSubtitleLabelTapGestureAction().
    void addButtonAction();
    /// onRefreshButtonAction() / onCloseButtonAction() on touch-up-inside.
    void addRefreshButtonAction();
    void addCloseButtonAction();
    /// A tap recogniser calling onSubTitleLabelTapGestureAction(), on the subtitle with
    /// user interaction switched on.
    void addSubtitleLabelTapGestureAction();

    /// Tells a delegate with MM404ViewRefreshDelegate; otherwise nothing.
    void onRefreshButtonAction(platform::Control* sender);
    /// Tells a delegate with MM404ViewCloseDelegate; otherwise nothing.
    void onCloseButtonAction(platform::Control* sender);
    /// Only for a recogniser in state 3 (Ended): tells the manager's delegate if it has
    /// MM404H5ManagerSubTitleClickDelegate, else opens Application::OpenSettingsURLString.
    void onSubTitleLabelTapGestureAction(platform::TapGestureRecognizer* recognizer);

    /// Hide or show the subtitle / the refresh button. The layout keeps their space,
    /// and the value is not stored: the getters always answer false.
    void setIsSubtitleLabelHidden(bool hidden);
    [[nodiscard]] bool isSubtitleLabelHidden() const noexcept { return isSubtitleLabelHidden_; }
    void setIsRefreshButtonHidden(bool hidden);
    [[nodiscard]] bool isRefreshButtonHidden() const noexcept { return isRefreshButtonHidden_; }

    /// A 1 x 1 point image at scale 1 filled with `color` (opaque black without one).
    [[nodiscard]] std::shared_ptr<platform::Image> imageFromColor(const std::optional<platform::Color>& color) const;
    /// Red, green and blue each raised by 0.1, to at most 1; alpha kept. Nothing for an
    /// absent colour or one without RGB components (a pattern).
    [[nodiscard]] std::optional<platform::Color> lighterColorForColor(const std::optional<platform::Color>& color) const;
    /// Red, green and blue each lowered by 0.1, to at least 0; alpha kept. Nothing as above.
    [[nodiscard]] std::optional<platform::Color> darkerColorForColor(const std::optional<platform::Color>& color) const;

    /// The subviews, each made on first read. A setter only replaces the view kept here: it
    /// adds nothing to the page and moves no constraint or action; nullptr lets the next read
    /// make a fresh one.
    const std::shared_ptr<platform::ImageView>& mm404ImageView();
    void setMm404ImageView(std::shared_ptr<platform::ImageView> view) { mm404ImageView_ = std::move(view); }
    const std::shared_ptr<platform::Label>& mm404TitleLable();
    void setMm404TitleLable(std::shared_ptr<platform::Label> label) { mm404TitleLable_ = std::move(label); }
    const std::shared_ptr<platform::Label>& mm404SubTitleLable();
    void setMm404SubTitleLable(std::shared_ptr<platform::Label> label) { mm404SubTitleLable_ = std::move(label); }
    const std::shared_ptr<platform::Button>& mm404RefreshButton();
    void setMm404RefreshButton(std::shared_ptr<platform::Button> button) { mm404RefreshButton_ = std::move(button); }
    const std::shared_ptr<platform::Button>& mm404CloseButton();
    void setMm404CloseButton(std::shared_ptr<platform::Button> button) { mm404CloseButton_ = std::move(button); }

    /// The title's and subtitle's fixed heights (30 and 25), for the owner to change. A setter
    /// only replaces the constraint kept here; it installs or removes nothing.
    [[nodiscard]] const std::shared_ptr<platform::LayoutConstraint>& mm404TitleLabelHeightConstraint() const noexcept {
        return mm404TitleLabelHeightConstraint_;
    }
    void setMm404TitleLabelHeightConstraint(std::shared_ptr<platform::LayoutConstraint> c) {
        mm404TitleLabelHeightConstraint_ = std::move(c);
    }
    [[nodiscard]] const std::shared_ptr<platform::LayoutConstraint>& mm404SubTitleLabelHeightConstraint()
        const noexcept {
        return mm404SubTitleLabelHeightConstraint_;
    }
    void setMm404SubTitleLabelHeightConstraint(std::shared_ptr<platform::LayoutConstraint> c) {
        mm404SubTitleLabelHeightConstraint_ = std::move(c);
    }

    /// The scroll view's delegate as the page's delegate: nullptr when it is gone or not one.
    [[nodiscard]] std::shared_ptr<MM404ViewDelegate> delegate() const;
    void setDelegate(std::weak_ptr<MM404ViewDelegate> delegate);

private:
    std::shared_ptr<MM404H5View> self();

    std::shared_ptr<platform::ImageView> mm404ImageView_;
    std::shared_ptr<platform::Label> mm404TitleLable_;
    std::shared_ptr<platform::Label> mm404SubTitleLable_;
    std::shared_ptr<platform::Button> mm404RefreshButton_;
    std::shared_ptr<platform::Button> mm404CloseButton_;
    std::shared_ptr<platform::LayoutConstraint> mm404TitleLabelHeightConstraint_;
    std::shared_ptr<platform::LayoutConstraint> mm404SubTitleLabelHeightConstraint_;
    bool isSubtitleLabelHidden_ = false;  // never written: see setIsSubtitleLabelHidden()
    bool isRefreshButtonHidden_ = false;  // never written: see setIsRefreshButtonHidden()
};

}  // namespace krcommon
