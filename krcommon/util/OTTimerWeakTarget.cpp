#include <krcommon/util/OTTimerWeakTarget.h>

namespace krcommon {

OTTimerWeakTarget::~OTTimerWeakTarget() = default;

std::shared_ptr<platform::Timer> OTTimerWeakTarget::scheduledTimerWithTimeInterval(
    double interval, const std::shared_ptr<platform::Object>& target, Selector selector, platform::Value userInfo,
    bool repeats) {
    auto proxy = std::make_shared<OTTimerWeakTarget>();
    proxy->setTarget(target);
    proxy->setSelector(std::move(selector));
    auto timer = platform::Timer::scheduledTimerWithTimeInterval(
        interval, proxy, &OTTimerWeakTarget::fire, std::move(userInfo), repeats);
    proxy->setTimer(timer);
    return proxy->timer();
}

void OTTimerWeakTarget::fire(platform::Timer& timer) {
    if (const auto target = this->target()) {
        if (const Selector selector = this->selector()) selector(*target, timer.userInfo());
        return;
    }
    // The target is gone: stop the timer, which then lets go of this proxy.
    if (const auto driven = this->timer()) driven->invalidate();
}

OTTimerWeakTarget::Selector OTTimerWeakTarget::selector() const {
    std::lock_guard lock(mutex_);
    return selector_;
}

void OTTimerWeakTarget::setSelector(Selector selector) {
    std::lock_guard lock(mutex_);
    selector_ = std::move(selector);
}

std::shared_ptr<platform::Timer> OTTimerWeakTarget::timer() const {
    std::lock_guard lock(mutex_);
    return timer_.lock();
}

void OTTimerWeakTarget::setTimer(const std::shared_ptr<platform::Timer>& timer) {
    std::lock_guard lock(mutex_);
    timer_ = timer;
}

std::shared_ptr<platform::Object> OTTimerWeakTarget::target() const {
    std::lock_guard lock(mutex_);
    return target_.lock();
}

void OTTimerWeakTarget::setTarget(const std::shared_ptr<platform::Object>& target) {
    std::lock_guard lock(mutex_);
    target_ = target;
}

}  // namespace krcommon
