#pragma once

#include <krcommon/platform/core/Export.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace krcommon::platform {

/// Runs operations on worker threads, at most maxConcurrentOperationCount() at a time and
/// started in the order they were added; with a count of 1 the queue is serial (strictly
/// FIFO, one operation at a time).
///
/// A queue is an ordering and a width, not a thread: every queue of the process runs on one
/// shared pool of worker threads, as wide as the processor count, started when work arrives
/// and ended after a while without any. Queues with work take turns, one operation each
/// while another queue waits for a thread, so a long backlog on one queue does not starve
/// another. Operations that block are allowed: when work is waiting, no operation has
/// started for a short while (about 50 ms) and every pool thread is blocked rather than
/// computing, the pool starts one more thread, up to a hard cap of 64 beyond its width, so
/// that operations waiting on each other across queues cannot stall the process for good.
/// Such extra threads end as soon as they find nothing to do.
///
/// Usually held by std::shared_ptr. All members are safe to call from any thread. The
/// destructor waits until every operation added has finished; when the last reference is
/// dropped from inside one of the queue's own operations it does not wait: the remaining
/// operations still run. It never joins a thread.
///
/// An exception escaping an operation ends the process (std::terminate), as on any thread.
class KRCOMMON_EXPORT OperationQueue {
public:
    /// The count that lets the system choose: the number of hardware threads, 2 to 64.
    static constexpr int DefaultMaxConcurrentOperationCount = -1;

    /// Throws InternalInconsistencyException unless `maxConcurrentOperationCount` is -1 or positive.
    explicit OperationQueue(int maxConcurrentOperationCount = DefaultMaxConcurrentOperationCount,
                            std::string name = {});
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    /// A label for the caller's own use, "" unless given. The pool's threads are named
    /// "kr.opqueue" whatever it is.
    [[nodiscard]] std::string name() const;
    void setName(std::string name);

    /// The count as set: DefaultMaxConcurrentOperationCount stays -1 rather than the width it
    /// stands for.
    [[nodiscard]] int maxConcurrentOperationCount() const;
    /// Changes the width for operations started from now on; running ones are not affected.
    /// Throws InternalInconsistencyException unless `count` is -1 or positive.
    void setMaxConcurrentOperationCount(int count);

    /// Queues `operation` to run on a pool thread. Throws InternalInconsistencyException
    /// for an empty operation.
    void addOperation(std::function<void()> operation);

    /// Runs `operation` at once on the calling thread, as one of this queue's operations,
    /// when the queue could start it now without passing anything queued before it: nothing
    /// waits and fewer than maxConcurrentOperationCount() operations run. While it runs,
    /// isCurrent() is true on the calling thread and it counts in operationCount().
    /// Otherwise returns false without running it.
    ///
    /// For a producer that would otherwise hand its work to an idle queue and wait for a
    /// worker to wake. An exception escaping `operation` ends the process, as on a worker.
    template <class Operation>
    bool runIfIdle(Operation&& operation) {
        const void* previous = nullptr;
        if (!claimIfIdle(previous)) return false;
        [&]() noexcept { operation(); }();
        releaseClaim(previous);
        return true;
    }

    /// Blocks until no operation is queued or running (including ones added meanwhile).
    /// Throws InternalInconsistencyException when called from one of this queue's operations,
    /// which would wait for itself.
    void waitUntilAllOperationsAreFinished();

    /// Operations queued or running.
    [[nodiscard]] std::size_t operationCount() const;

    /// Whether the calling thread is running one of this queue's operations.
    [[nodiscard]] bool isCurrent() const noexcept;

private:
    bool claimIfIdle(const void*& previous);
    void releaseClaim(const void* previous) noexcept;

    struct Impl;
    std::shared_ptr<Impl> impl_;  // shared with the pool, which may run its operations after this object is gone
};

}  // namespace krcommon::platform
