#pragma once

// The process-wide serial queue on which the module delivers every callback,
// notification and timer. Jobs always run later, never inside the call that
// posts them. A host either pumps the queue on a thread of its choice (run(),
// runUntil(), drain()) or installs a dispatcher that hands each job to its own
// UI loop (GTK, Qt, an Android looper).

#include <krcommon/platform/core/Export.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace krcommon::platform {

class KRCOMMON_EXPORT MainQueue {
public:
    using Job = std::function<void()>;
    /// Receives each job to run it later on the host's loop, in the order handed over.
    using Dispatcher = std::function<void(Job)>;
    using Clock = std::chrono::steady_clock;

    /// Names a job posted with asyncAfter() so that it can be cancelled. A default
    /// token names nothing.
    class KRCOMMON_EXPORT Token {
    public:
        Token() = default;
        /// Whether the token names a job: true for every token asyncAfter() answers, also once
        /// that job has run or been cancelled.
        [[nodiscard]] bool isValid() const noexcept { return id_ != 0; }

    private:
        friend class MainQueue;
        Token(Clock::time_point due, std::uint64_t id) : due_(due), id_(id) {}
        Clock::time_point due_{};
        std::uint64_t id_ = 0;
    };

    MainQueue() = delete;

    /// Queues `job` to run after every job queued before it. Callable from any thread;
    /// never runs the job before returning. Throws InternalInconsistencyException for an
    /// empty job.
    static void async(Job job);

    /// Queues `job` like async(). While the calling thread holds a WakeBatch, the pumping
    /// thread is woken when the outermost batch ends instead of now, so a burst of posts
    /// costs one wake-up. Meant for code that returns to its batch promptly: a job posted
    /// this way must not be waited for inside the batch. Without a batch this is async().
    static void asyncBatched(Job job);

    /// Marks a burst of asyncBatched() posts on the calling thread (see there). Batches
    /// nest; an async() from the same thread wakes the pump at once, for what it queued
    /// and for everything queued before it.
    class KRCOMMON_EXPORT WakeBatch {
    public:
        WakeBatch() noexcept;
        ~WakeBatch();
        WakeBatch(const WakeBatch&) = delete;
        WakeBatch& operator=(const WakeBatch&) = delete;
    };

    /// Queues `job` to run once `seconds` have passed (a negative or NaN delay counts as
    /// none). Jobs run by due time, jobs due at the same time in the order they were posted.
    /// Throws InternalInconsistencyException for an empty job.
    static Token asyncAfter(double seconds, Job job);
    template <class Rep, class Period>
    static Token asyncAfter(std::chrono::duration<Rep, Period> delay, Job job) {
        return asyncAfter(std::chrono::duration<double>(delay).count(), std::move(job));
    }

    /// Withdraws a job posted with asyncAfter() that has not started yet (also when it is
    /// already due, or handed to the dispatcher but not yet run by it). Answers whether it
    /// withdrew it; false for a job that ran, runs or was cancelled before.
    static bool cancel(const Token& token);

    /// Runs jobs on the calling thread as they fall due until stop() is called. A job
    /// may call run(), runUntil() or drain() itself; the innermost pump on that thread then
    /// runs the following jobs.
    ///
    /// Jobs run one at a time even when several threads pump: a thread that finds another
    /// one inside a job waits for it. An exception escaping a job is not caught: it leaves
    /// this call (and runUntil() or drain()) on the pumping thread; the jobs still queued stay
    /// queued. While a dispatcher is installed the pumps run nothing.
    static void run();

    /// Runs jobs on the calling thread until `predicate` holds or `timeoutSeconds` have
    /// passed, and answers whether it holds. The predicate is checked on the calling thread
    /// first, after every job and at least every 10 ms while idle, so it may also watch state
    /// that other threads change.
    static bool runUntil(const std::function<bool()>& predicate, double timeoutSeconds);

    /// Runs every job that is due now, including those that the jobs it runs post for now
    /// (a job that reposts itself each time keeps it going). Answers how many jobs ran.
    static std::size_t drain();

    /// Makes run() return after the job it is running. When no run() is running, the next
    /// one returns at once. Callable from any thread.
    static void stop();

    /// Hands every job to `dispatcher` instead of the built-in queue: jobs due now at once,
    /// in order; delayed ones when they fall due, from an internal timer thread. The dispatcher
    /// may be called from any thread; it should post the job to one thread's loop, not run it
    /// inside the call, since callers rely on jobs running later and one at a time. nullptr
    /// restores the built-in queue, which keeps the jobs not yet handed over.
    static void setDispatcher(Dispatcher dispatcher);

    /// Whether the calling thread is the main queue's: it is pumping (inside run(), runUntil()
    /// or drain()) or running a main-queue job (the host's thread, with a dispatcher).
    [[nodiscard]] static bool isMainThread() noexcept;
};

}  // namespace krcommon::platform
