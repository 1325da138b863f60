#include <krcommon/platform/dispatch/Timer.h>

#include <krcommon/platform/core/Exception.h>

#include <chrono>
#include <cmath>

namespace krcommon::platform {

namespace {

using Clock = MainQueue::Clock;

// The shortest interval a timer runs at, as the platform clamps it.
constexpr double kMinimumInterval = 0.0001;

Clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

[[noreturn]] void invalidParameter(const char* what, std::uint64_t line) {
    throw InternalInconsistencyException(std::string("Invalid parameter not satisfying: ") + what,
                                         "Timer::scheduledTimerWithTimeInterval", __FILE__, line);
}

}  // namespace

Timer::Timer(Passkey, double interval, Block work, Value userInfo, bool repeats)
    : interval_(std::isnan(interval) || interval <= 0 ? kMinimumInterval : interval),
      repeats_(repeats),
      userInfo_(std::move(userInfo)),
      work_(std::make_shared<const Block>(std::move(work))) {}

Timer::~Timer() = default;

std::shared_ptr<Timer> Timer::scheduledTimerWithTimeInterval(double interval, std::shared_ptr<Object> target,
                                                             Selector selector, Value userInfo, bool repeats) {
    if (!target) invalidParameter("target", __LINE__);
    if (!selector) invalidParameter("selector", __LINE__);
    // The work owns the target: releasing the work on invalidation releases it.
    Block work = [target = std::move(target), selector = std::move(selector)](Timer& timer) {
        selector(*target, timer);
    };
    return schedule(interval, std::move(work), std::move(userInfo), repeats);
}

std::shared_ptr<Timer> Timer::scheduledTimerWithTimeInterval(double interval, bool repeats, Block block) {
    if (!block) invalidParameter("block", __LINE__);
    return schedule(interval, std::move(block), Value(), repeats);
}

std::shared_ptr<Timer> Timer::schedule(double interval, Block work, Value userInfo, bool repeats) {
    auto timer = std::make_shared<Timer>(Passkey{}, interval, std::move(work), std::move(userInfo), repeats);
    std::lock_guard lock(timer->mutex_);
    timer->scheduleLocked(Clock::now() + toDuration(timer->interval_));
    return timer;
}

void Timer::scheduleLocked(Clock::time_point due) {
    nextFire_ = due;
    const double delay = std::chrono::duration<double>(due - Clock::now()).count();
    // The queued job is what keeps a running timer alive.
    token_ = MainQueue::asyncAfter(delay, [self = shared_from_this()] { self->tick(); });
}

void Timer::tick() {
    std::shared_ptr<const Block> work;
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        token_ = {};
        work = work_;
    }
    (*work)(*this);
    if (!repeats_) {
        invalidate();
        return;
    }
    std::lock_guard lock(mutex_);
    if (!valid_ || token_.isValid()) return;  // invalidated, or rescheduled, during the tick
    // Keep to the original schedule; skip the ticks that are already past.
    const auto period = toDuration(interval_);
    auto due = nextFire_ + period;
    if (const auto now = Clock::now(); due <= now && period.count() > 0) {
        due += ((now - due) / period + 1) * period;
    }
    scheduleLocked(due);
}

void Timer::fire() {
    std::shared_ptr<const Block> work;
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        work = work_;
    }
    (*work)(*this);
    if (!repeats_) invalidate();
}

void Timer::invalidate() {
    // Whatever the caller holds, the timer outlives this call even when the
    // cancelled job held the last reference to it.
    const auto self = weak_from_this().lock();
    MainQueue::Token token;
    std::shared_ptr<const Block> work;
    {
        std::lock_guard lock(mutex_);
        if (!valid_) return;
        valid_ = false;
        token = token_;
        token_ = {};
        work = std::move(work_);
    }
    // Outside the lock: releasing the work may free the target, whose
    // destructor may well call back into this timer.
    if (token.isValid()) MainQueue::cancel(token);
    work.reset();
}

bool Timer::isValid() const {
    std::lock_guard lock(mutex_);
    return valid_;
}

}  // namespace krcommon::platform
