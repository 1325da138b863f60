#pragma once

// The retained view tree: a rectangle in its superview's coordinates with
// subviews drawn over it in order. Views are shared objects (std::shared_ptr);
// a view owns its subviews, its gesture recognisers and the constraints
// installed on it, and refers to its superview weakly. Main thread only, like
// the toolkit's views.
//
// Layout: setNeedsLayout() marks a view, layoutIfNeeded() runs the layout pass
// over the marked part of the tree, top down. A view's pass (layoutSubviews())
// solves the constraints that tie it to its direct subviews and its subviews
// to each other, and moves those subviews. Changing a view's size, adding a
// subview or a constraint, or changing a constraint's constant marks it.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/Color.h>
#include <krcommon/platform/ui/Geometry.h>

#include <memory>
#include <optional>
#include <vector>

namespace krcommon::platform {

class GestureRecognizer;
class GraphicsContext;
class LayoutConstraint;

class KRCOMMON_EXPORT View : public std::enable_shared_from_this<View> {
public:
    explicit View(const Rect& frame = {});
    virtual ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    /// The rectangle in the superview's coordinates. A new size marks the view for layout.
    [[nodiscard]] Rect frame() const noexcept { return frame_; }
    void setFrame(const Rect& frame);
    /// The view's own coordinates: the origin shown at the top left (the content
    /// offset of a scroll view, else 0, 0) and the frame's size.
    [[nodiscard]] Rect bounds() const noexcept { return {boundsOrigin_, frame_.size}; }
    [[nodiscard]] Point center() const noexcept { return frame_.center(); }

    [[nodiscard]] std::shared_ptr<View> superview() const noexcept { return superview_.lock(); }
    /// The subviews, back to front.
    [[nodiscard]] const std::vector<std::shared_ptr<View>>& subviews() const noexcept { return subviews_; }
    /// Puts `view` in front of the others, taking it from its former superview first.
    /// Throws platform::Exception "NSInvalidArgumentException" for this view itself or
    /// one of its ancestors, which would make a cycle; a null view is ignored.
    void addSubview(const std::shared_ptr<View>& view);
    /// Takes the view out of its superview; the constraints installed on the former
    /// superview that refer to it are removed with it.
    void removeFromSuperview();
    /// Whether this view is `view` or lies inside it.
    [[nodiscard]] bool isDescendantOfView(const View* view) const noexcept;

    [[nodiscard]] bool isHidden() const noexcept { return hidden_; }
    void setHidden(bool hidden) noexcept { hidden_ = hidden; }
    /// Opacity, 0...1 (clamped).
    [[nodiscard]] double alpha() const noexcept { return alpha_; }
    void setAlpha(double alpha) noexcept;
    /// Drawn under the content; absent draws nothing.
    [[nodiscard]] const std::optional<Color>& backgroundColor() const noexcept { return backgroundColor_; }
    void setBackgroundColor(std::optional<Color> color) { backgroundColor_ = std::move(color); }
    /// Rounds the corners of the background (and of the content when clipping).
    [[nodiscard]] double cornerRadius() const noexcept { return cornerRadius_; }
    void setCornerRadius(double radius) noexcept { cornerRadius_ = radius; }
    /// Whether content and subviews are clipped to the bounds (with the corner radius).
    [[nodiscard]] bool clipsToBounds() const noexcept { return clipsToBounds_; }
    void setClipsToBounds(bool clips) noexcept { clipsToBounds_ = clips; }

    /// Whether touches reach this view and its recognisers; true by default
    /// (labels and image views switch it off).
    [[nodiscard]] bool isUserInteractionEnabled() const noexcept { return userInteractionEnabled_; }
    void setUserInteractionEnabled(bool enabled) noexcept { userInteractionEnabled_ = enabled; }
    /// Whether a touch could reach this view now: interaction on and visible, here
    /// and in every superview.
    [[nodiscard]] bool receivesTouches() const noexcept;

    [[nodiscard]] const std::vector<std::shared_ptr<GestureRecognizer>>& gestureRecognizers() const noexcept {
        return recognizers_;
    }
    /// Attaches `recognizer`, taking it from the view it was attached to.
    void addGestureRecognizer(const std::shared_ptr<GestureRecognizer>& recognizer);
    /// Detaches `recognizer` when it is attached here; otherwise nothing.
    void removeGestureRecognizer(const std::shared_ptr<GestureRecognizer>& recognizer);

    /// When true (the default), the frame as set stands fixed during the superview's
    /// constraint solving; when false, constraints decide it.
    [[nodiscard]] bool translatesAutoresizingMaskIntoConstraints() const noexcept { return translatesMask_; }
    void setTranslatesAutoresizingMaskIntoConstraints(bool translates);

    /// The constraints installed on this view, in the order added.
    [[nodiscard]] const std::vector<std::shared_ptr<LayoutConstraint>>& constraints() const noexcept {
        return constraints_;
    }
    /// Installs `constraint` here and marks the view for layout. A constraint can be
    /// installed on one view at a time; adding it again elsewhere moves it.
    void addConstraint(const std::shared_ptr<LayoutConstraint>& constraint);
    void addConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints);
    /// Uninstalls `constraint` when it is installed here, marking the view for layout; otherwise nothing.
    void removeConstraint(const std::shared_ptr<LayoutConstraint>& constraint);

    /// The layout pass of this view: solves its constraints and places its subviews
    /// (see the file comment). Subclasses that override it call it first.
    virtual void layoutSubviews();
    void setNeedsLayout() noexcept { needsLayout_ = true; }
    [[nodiscard]] bool needsLayout() const noexcept { return needsLayout_; }
    /// Runs layoutSubviews() here if marked, then the same on every subview, in order.
    void layoutIfNeeded();

    /// Draws what the view shows of its own, over its background, in its bounds'
    /// coordinates. The base view draws nothing.
    virtual void drawContent(GraphicsContext& context) const;

protected:
    void setBoundsOrigin(Point origin) noexcept { boundsOrigin_ = origin; }

private:
    Rect frame_;
    Point boundsOrigin_;
    std::weak_ptr<View> superview_;
    std::vector<std::shared_ptr<View>> subviews_;
    std::vector<std::shared_ptr<GestureRecognizer>> recognizers_;
    std::vector<std::shared_ptr<LayoutConstraint>> constraints_;
    std::optional<Color> backgroundColor_;
    double alpha_ = 1.0;
    double cornerRadius_ = 0.0;
    bool hidden_ = false;
    bool clipsToBounds_ = false;
    bool userInteractionEnabled_ = true;
    bool translatesMask_ = true;
    bool needsLayout_ = true;
};

}  // namespace krcommon::platform
