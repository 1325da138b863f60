#pragma once

// A view whose content may be larger than itself: contentSize is the size of
// the scrollable area, contentOffset the point of it shown at the top left (the
// origin of the bounds). It clips its content to its bounds.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/View.h>

#include <memory>

namespace krcommon::platform {

class ScrollView;

/// The type a scroll view's delegate must have; the events are the interfaces below.
class KRCOMMON_EXPORT ScrollViewDelegate {
public:
    virtual ~ScrollViewDelegate();
};

/// The content offset has changed.
class KRCOMMON_EXPORT ScrollViewDidScrollDelegate {
public:
    virtual ~ScrollViewDidScrollDelegate();
    virtual void scrollViewDidScroll(ScrollView& scrollView) = 0;
};

class KRCOMMON_EXPORT ScrollView : public View {
public:
    explicit ScrollView(const Rect& frame = {});
    ~ScrollView() override;

    [[nodiscard]] Size contentSize() const noexcept { return contentSize_; }
    void setContentSize(Size size) noexcept { contentSize_ = size; }
    [[nodiscard]] Point contentOffset() const noexcept { return bounds().origin; }
    /// Moves the content; tells a delegate that has ScrollViewDidScrollDelegate.
    void setContentOffset(Point offset);

    /// The delegate, held weakly: nullptr once it is gone.
    [[nodiscard]] std::shared_ptr<ScrollViewDelegate> delegate() const noexcept { return delegate_.lock(); }
    void setDelegate(std::weak_ptr<ScrollViewDelegate> delegate) noexcept { delegate_ = std::move(delegate); }

private:
    Size contentSize_;
    std::weak_ptr<ScrollViewDelegate> delegate_;
};

}  // namespace krcommon::platform
