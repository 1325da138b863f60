#pragma once

// Notifications within the process: observers register a block for a name (or
// for every name) and posts call the matching blocks synchronously, on the
// posting thread, in the order the observers registered.

#include <krcommon/platform/core/Export.h>
#include <krcommon/platform/core/Value.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace krcommon::platform {

/// What is posted: a name, an optional sender object (nil when none) and a
/// user-info dictionary (empty when none).
class KRCOMMON_EXPORT Notification {
public:
    explicit Notification(std::string name, Value object = {}, Dictionary userInfo = {})
        : name_(std::move(name)), object_(std::move(object)), userInfo_(std::move(userInfo)) {}

    [[nodiscard]] const std::string& name() const noexcept { return name_; }
    [[nodiscard]] const Value& object() const noexcept { return object_; }
    [[nodiscard]] const Dictionary& userInfo() const noexcept { return userInfo_; }

private:
    std::string name_;
    Value object_;
    Dictionary userInfo_;
};

/// A dispatch table of observers. Every member may be called from any thread.
class KRCOMMON_EXPORT NotificationCenter {
public:
    using Block = std::function<void(const Notification&)>;

    /// Stands for one registration; hand it to removeObserver(). The center
    /// keeps the registration whether or not the token is kept: dropping the
    /// token does not unregister (as on the mobile platform).
    class KRCOMMON_EXPORT Token : public Object {
    public:
        ~Token() override;

    protected:
        Token() = default;
    };

    /// The process's center, created on first use.
    static NotificationCenter& defaultCenter();

    /// An empty center of its own (the default center is the one the library posts on).
    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Registers `block` for notifications named `name`, or for all of them
    /// when `name` is nullopt, until removeObserver(). A registration made
    /// while a post is delivering does not receive that post.
    std::shared_ptr<Token> addObserverForName(std::optional<std::string> name, Block block);

    /// Ends a registration of this center; tokens of other centers, nullptr and
    /// tokens already removed are ignored. Once this returns the block is never
    /// started again, and any call of it running on another thread has
    /// finished. Two exceptions, both to avoid waiting forever: a call running
    /// on the calling thread (removal from inside the block itself) is not
    /// waited for, and neither is one that is, directly or through other
    /// removals, waiting for the calling thread's own block to finish.
    void removeObserver(const std::shared_ptr<Token>& token);

    /// Calls, on the calling thread and before returning, the block of every
    /// observer registered for `name` or for all names, in registration order.
    /// Blocks may post, add and remove observers. An exception thrown by a block
    /// propagates to the poster; the remaining observers are then skipped.
    void postNotificationName(std::string name, Value object = {}, Dictionary userInfo = {});
    /// The same for a notification already made.
    void postNotification(const Notification& notification);

private:
    struct Observer;
    using ObserverList = std::vector<std::shared_ptr<Observer>>;

    std::mutex mutex_;
    // Replaced, never changed in place, so a post can deliver from a snapshot
    // taken in O(1) under the lock.
    std::shared_ptr<const ObserverList> observers_;
};

}  // namespace krcommon::platform
