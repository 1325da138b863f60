#pragma once

// A view that sends actions to targets when the user works it. Touches are
// simulated: sendActionsForControlEvents() delivers what a real touch would.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/ui/TargetAction.h>
#include <krcommon/platform/ui/View.h>

#include <cstdint>

namespace krcommon::platform {

/// The toolkit's control states: a bit mask, Normal being none of the bits.
enum ControlState : unsigned {
    ControlStateNormal = 0,
    ControlStateHighlighted = 1u << 0,
    ControlStateDisabled = 1u << 1,
    ControlStateSelected = 1u << 2,
};

/// The toolkit's control events (bit values as there: touch-up-inside is 64).
enum ControlEvents : unsigned long {
    ControlEventTouchDown = 1ul << 0,
    ControlEventTouchDownRepeat = 1ul << 1,
    ControlEventTouchDragInside = 1ul << 2,
    ControlEventTouchDragOutside = 1ul << 3,
    ControlEventTouchDragEnter = 1ul << 4,
    ControlEventTouchDragExit = 1ul << 5,
    ControlEventTouchUpInside = 1ul << 6,
    ControlEventTouchUpOutside = 1ul << 7,
    ControlEventTouchCancel = 1ul << 8,
    ControlEventValueChanged = 1ul << 12,
    ControlEventPrimaryActionTriggered = 1ul << 13,
    ControlEventAllTouchEvents = 0x00000FFFul,
    ControlEventAllEvents = 0xFFFFFFFFul,
};

class KRCOMMON_EXPORT Control : public View {
public:
    explicit Control(const Rect& frame = {});
    ~Control() override;

    [[nodiscard]] bool isEnabled() const noexcept { return enabled_; }
    void setEnabled(bool enabled) noexcept { enabled_ = enabled; }
    [[nodiscard]] bool isHighlighted() const noexcept { return highlighted_; }
    void setHighlighted(bool highlighted) noexcept { highlighted_ = highlighted; }
    [[nodiscard]] bool isSelected() const noexcept { return selected_; }
    void setSelected(bool selected) noexcept { selected_ = selected; }
    /// The current state: Disabled when not enabled, plus Highlighted and Selected.
    [[nodiscard]] unsigned state() const noexcept;

    /// Calls `action` on `target` (held weakly) for any of `events`. The action takes
    /// the sender as a pointer to Control or to a class derived from it.
    template <class T, class S>
    void addTarget(const std::shared_ptr<T>& target, void (T::*action)(S*), unsigned long events) {
        actions_.add(target, action, events);
    }
    /// Calls `block` for any of `events`.
    void addAction(std::function<void(Control&)> block, unsigned long events) { actions_.add(std::move(block), events); }
    /// Withdraws `events` from every action of `target` (null: of all targets and blocks).
    void removeTarget(const void* target, unsigned long events) { actions_.remove(target, events); }
    /// Withdraws `events` from one action of `target`.
    template <class T, class S>
    void removeTarget(const std::shared_ptr<T>& target, void (T::*action)(S*), unsigned long events) {
        actions_.remove(target.get(), action, events);
    }
    /// The targets with at least one action, in the order registered.
    [[nodiscard]] std::vector<const void*> allTargets() const { return actions_.targets(); }
    /// The events for which `target` has actions.
    [[nodiscard]] unsigned long allControlEventsOf(const void* target) const { return actions_.eventsOf(target); }

    /// Sends the actions registered for `events` now, as a touch would. Nothing is
    /// sent by a control that is not enabled.
    void sendActionsForControlEvents(unsigned long events);

    /// A whole tap as the user makes it: touch-down, then touch-up-inside. Only
    /// when a touch could reach the control (see View::receivesTouches).
    void simulateTap();

private:
    TargetActions<Control> actions_;
    bool enabled_ = true;
    bool highlighted_ = false;
    bool selected_ = false;
};

}  // namespace krcommon::platform
