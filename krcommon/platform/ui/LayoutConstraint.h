#pragma once

// A linear layout rule between two views, or between one view and a constant:
//   item.attribute = toItem.toAttribute x multiplier + constant
// Constraints are equalities (the only relation this layer needs); they refer
// to their views weakly and take effect when installed on a view (see View:
// addConstraint, layoutSubviews). Positions are the frame's edges and centres
// in the superview's coordinates; a view's own edges, seen from its subviews,
// are those of its bounds (left and top 0).

#include <krcommon/platform/core/Export.h>

#include <memory>
#include <string>

namespace krcommon::platform {

class View;

/// The toolkit's attribute numbers.
enum class LayoutAttribute : int {
    NotAnAttribute = 0,
    Left = 1,
    Right = 2,
    Top = 3,
    Bottom = 4,
    Leading = 5,   ///< the left edge: text runs left to right here
    Trailing = 6,  ///< the right edge
    Width = 7,
    Height = 8,
    CenterX = 9,
    CenterY = 10,
};

class KRCOMMON_EXPORT LayoutConstraint {
public:
    /// Makes `item.attribute = toItem.toAttribute x multiplier + constant`, or, with no
    /// `toItem` and `NotAnAttribute`, `item.attribute = constant` for a width or height.
    /// Throws platform::Exception "NSInvalidArgumentException" for a rule that cannot
    /// hold: no item; a missing attribute; an item without attribute or the reverse; a
    /// position tied to a size, to a constant or to a position on the other axis; a
    /// multiplier or constant that is not finite.
    static std::shared_ptr<LayoutConstraint> constraintWithItem(const std::shared_ptr<View>& item,
                                                                LayoutAttribute attribute,
                                                                const std::shared_ptr<View>& toItem,
                                                                LayoutAttribute toAttribute, double multiplier,
                                                                double constant);

    /// The terms of the rule as made. The items are held weakly (nullptr once gone);
    /// secondItem() is nullptr and secondAttribute() NotAnAttribute for a constant rule.
    [[nodiscard]] std::shared_ptr<View> firstItem() const noexcept { return first_.lock(); }
    [[nodiscard]] LayoutAttribute firstAttribute() const noexcept { return firstAttribute_; }
    [[nodiscard]] std::shared_ptr<View> secondItem() const noexcept { return second_.lock(); }
    [[nodiscard]] LayoutAttribute secondAttribute() const noexcept { return secondAttribute_; }
    [[nodiscard]] double multiplier() const noexcept { return multiplier_; }
    [[nodiscard]] double constant() const noexcept { return constant_; }
    /// Changes the constant and marks the view it is installed on for layout. A value
    /// that is not finite is ignored.
    void setConstant(double constant) noexcept;
    /// Whether the constraint is installed on a view.
    [[nodiscard]] bool isActive() const noexcept { return !installedOn_.expired(); }

    /// "<LayoutConstraint 0x…: Label:0x….top == ImageView:0x….bottom x 1 + 10>".
    [[nodiscard]] std::string description() const;

    /// Places the direct subviews of `view` by the constraints installed on it and on
    /// them whose views are `view` or its direct subviews; others are left for the
    /// passes of the views further down. Subviews that translate their frame into
    /// constraints stay as they are; a size or position that no constraint settles
    /// keeps its value. A constraint that contradicts those before it is left out, with
    /// a system-log line naming it.
    static void solveConstraints(View& view);

private:
    friend class View;
    LayoutConstraint() = default;

    std::weak_ptr<View> first_;
    std::weak_ptr<View> second_;
    std::weak_ptr<View> installedOn_;
    LayoutAttribute firstAttribute_ = LayoutAttribute::NotAnAttribute;
    LayoutAttribute secondAttribute_ = LayoutAttribute::NotAnAttribute;
    double multiplier_ = 1.0;
    double constant_ = 0.0;
};

}  // namespace krcommon::platform
