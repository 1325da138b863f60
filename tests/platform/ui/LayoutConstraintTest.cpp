#include <krcommon/platform/ui/LayoutConstraint.h>

#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/ui/View.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>

using namespace krcommon::platform;
using A = LayoutAttribute;

namespace {

std::shared_ptr<View> constrainedChild(const std::shared_ptr<View>& parent) {
    auto child = std::make_shared<View>();
    child->setTranslatesAutoresizingMaskIntoConstraints(false);
    parent->addSubview(child);
    return child;
}

std::shared_ptr<LayoutConstraint> rule(const std::shared_ptr<View>& item, A a, const std::shared_ptr<View>& to, A b,
                                       double m, double c) {
    return LayoutConstraint::constraintWithItem(item, a, to, b, m, c);
}

TEST(LayoutConstraint, SolvesEveryAttributeAgainstTheParentAndSiblings) {
    auto parent = std::make_shared<View>(Rect{50, 60, 400, 300});
    auto a = constrainedChild(parent);
    auto b = constrainedChild(parent);
    parent->addConstraints({
        rule(a, A::Left, parent, A::Left, 1, 10),
        rule(a, A::Top, parent, A::Top, 1, 20),
        rule(a, A::Right, parent, A::CenterX, 1, 0),         // ends at the parent's middle
        rule(a, A::Height, a, A::Width, 0.5, 0),            // aspect across axes
        rule(b, A::Leading, a, A::Trailing, 1, 5),
        rule(b, A::Trailing, parent, A::Right, 1, -5),
        rule(b, A::CenterY, a, A::CenterY, 1, 0),
        rule(b, A::Bottom, parent, A::Bottom, 0.5, 0),      // bottom at half the parent's height
    });
    parent->layoutIfNeeded();
    EXPECT_EQ(a->frame(), (Rect{10, 20, 190, 95}));
    // b: x 205, right 395; centre y 67.5, bottom 150 → height 165, top -15.
    EXPECT_EQ(b->frame(), (Rect{205, -15, 190, 165}));
}

TEST(LayoutConstraint, KeepsFixedFramesAndUnsettledValuesAndDropsContradictions) {
    krcommon::test::LogCapture log;
    auto parent = std::make_shared<View>(Rect{0, 0, 200, 200});
    auto fixed = std::make_shared<View>(Rect{7, 8, 30, 40});  // translates its frame: stays put
    parent->addSubview(fixed);
    auto loose = constrainedChild(parent);
    loose->setFrame({1, 2, 3, 4});
    auto clash = rule(loose, A::Width, nullptr, A::NotAnAttribute, 1, 99);
    parent->addConstraints({
        rule(loose, A::Top, fixed, A::Bottom, 1, 2),
        rule(loose, A::Width, fixed, A::Width, 2, 0),
        clash,                                      // contradicts the width above
        rule(fixed, A::Left, parent, A::Left, 1, 0),  // contradicts the fixed frame
    });
    parent->layoutIfNeeded();
    EXPECT_EQ(fixed->frame(), (Rect{7, 8, 30, 40}));
    EXPECT_EQ(loose->frame(), (Rect{1, 50, 60, 4}));  // x and height: nothing settles them
    EXPECT_EQ(log.count("Unable to simultaneously satisfy constraints. Will attempt to recover by breaking constraint "
                        "<LayoutConstraint"),
              2u);
    EXPECT_EQ(log.count(".width == 99>"), 1u) << clash->description();
}

TEST(LayoutConstraint, ChangesTakeEffectAtTheNextLayoutPass) {
    auto parent = std::make_shared<View>(Rect{0, 0, 100, 100});
    auto child = constrainedChild(parent);
    auto height = rule(child, A::Height, nullptr, A::NotAnAttribute, 1, 30);
    parent->addConstraints({rule(child, A::Width, parent, A::Width, 1, 0), height,
                            rule(child, A::Bottom, parent, A::Bottom, 1, 0)});
    parent->layoutIfNeeded();
    EXPECT_EQ(child->frame(), (Rect{0, 70, 100, 30}));
    EXPECT_TRUE(height->isActive());

    height->setConstant(50);  // marks the parent
    EXPECT_TRUE(parent->needsLayout());
    parent->layoutIfNeeded();
    EXPECT_EQ(child->frame(), (Rect{0, 50, 100, 50}));

    parent->setFrame({0, 0, 200, 300});  // a new size: laid out again
    parent->layoutIfNeeded();
    EXPECT_EQ(child->frame(), (Rect{0, 250, 200, 50}));

    parent->removeConstraint(height);
    EXPECT_FALSE(height->isActive());
    parent->layoutIfNeeded();
    EXPECT_EQ(child->frame(), (Rect{0, 250, 200, 50}));  // the height keeps its value

    // Removing the child takes the constraints that refer to it off the parent.
    child->removeFromSuperview();
    EXPECT_TRUE(parent->constraints().empty());
}

TEST(LayoutConstraint, IgnoresRulesAboutViewsOutsideTheParentAndItsChildren) {
    auto parent = std::make_shared<View>(Rect{0, 0, 100, 100});
    auto child = constrainedChild(parent);
    auto grandchild = constrainedChild(child);
    auto stranger = std::make_shared<View>(Rect{0, 0, 10, 10});
    auto gone = std::make_shared<View>(Rect{0, 0, 10, 10});
    parent->addConstraints({rule(child, A::Width, stranger, A::Width, 1, 0), rule(child, A::Height, gone, A::Height, 1, 7),
                            rule(grandchild, A::Width, parent, A::Width, 1, 0),
                            rule(child, A::Width, nullptr, A::NotAnAttribute, 1, 40)});
    child->addConstraint(rule(grandchild, A::Width, child, A::Width, 0.5, 0));
    gone.reset();  // its rule goes with it
    parent->layoutIfNeeded();
    EXPECT_EQ(child->frame(), (Rect{0, 0, 40, 0}));
    EXPECT_DOUBLE_EQ(grandchild->frame().width(), 20);  // by the child's own pass
}

TEST(LayoutConstraint, RefusesRulesThatCannotHold) {
    auto v = std::make_shared<View>();
    auto w = std::make_shared<View>();
    const std::tuple<std::shared_ptr<View>, A, std::shared_ptr<View>, A, double, double> rows[] = {
        {nullptr, A::Width, nullptr, A::NotAnAttribute, 1, 1},
        {v, A::NotAnAttribute, w, A::Width, 1, 0},
        {v, A::Top, nullptr, A::NotAnAttribute, 1, 5},  // a position equal to a constant
        {v, A::Width, w, A::NotAnAttribute, 1, 0},
        {v, A::Width, nullptr, A::Height, 1, 0},
        {v, A::Top, w, A::Height, 1, 0},
        {v, A::Top, w, A::Left, 1, 0},
        {v, A::CenterX, w, A::CenterY, 1, 0},
        {v, A::Width, w, A::Width, std::numeric_limits<double>::infinity(), 0},
        {v, static_cast<A>(42), w, A::Width, 1, 0},
    };
    for (const auto& [item, a, to, b, m, c] : rows) {
        try {
            LayoutConstraint::constraintWithItem(item, a, to, b, m, c);
            ADD_FAILURE() << static_cast<int>(a) << " " << static_cast<int>(b);
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), "NSInvalidArgumentException");
        }
    }
    EXPECT_NO_THROW(LayoutConstraint::constraintWithItem(v, A::Height, w, A::Width, 0.18, 0));
}

}  // namespace
