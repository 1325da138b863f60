#include <krcommon/platform/ui/Button.h>
#include <krcommon/platform/ui/GestureRecognizer.h>
#include <krcommon/platform/ui/ScrollView.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace krcommon::platform;
using Calls = std::vector<std::string>;

namespace {

// A target that writes down what reaches it.
struct Journal {
    Calls calls;
    void onControl(Control* sender) { calls.push_back(sender ? "control" : "control:null"); }
    void onButton(Button* sender) { calls.push_back(sender ? "button" : "button:null"); }
    void onTap(TapGestureRecognizer* r) { calls.push_back("tap:" + std::to_string(static_cast<int>(r->state()))); }
    void onAny(GestureRecognizer* r) { calls.push_back("any:" + std::to_string(static_cast<int>(r->state()))); }
};

// What a state lacks comes from the normal state; an image set for the exact state wins.
TEST(Button, StateValuesFallBackToTheNormalState) {
    auto button = Button::buttonWithType(ButtonType::System);
    EXPECT_EQ(button->titleColorForState(ControlStateNormal), Color::colorWithRed(0, 122 / 255.0, 1, 1));
    auto normal = std::make_shared<Image>(1, 1, 1, std::vector<std::uint32_t>{0xFF0000FFu});
    auto pressed = std::make_shared<Image>(1, 1, 1, std::vector<std::uint32_t>{0xFF000080u});
    button->setTitle("刷新", ControlStateNormal);
    button->setBackgroundImage(normal, ControlStateNormal);
    button->setBackgroundImage(pressed, ControlStateHighlighted);
    EXPECT_EQ(button->titleForState(ControlStateHighlighted), "刷新");
    EXPECT_EQ(button->currentBackgroundImage(), normal);
    button->setHighlighted(true);
    EXPECT_EQ(button->currentBackgroundImage(), pressed);
    button->setEnabled(false);
    EXPECT_EQ(button->state(), ControlStateHighlighted | ControlStateDisabled);
    EXPECT_EQ(button->currentBackgroundImage(), normal);
    button->setTitle(std::nullopt, ControlStateNormal);
    EXPECT_FALSE(button->currentTitle());
}

TEST(Control, SendsActionsByEventToLiveTargetsOnly) {
    auto button = std::make_shared<Button>(Rect{0, 0, 10, 10});
    auto journal = std::make_shared<Journal>();
    auto gone = std::make_shared<Journal>();
    int blocks = 0;
    button->addTarget(journal, &Journal::onControl, ControlEventTouchUpInside);
    button->addTarget(journal, &Journal::onControl, ControlEventTouchDown);  // same action: events join
    button->addTarget(journal, &Journal::onButton, ControlEventTouchUpInside);
    button->addTarget(gone, &Journal::onControl, ControlEventAllEvents);
    button->addAction([&](Control&) { ++blocks; }, ControlEventValueChanged);
    EXPECT_EQ(button->allControlEventsOf(journal.get()), ControlEventTouchUpInside | ControlEventTouchDown);
    gone.reset();  // the control does not keep its targets
    EXPECT_EQ(button->allTargets().size(), 1u);
    const std::pair<std::function<void()>, Calls> steps[] = {
        {[&] { button->sendActionsForControlEvents(ControlEventTouchUpInside); }, {"control", "button"}},
        {[&] { button->sendActionsForControlEvents(ControlEventTouchUpOutside | ControlEventValueChanged); }, {}},
        {[&] { button->simulateTap(); }, {"control", "control", "button"}},
        {[&] {
             button->removeTarget(journal, &Journal::onButton, ControlEventTouchUpInside);
             button->sendActionsForControlEvents(ControlEventTouchUpInside);
         }, {"control"}},
        {[&] {
             button->removeTarget(journal.get(), ControlEventTouchUpInside);
             button->setEnabled(false);  // a disabled control sends nothing
             button->sendActionsForControlEvents(ControlEventAllEvents);
         }, {}},
        {[&] {
             button->setEnabled(true);
             button->setHidden(true);  // a hidden control cannot be tapped, but can still send
             button->simulateTap();
             button->sendActionsForControlEvents(ControlEventAllEvents);
         }, {"control"}},
    };
    for (const auto& [step, expected] : steps) {
        step();
        EXPECT_EQ(std::exchange(journal->calls, {}), expected);
    }
    EXPECT_EQ(blocks, 2);
}

TEST(GestureRecognizer, StateChangesReachTargetsOnlyWhenATouchCouldReachTheView) {
    auto parent = std::make_shared<View>(Rect{0, 0, 100, 100});
    auto label = std::make_shared<View>(Rect{0, 0, 50, 20});
    parent->addSubview(label);
    auto tap = std::make_shared<TapGestureRecognizer>();
    auto journal = std::make_shared<Journal>();
    tap->addTarget(journal, &Journal::onTap);
    tap->addTarget(journal, &Journal::onAny);
    tap->setState(GestureRecognizerState::Ended);  // not attached to any view
    EXPECT_TRUE(journal->calls.empty());
    label->addGestureRecognizer(tap);
    using S = GestureRecognizerState;
    for (S state : {S::Possible, S::Began, S::Changed, S::Ended, S::Cancelled, S::Failed}) tap->setState(state);
    EXPECT_EQ(std::exchange(journal->calls, {}), (Calls{"tap:1", "any:1", "tap:2", "any:2", "tap:3", "any:3", "tap:4", "any:4"}));
    const std::pair<const char*, std::function<void(bool)>> blockers[] = {
        {"interaction off", [&](bool on) { label->setUserInteractionEnabled(!on); }},
        {"hidden", [&](bool on) { label->setHidden(on); }},
        {"parent hidden", [&](bool on) { parent->setHidden(on); }},
        {"parent interaction off", [&](bool on) { parent->setUserInteractionEnabled(!on); }},
        {"transparent", [&](bool on) { label->setAlpha(on ? 0 : 1); }},
        {"recogniser disabled", [&](bool on) { tap->setEnabled(!on); }},
    };
    for (const auto& [what, block] : blockers) {
        block(true);
        tap->simulateTap();
        EXPECT_TRUE(journal->calls.empty()) << what;
        block(false);
        tap->simulateTap();
        EXPECT_EQ(std::exchange(journal->calls, {}), (Calls{"tap:3", "any:3"})) << what;
        EXPECT_EQ(tap->state(), S::Possible);
    }
    auto other = std::make_shared<View>();  // moving the recogniser detaches it from the former view
    other->addGestureRecognizer(tap);
    EXPECT_TRUE(label->gestureRecognizers().empty());
    EXPECT_EQ(tap->view(), other);
    other.reset();
    EXPECT_EQ(tap->view(), nullptr);
}

struct ScrollListener : ScrollViewDelegate, ScrollViewDidScrollDelegate {
    std::vector<Point> offsets;
    void scrollViewDidScroll(ScrollView& v) override { offsets.push_back(v.contentOffset()); }
};

TEST(View, TreeOwnershipAndScrolling) {
    auto root = std::make_shared<ScrollView>(Rect{0, 0, 100, 100});
    auto a = std::make_shared<View>(), b = std::make_shared<View>();
    root->addSubview(a);
    root->addSubview(b);
    a->addSubview(b);  // moves b
    EXPECT_EQ(root->subviews().size(), 1u);
    EXPECT_EQ(b->superview(), a);
    EXPECT_TRUE(b->isDescendantOfView(root.get()));
    EXPECT_FALSE(root->isDescendantOfView(b.get()));
    EXPECT_THROW(b->addSubview(root), std::exception);
    EXPECT_THROW(a->addSubview(a), std::exception);
    root->addSubview(b);
    root->addSubview(a);  // already there: brought to the front
    EXPECT_EQ(root->subviews().back(), a);
    auto listener = std::make_shared<ScrollListener>();
    root->setDelegate(listener);
    root->setContentOffset({0, 40});
    root->setContentOffset({0, 40});  // no change, no call
    EXPECT_EQ(listener->offsets, (std::vector<Point>{{0, 40}}));
    EXPECT_EQ(root->bounds(), (Rect{0, 40, 100, 100}));
    listener.reset();
    EXPECT_EQ(root->delegate(), nullptr);
}

}  // namespace
