#pragma once

// Timers on the main run loop. A scheduled timer fires on the main queue after
// its interval, once or repeatedly, until it is invalidated. While it is valid
// the main queue keeps the timer alive and the timer keeps its target alive;
// invalidating it releases both, so a caller needs to keep the returned timer
// only to stop it early.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <concepts>
#include <functional>
#include <memory>
#include <mutex>

namespace krcommon::platform {

class KRCOMMON_EXPORT Timer final : public Object, public std::enable_shared_from_this<Timer> {
public:
    /// The operation called at each tick on the timer's target, with the timer.
    using Selector = std::function<void(Object& target, Timer& timer)>;
    /// The work of a block-based timer, called with the timer at each tick.
    using Block = std::function<void(Timer& timer)>;

    /// Schedules a timer on the main queue that calls `selector(*target, timer)`
    /// every `interval` seconds (once, when `repeats` is false). The timer holds
    /// `target` strongly until it is invalidated. An interval of 0 or less (or
    /// NaN) counts as 0.1 ms. A non-repeating timer is invalidated right after
    /// its tick. A repeating one keeps its schedule: ticks missed while the main
    /// queue was busy are skipped, not made up. Throws
    /// InternalInconsistencyException for a null target or an empty selector.
    static std::shared_ptr<Timer> scheduledTimerWithTimeInterval(double interval, std::shared_ptr<Object> target,
                                                                 Selector selector, Value userInfo, bool repeats);

    /// Typed form of the above: calls `(target->*selector)(timer)`.
    template <class T>
        requires std::derived_from<T, Object>
    static std::shared_ptr<Timer> scheduledTimerWithTimeInterval(double interval, std::shared_ptr<T> target,
                                                                 void (T::*selector)(Timer&), Value userInfo,
                                                                 bool repeats) {
        return scheduledTimerWithTimeInterval(
            interval, std::shared_ptr<Object>(std::move(target)),
            Selector([selector](Object& object, Timer& timer) { (static_cast<T&>(object).*selector)(timer); }),
            std::move(userInfo), repeats);
    }

    /// Schedules a timer that calls `block` at each tick; it has no target.
    /// Throws InternalInconsistencyException for an empty block.
    static std::shared_ptr<Timer> scheduledTimerWithTimeInterval(double interval, bool repeats, Block block);

    /// Runs the tick now, on the calling thread, if the timer is valid; the
    /// schedule is left as it is. A non-repeating timer is then invalidated.
    void fire();

    /// Stops the timer for good and releases its target and work. Safe to call
    /// from a tick of the timer itself, from any thread and more than once.
    void invalidate();

    /// Whether the timer will still fire.
    [[nodiscard]] bool isValid() const;

    /// The repeat interval in seconds, or 0 for a non-repeating timer.
    [[nodiscard]] double timeInterval() const noexcept { return repeats_ ? interval_ : 0.0; }

    /// The user info given at scheduling (nil when none was given).
    [[nodiscard]] const Value& userInfo() const noexcept { return userInfo_; }

    ~Timer() override;
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

private:
    struct Passkey {};

public:
    Timer(Passkey, double interval, Block work, Value userInfo, bool repeats);

private:
    static std::shared_ptr<Timer> schedule(double interval, Block work, Value userInfo, bool repeats);
    void tick();
    void scheduleLocked(MainQueue::Clock::time_point due);

    const double interval_;
    const bool repeats_;
    const Value userInfo_;

    mutable std::mutex mutex_;
    bool valid_ = true;
    std::shared_ptr<const Block> work_;  // copied for each tick so invalidation during it is safe
    MainQueue::Token token_;
    MainQueue::Clock::time_point nextFire_{};
};

}  // namespace krcommon::platform
