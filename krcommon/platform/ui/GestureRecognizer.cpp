#include <krcommon/platform/ui/GestureRecognizer.h>

#include <krcommon/platform/ui/View.h>

namespace krcommon::platform {

GestureRecognizer::GestureRecognizer() = default;
GestureRecognizer::~GestureRecognizer() = default;

void GestureRecognizer::setState(GestureRecognizerState state) {
    state_ = state;
    if (state == GestureRecognizerState::Possible || state == GestureRecognizerState::Failed || !enabled_) return;
    const auto view = view_.lock();
    if (!view || !view->receivesTouches()) return;
    actions_.send(*this, kAction);
}

TapGestureRecognizer::TapGestureRecognizer() = default;
TapGestureRecognizer::~TapGestureRecognizer() = default;

void TapGestureRecognizer::simulateTap() {
    setState(GestureRecognizerState::Ended);
    setState(GestureRecognizerState::Possible);
}

}  // namespace krcommon::platform
