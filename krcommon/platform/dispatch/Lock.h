#pragma once

#include <mutex>
#include <string>

namespace krcommon::platform {

/// A named mutex. The name only helps when debugging. It meets the standard's
/// Lockable requirements, so std::lock_guard and std::unique_lock work with it.
template <class Mutex>
class NamedLock {
public:
    explicit NamedLock(std::string name = {}) : name_(std::move(name)) {}
    NamedLock(const NamedLock&) = delete;
    NamedLock& operator=(const NamedLock&) = delete;

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
    Mutex mutex_;
    std::string name_;
};

/// A named, non-recursive lock. Locking it again on the thread that holds it,
/// or unlocking it from another thread, is undefined.
using Lock = NamedLock<std::mutex>;

/// A named lock the holding thread may take again; it is released after as
/// many unlocks as locks.
using RecursiveLock = NamedLock<std::recursive_mutex>;

}  // namespace krcommon::platform
