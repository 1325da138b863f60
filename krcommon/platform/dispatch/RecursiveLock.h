#pragma once

#include <krcommon/platform/core/Export.h>

#include <mutex>
#include <string>

namespace krcommon::platform {

/// A named, recursive mutex. The name only helps when debugging. It meets the
/// standard's Lockable requirements, so std::lock_guard and std::unique_lock work with it.
/// The thread holding it may lock it again; it is released after as many unlocks as locks.
class KRCOMMON_EXPORT RecursiveLock {
public:
    explicit RecursiveLock(std::string name = {});
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    [[nodiscard]] const std::string& name() const noexcept { return name_; }

    /// Blocks until this thread holds the lock (at once if it already does).
    void lock() { mutex_.lock(); }
    /// Releases the lock held by this thread.
    void unlock() { mutex_.unlock(); }
    /// Takes the lock if it is free or already held by this thread; answers whether it did.
    [[nodiscard]] bool tryLock() { return mutex_.try_lock(); }
    /// The standard library's name for tryLock().
    [[nodiscard]] bool try_lock() { return tryLock(); }

private:
    std::recursive_mutex mutex_;
    std::string name_;
};

}  // namespace krcommon::platform
