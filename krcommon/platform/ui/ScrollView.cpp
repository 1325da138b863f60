#include <krcommon/platform/ui/ScrollView.h>

namespace krcommon::platform {

ScrollViewDelegate::~ScrollViewDelegate() = default;
ScrollViewDidScrollDelegate::~ScrollViewDidScrollDelegate() = default;

ScrollView::ScrollView(const Rect& frame) : View(frame) { setClipsToBounds(true); }
ScrollView::~ScrollView() = default;

void ScrollView::setContentOffset(Point offset) {
    if (offset == contentOffset()) return;
    setBoundsOrigin(offset);
    if (auto listener = std::dynamic_pointer_cast<ScrollViewDidScrollDelegate>(delegate())) {
        listener->scrollViewDidScroll(*this);
    }
}

}  // namespace krcommon::platform
