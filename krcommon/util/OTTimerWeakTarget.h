#pragma once

// A repeating timer holds its target strongly, so an object that owns a timer
// aimed at itself would never be freed. OTTimerWeakTarget breaks the cycle:
// the timer is aimed at this small proxy, which holds the real target weakly
// and forwards each tick to it; at the first tick after the target is gone the
// proxy invalidates the timer, which releases the proxy.
//
// Ownership while the timer runs: main queue -> timer -> proxy; the proxy
// refers to the timer and to the target only weakly.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/dispatch/Timer.h>

#include <concepts>
#include <functional>
#include <memory>
#include <mutex>

namespace krcommon {

class KRCOMMON_EXPORT OTTimerWeakTarget : public platform::Object {
public:
    /// The operation called on the target at each tick, with the timer's user
    /// info (nil when none was given), not the timer.
    using Selector = std::function<void(platform::Object& target, const platform::Value& userInfo)>;

    /// Creates a proxy for `target` and `selector`, schedules a main-queue timer
    /// aimed at the proxy's `fire` with `interval`, `userInfo` and `repeats`,
    /// and returns that timer. The target is not kept alive by the timer.
    static std::shared_ptr<platform::Timer> scheduledTimerWithTimeInterval(
        double interval, const std::shared_ptr<platform::Object>& target, Selector selector,
        platform::Value userInfo, bool repeats);

    /// Typed form of the above: calls `(target->*selector)(userInfo)` on a
    /// target of type T.
    template <class T>
        requires std::derived_from<T, platform::Object>
    static std::shared_ptr<platform::Timer> scheduledTimerWithTimeInterval(
        double interval, const std::shared_ptr<T>& target, void (T::*selector)(const platform::Value&),
        platform::Value userInfo, bool repeats) {
        return scheduledTimerWithTimeInterval(
            interval, std::static_pointer_cast<platform::Object>(target),
            Selector([selector](platform::Object& object, const platform::Value& info) {
                // A target replaced by one of another type cannot take the operation.
                if (auto* typed = dynamic_cast<T*>(&object)) (typed->*selector)(info);
            }),
            std::move(userInfo), repeats);
    }

    /// One tick: forwards the timer's user info to the target through the
    /// selector while the target lives; once it is gone, invalidates `timer()`.
    void fire(platform::Timer& timer);

    /// The operation forwarded at each tick.
    [[nodiscard]] Selector selector() const;
    void setSelector(Selector selector);

    /// The timer this proxy drives, held weakly; null once it is gone.
    [[nodiscard]] std::shared_ptr<platform::Timer> timer() const;
    void setTimer(const std::shared_ptr<platform::Timer>& timer);

    /// The real receiver of the ticks, held weakly; null once it is gone.
    [[nodiscard]] std::shared_ptr<platform::Object> target() const;
    void setTarget(const std::shared_ptr<platform::Object>& target);

    OTTimerWeakTarget() = default;
    ~OTTimerWeakTarget() override;

private:
    // Guards the three properties so that a setter on another thread never
    // tears a read; calls are made outside it.
    mutable std::mutex mutex_;
    Selector selector_;
    std::weak_ptr<platform::Timer> timer_;
    std::weak_ptr<platform::Object> target_;
};

}  // namespace krcommon
