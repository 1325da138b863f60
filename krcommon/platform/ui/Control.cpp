#include <krcommon/platform/ui/Control.h>

namespace krcommon::platform {

Control::Control(const Rect& frame) : View(frame) {}
Control::~Control() = default;

unsigned Control::state() const noexcept {
    unsigned s = ControlStateNormal;
    if (!enabled_) s |= ControlStateDisabled;
    if (highlighted_) s |= ControlStateHighlighted;
    if (selected_) s |= ControlStateSelected;
    return s;
}

void Control::sendActionsForControlEvents(unsigned long events) {
    if (!enabled_) return;
    const auto keepAlive = weak_from_this().lock();  // an action may drop the last reference
    actions_.send(*this, events);
}

void Control::simulateTap() {
    if (!enabled_ || !receivesTouches()) return;
    setHighlighted(true);
    sendActionsForControlEvents(ControlEventTouchDown);
    setHighlighted(false);
    sendActionsForControlEvents(ControlEventTouchUpInside);
}

}  // namespace krcommon::platform
