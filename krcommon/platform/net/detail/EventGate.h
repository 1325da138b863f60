#pragma once

// The road from a session's transfers to its delegate: events wait in one
// queue per session and run on the delegate's operation queue, one at a time
// and in order. A task's events after its response wait behind that
// response's answer, and the bytes of a body waiting here are counted so that
// the transfer producing them can be paused.

#include <krcommon/platform/dispatch/OperationQueue.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace krcommon::platform::detail {

/// Holds back a task's later events (data, download, completion) while its delegate has not
/// answered the response. The transfer itself goes on; if the answer is Cancel, the held
/// data is dropped and the completion says cancelled.
struct ResponseGate {
    enum class State { Waiting, Releasing, Open, Cancelled };
    std::mutex mutex;
    State state = State::Waiting;
    std::vector<std::function<void(bool cancelled)>> parked;  // in arrival order
};

/// The body bytes of one transfer that wait for the delegate. The engine adds what it
/// queues and pauses the transfer past pauseAbove; the delegate queue releases what it has
/// delivered (or dropped), and the release that brings the count back to resumeBelow
/// while the transfer is paused says so, once.
struct BodyFlow {
    static constexpr std::size_t pauseAbove = std::size_t{4} << 20;
    static constexpr std::size_t resumeBelow = std::size_t{1} << 20;

    std::atomic<std::size_t> queued{0};
    std::atomic<bool> paused{false};

    /// On the engine: whether `incoming` more bytes should wait for the delegate to catch up.
    /// When it answers true, the transfer must pause; a release will then say when to resume.
    bool shouldPause(std::size_t incoming) noexcept {
        if (queued.load() + incoming <= pauseAbove) return false;
        paused.store(true);
        // Checked again after the flag is up: a release that came in between did not see it.
        if (queued.load() + incoming > pauseAbove) return true;
        paused.store(false);
        return false;
    }
    /// On any thread: `bytes` have been delivered or dropped. True when the transfer is
    /// to resume now.
    bool release(std::size_t bytes) noexcept {
        const std::size_t left = queued.fetch_sub(bytes) - bytes;
        return left <= resumeBelow && paused.exchange(false);
    }
};

/// One session's events for its delegate queue.
class EventQueue : public std::enable_shared_from_this<EventQueue> {
public:
    using Event = std::function<void()>;
    using TaskEvent = std::function<void(bool cancelled)>;

    explicit EventQueue(std::shared_ptr<OperationQueue> queue) : queue_(std::move(queue)) {}

    [[nodiscard]] const std::shared_ptr<OperationQueue>& queue() const noexcept { return queue_; }

    /// Queues `event` behind everything waiting. With `runSoon` false the delegate queue is not
    /// asked to run it until schedule() is called: a transfer round hands over all its events
    /// at its end, with one wake-up of the delegate queue.
    void post(Event event, bool runSoon = true) { enqueue(Entry{std::move(event), {}, {}}, false, runSoon); }
    /// Queues `event` ahead of everything waiting, to run soon: for a question the engine waits on.
    void postFirst(Event event) { enqueue(Entry{std::move(event), {}, {}}, true, true); }
    /// Queues a task's event; when `gate` is set, the event runs only once the gate's response
    /// has been answered (with cancelled = true when the answer refused it).
    void postForTask(const std::shared_ptr<ResponseGate>& gate, TaskEvent event, bool runSoon = true) {
        enqueue(Entry{{}, std::move(event), gate}, false, runSoon);
    }
    /// Asks the delegate queue to run what waits, unless it is already asked to.
    void schedule();

    /// The delegate answered the response behind `gate`: what the gate held runs (allowed) or
    /// is told it was cancelled, in order. False when the gate had been answered before.
    bool answer(const std::shared_ptr<ResponseGate>& gate, bool allow);

    /// Nothing more runs: waiting events are dropped, later ones refused. Dropped events are
    /// destroyed on the calling thread, outside any lock.
    void stop();

private:
    struct Entry {
        Event plain;
        TaskEvent forTask;
        std::shared_ptr<ResponseGate> gate;
    };
    void enqueue(Entry entry, bool first, bool runSoon);
    void drain();
    static void run(Entry& entry);

    const std::shared_ptr<OperationQueue> queue_;
    std::mutex mutex_;
    std::deque<Entry> entries_;
    bool scheduled_ = false;  // a drain is queued or running
    bool stopped_ = false;
};

}  // namespace krcommon::platform::detail
