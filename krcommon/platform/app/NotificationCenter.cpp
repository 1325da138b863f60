#include <krcommon/platform/app/NotificationCenter.h>

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <utility>

namespace krcommon::platform {

struct NotificationCenter::Observer final : NotificationCenter::Token {
    Observer(const NotificationCenter* center, std::optional<std::string> name, Block block)
        : owner(center), name(std::move(name)), block(std::move(block)) {}

    const NotificationCenter* const owner;  // compared, never followed
    const std::optional<std::string> name;
    const Block block;
    // Guarded by the run registry's mutex.
    bool removed = false;
    std::vector<std::thread::id> runners;  // one entry per call in progress
};

namespace {

// Which threads are running which observers' blocks, and which removals are
// waiting for them. One registry for every center, so that waits across
// centers are seen too when looking for a wait cycle.
struct RunRegistry {
    std::mutex mutex;
    std::condition_variable callEnded;
    std::vector<std::pair<std::thread::id, const void*>> waiting;  // thread, observer it waits for
};

RunRegistry& registry() {
    static RunRegistry instance;
    return instance;
}

}  // namespace

NotificationCenter::Token::~Token() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::NotificationCenter() : observers_(std::make_shared<const ObserverList>()) {}

NotificationCenter::~NotificationCenter() = default;

std::shared_ptr<NotificationCenter::Token> NotificationCenter::addObserverForName(std::optional<std::string> name,
                                                                                  Block block) {
    auto observer = std::make_shared<Observer>(this, std::move(name), std::move(block));
    std::lock_guard lock(mutex_);
    auto next = std::make_shared<ObserverList>();
    next->reserve(observers_->size() + 1);
    *next = *observers_;
    next->push_back(observer);
    observers_ = std::move(next);
    return observer;
}

void NotificationCenter::removeObserver(const std::shared_ptr<Token>& token) {
    auto observer = std::dynamic_pointer_cast<Observer>(token);
    if (!observer || observer->owner != this) return;
    {
        std::lock_guard lock(mutex_);
        const auto it = std::find(observers_->begin(), observers_->end(), observer);
        if (it != observers_->end()) {
            auto next = std::make_shared<ObserverList>();
            next->reserve(observers_->size() - 1);
            next->insert(next->end(), observers_->begin(), it);
            next->insert(next->end(), it + 1, observers_->end());
            observers_ = std::move(next);
        }
    }

    auto& runs = registry();
    std::unique_lock lock(runs.mutex);
    observer->removed = true;  // from here no call starts
    const auto self = std::this_thread::get_id();
    const auto runningElsewhere = [&] {
        return std::any_of(observer->runners.begin(), observer->runners.end(),
                           [&](std::thread::id t) { return t != self; });
    };
    if (!runningElsewhere()) return;

    // Waiting is safe unless some thread running the block is itself waiting,
    // perhaps through a chain of removals, for a block this thread is running.
    std::vector<std::thread::id> pending;
    for (const auto t : observer->runners)
        if (t != self) pending.push_back(t);
    std::vector<std::thread::id> seen;
    while (!pending.empty()) {
        const auto t = pending.back();
        pending.pop_back();
        if (t == self) return;
        if (std::find(seen.begin(), seen.end(), t) != seen.end()) continue;
        seen.push_back(t);
        for (const auto& [waiter, target] : runs.waiting) {
            if (waiter != t) continue;
            const auto& busy = static_cast<const Observer*>(target)->runners;
            pending.insert(pending.end(), busy.begin(), busy.end());
        }
    }

    runs.waiting.emplace_back(self, observer.get());
    runs.callEnded.wait(lock, [&] { return !runningElsewhere(); });
    runs.waiting.erase(std::find(runs.waiting.begin(), runs.waiting.end(),
                                 std::pair<std::thread::id, const void*>(self, observer.get())));
}

void NotificationCenter::postNotificationName(std::string name, Value object, Dictionary userInfo) {
    postNotification(Notification(std::move(name), std::move(object), std::move(userInfo)));
}

void NotificationCenter::postNotification(const Notification& notification) {
    std::shared_ptr<const ObserverList> snapshot;
    {
        std::lock_guard lock(mutex_);
        snapshot = observers_;
    }
    auto& runs = registry();
    const auto self = std::this_thread::get_id();
    for (const auto& observer : *snapshot) {
        if (observer->name && *observer->name != notification.name()) continue;
        {
            std::lock_guard lock(runs.mutex);
            if (observer->removed) continue;
            observer->runners.push_back(self);
        }
        // Ends the call's record even when the block throws.
        struct CallRecord {
            RunRegistry& runs;
            Observer& observer;
            std::thread::id self;
            ~CallRecord() {
                std::lock_guard lock(runs.mutex);
                observer.runners.erase(std::find(observer.runners.begin(), observer.runners.end(), self));
                if (!runs.waiting.empty()) runs.callEnded.notify_all();
            }
        } record{runs, *observer, self};
        observer->block(notification);
    }
}

}  // namespace krcommon::platform
