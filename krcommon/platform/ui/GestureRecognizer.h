#pragma once

// Gesture recognisers attached to a view. Touches are simulated: setting a
// recogniser's state is what a recognised touch sequence would do, and the
// actions are sent when the state becomes Began, Changed, Ended (Recognized)
// or Cancelled, provided the recogniser is enabled and a touch could reach its
// view (attached, visible, interaction on; see View::receivesTouches).

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/TargetAction.h>

#include <memory>
#include <vector>

namespace krcommon::platform {

class View;

/// The toolkit's recogniser states and their numbers.
enum class GestureRecognizerState : int {
    Possible = 0,
    Began = 1,
    Changed = 2,
    Ended = 3,
    Cancelled = 4,
    Failed = 5,
    Recognized = Ended,
};

class KRCOMMON_EXPORT GestureRecognizer {
public:
    GestureRecognizer();
    virtual ~GestureRecognizer();
    GestureRecognizer(const GestureRecognizer&) = delete;
    GestureRecognizer& operator=(const GestureRecognizer&) = delete;

    /// Calls `action` on `target` (held weakly) with this recogniser, cast to `S`.
    template <class T, class S>
    void addTarget(const std::shared_ptr<T>& target, void (T::*action)(S*)) {
        actions_.add(target, action, kAction);
    }
    /// Calls `block` with this recogniser; removed only by removeTarget(nullptr).
    void addAction(std::function<void(GestureRecognizer&)> block) { actions_.add(std::move(block), kAction); }
    /// Removes the actions of `target` (null: every target and block).
    void removeTarget(const void* target) { actions_.remove(target, kAction); }

    /// The view this recogniser is attached to, or nullptr.
    [[nodiscard]] std::shared_ptr<View> view() const noexcept { return view_.lock(); }
    [[nodiscard]] bool isEnabled() const noexcept { return enabled_; }
    void setEnabled(bool enabled) noexcept { enabled_ = enabled; }

    [[nodiscard]] GestureRecognizerState state() const noexcept { return state_; }
    /// Moves to `state` and sends the actions (see the file comment).
    void setState(GestureRecognizerState state);

private:
    friend class View;
    static constexpr unsigned long kAction = 1;

    TargetActions<GestureRecognizer> actions_;
    std::weak_ptr<View> view_;
    GestureRecognizerState state_ = GestureRecognizerState::Possible;
    bool enabled_ = true;
};

/// A discrete tap: one finger, one tap unless set otherwise.
class KRCOMMON_EXPORT TapGestureRecognizer : public GestureRecognizer {
public:
    TapGestureRecognizer();
    ~TapGestureRecognizer() override;

    /// Kept for the caller (values below 1 become 1); simulateTap() is one recognised tap
    /// whatever they say.
    [[nodiscard]] int numberOfTapsRequired() const noexcept { return taps_; }
    void setNumberOfTapsRequired(int taps) noexcept { taps_ = taps < 1 ? 1 : taps; }
    [[nodiscard]] int numberOfTouchesRequired() const noexcept { return touches_; }
    void setNumberOfTouchesRequired(int touches) noexcept { touches_ = touches < 1 ? 1 : touches; }

    /// A recognised tap: the state becomes Ended (sending the actions when a touch
    /// could reach the view), then Possible again for the next one.
    void simulateTap();

private:
    int taps_ = 1;
    int touches_ = 1;
};

}  // namespace krcommon::platform
