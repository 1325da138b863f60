#pragma once

#include <krcommon/platform/core/Export.h>

#include <mutex>
#include <string>

namespace krcommon::platform {

/// A named, non-recursive mutex. The name only helps when debugging. It meets the
/// standard's Lockable requirements, so std::lock_guard and std::unique_lock work with it.
/// Locking it again on the thread that holds it, or unlocking it from another thread, is undefined.
class KRCOMMON_EXPORT Lock {
public:
    explicit Lock(std::string name = {});
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    [[nodiscard]] const std::string& name() const noexcept { return name_; }

    /// Blocks until this thread holds the lock.
    void lock() { mutex_.lock(); }
    /// Releases the lock held by this thread.
    void unlock() { mutex_.unlock(); }
    /// Takes the lock if it is free right now; answers whether it did.
    [[nodiscard]] bool tryLock() { return mutex_.try_lock(); }
    /// The standard library's name for tryLock().
    [[nodiscard]] bool try_lock() { return tryLock(); }

private:
    std::mutex mutex_;
    std::string name_;
};

}  // namespace krcommon::platform
