#include <krcommon/platform/ui/View.h>

#include <krcommon/platform/core/Exception.h>
#include <krcommon/platform/ui/GestureRecognizer.h>
#include <krcommon/platform/ui/LayoutConstraint.h>

#include <algorithm>
#include <cmath>

namespace krcommon::platform {

View::View(const Rect& frame) : frame_(frame) {}

View::~View() = default;

void View::setFrame(const Rect& frame) {
    if (frame.size != frame_.size) needsLayout_ = true;
    frame_ = frame;
}

void View::addSubview(const std::shared_ptr<View>& view) {
    if (!view) return;
    if (isDescendantOfView(view.get())) {
        throw Exception("NSInvalidArgumentException", "Can't add a view as a subview of itself or of a view inside it");
    }
    if (view->superview().get() == this) {
        // Already here: bring it to the front.
        auto it = std::find(subviews_.begin(), subviews_.end(), view);
        std::rotate(it, it + 1, subviews_.end());
        return;
    }
    view->removeFromSuperview();
    subviews_.push_back(view);
    view->superview_ = weak_from_this();
    needsLayout_ = true;
}

void View::removeFromSuperview() {
    auto parent = superview_.lock();
    superview_.reset();
    if (!parent) return;
    const auto keepAlive = weak_from_this().lock();  // the superview may hold the last reference
    auto& siblings = parent->subviews_;
    std::erase_if(siblings, [this](const std::shared_ptr<View>& v) { return v.get() == this; });
    auto& rules = parent->constraints_;
    std::erase_if(rules, [this](const std::shared_ptr<LayoutConstraint>& c) {
        const bool refersHere = c->firstItem().get() == this || c->secondItem().get() == this;
        if (refersHere) c->installedOn_.reset();
        return refersHere;
    });
    parent->needsLayout_ = true;
}

bool View::isDescendantOfView(const View* view) const noexcept {
    if (!view) return false;
    for (const View* v = this; v;) {
        if (v == view) return true;
        auto parent = v->superview_.lock();
        v = parent.get();
    }
    return false;
}

void View::setAlpha(double alpha) noexcept { alpha_ = std::isnan(alpha) ? 0.0 : std::clamp(alpha, 0.0, 1.0); }

bool View::receivesTouches() const noexcept {
    for (const View* v = this; v;) {
        if (v->hidden_ || !v->userInteractionEnabled_ || v->alpha_ < 0.01) return false;
        auto parent = v->superview_.lock();
        v = parent.get();
    }
    return true;
}

void View::addGestureRecognizer(const std::shared_ptr<GestureRecognizer>& recognizer) {
    if (!recognizer) return;
    if (auto former = recognizer->view()) {
        if (former.get() == this) return;
        former->removeGestureRecognizer(recognizer);
    }
    recognizers_.push_back(recognizer);
    recognizer->view_ = weak_from_this();
}

void View::removeGestureRecognizer(const std::shared_ptr<GestureRecognizer>& recognizer) {
    auto it = std::find(recognizers_.begin(), recognizers_.end(), recognizer);
    if (it == recognizers_.end()) return;
    recognizers_.erase(it);
    recognizer->view_.reset();
}

void View::setTranslatesAutoresizingMaskIntoConstraints(bool translates) {
    translatesMask_ = translates;
    if (auto parent = superview_.lock()) parent->needsLayout_ = true;
}

void View::addConstraint(const std::shared_ptr<LayoutConstraint>& constraint) {
    if (!constraint) return;
    if (auto former = constraint->installedOn_.lock()) {
        if (former.get() == this) return;
        former->removeConstraint(constraint);
    }
    constraints_.push_back(constraint);
    constraint->installedOn_ = weak_from_this();
    needsLayout_ = true;
}

void View::addConstraints(const std::vector<std::shared_ptr<LayoutConstraint>>& constraints) {
    for (const auto& c : constraints) addConstraint(c);
}

void View::removeConstraint(const std::shared_ptr<LayoutConstraint>& constraint) {
    auto it = std::find(constraints_.begin(), constraints_.end(), constraint);
    if (it == constraints_.end()) return;
    constraints_.erase(it);
    constraint->installedOn_.reset();
    needsLayout_ = true;
}

void View::layoutSubviews() { LayoutConstraint::solveConstraints(*this); }

void View::layoutIfNeeded() {
    if (needsLayout_) {
        needsLayout_ = false;
        layoutSubviews();
    }
    // A copy: a pass may add or remove subviews.
    const auto children = subviews_;
    for (const auto& child : children) child->layoutIfNeeded();
}

void View::drawContent(GraphicsContext& /*context*/) const {}

}  // namespace krcommon::platform
