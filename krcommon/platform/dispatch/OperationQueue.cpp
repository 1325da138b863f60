#include <krcommon/platform/dispatch/OperationQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace krcommon::platform {

namespace {

// How long a pool thread waits for work before it ends.
constexpr auto idleTimeout = std::chrono::seconds(2);
// How long every pool thread may stay busy, with work waiting and nothing started, before
// the pool adds a thread for the waiting work.
constexpr auto stallInterval = std::chrono::milliseconds(50);
// How many times a thread without work yields the processor before it sleeps.
constexpr int spinRounds = 50;
// How many operations of one queue a turn may run while no other queue waits.
constexpr int turnLength = 16;
// Threads the pool may add beyond its width for stalled work.
constexpr std::size_t extraThreadCap = 64;

// The queue whose operation the calling thread is running.
thread_local const void* currentQueue = nullptr;

std::size_t defaultWidth() {
    static const std::size_t width = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 64);
    return width;
}

void require(bool condition, const char* description, const char* function) {
    if (!condition) {
        throw InternalInconsistencyException(std::string("Invalid parameter not satisfying: ") + description, function,
                                             __FILE__, __LINE__);
    }
}

void runOperation(std::function<void()> operation) { operation(); }  // by value: released before relocking

// Whether one of the threads is on a processor or waiting for one (state "R" in
// /proc/self/task/<tid>/stat). A thread whose state cannot be read counts as running.
bool anyRunnable(const std::vector<pid_t>& threads) {
    for (const pid_t tid : threads) {
        std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string text;
        std::getline(stat, text);
        const auto close = text.rfind(')');
        if (close == std::string::npos || close + 2 >= text.size() || text[close + 2] == 'R') return true;
    }
    return false;
}

}  // namespace

namespace {

// What the pool runs: a queue, one operation per turn.
struct Turns {
    virtual ~Turns() = default;
    virtual void runTurn() = 0;
};

// The process-wide threads every operation queue runs on. Never destroyed: its threads are
// detached and may still be ending while the process exits.
class Pool {
public:
    static Pool& shared() {
        static Pool* const pool = new Pool;
        return *pool;
    }

    // Whether turns wait for a thread.
    bool othersWaiting() const noexcept { return waiting_.load(std::memory_order_relaxed) != 0; }

    // Gives `queue` `turns` more turns, each of which starts one of its operations.
    void schedule(std::shared_ptr<Turns> queue, std::size_t turns) {
        std::unique_lock lock(mutex_);
        for (std::size_t i = 0; i < turns; ++i) ready_.push_back(queue);
        waiting_.store(ready_.size(), std::memory_order_relaxed);
        // A thread looking for work between two turns takes one without being woken.
        const std::size_t uncovered = ready_.size() > spinning_ ? ready_.size() - spinning_ : 0;
        if (uncovered == 0) return;
        if (idle_ >= uncovered) {
            lock.unlock();
            uncovered == 1 ? workCv_.notify_one() : workCv_.notify_all();
            return;
        }
        const std::size_t wanted = std::min(uncovered - idle_, width_ > threads_ ? width_ - threads_ : 0);
        for (std::size_t i = 0; i < wanted; ++i) startThread(false);
        if (idle_ > 0) workCv_.notify_all();
        if (threads_ >= width_ && !watching_) {
            watching_ = true;
            startThread(true);
        }
    }

private:
    Pool() : width_(std::max(1U, std::thread::hardware_concurrency())) {}

    // With the lock held.
    void startThread(bool watcher) {
        if (!watcher) ++threads_;
        std::thread([this, watcher] {
            ::pthread_setname_np(::pthread_self(), "kr.opqueue");  // as debuggers and top -H show it
            std::unique_lock lock(mutex_);
            if (watcher && !watch(lock)) return;
            const pid_t tid = ::gettid();
            tids_.push_back(tid);
            work(lock);
            tids_.erase(std::find(tids_.begin(), tids_.end(), tid));
        }).detach();
    }

    // Runs turns until none has come for a while; extra threads end as soon as none waits.
    void work(std::unique_lock<std::mutex>& lock) {
        for (;;) {
            if (!ready_.empty()) {
                auto queue = std::move(ready_.front());
                ready_.pop_front();
                waiting_.store(ready_.size(), std::memory_order_relaxed);
                ++started_;
                // Turns still wait and no thread is free: watch for a stall.
                if (!ready_.empty() && idle_ == 0 && threads_ >= width_ && !watching_) {
                    watching_ = true;
                    startThread(true);
                }
                lock.unlock();
                queue->runTurn();
                queue.reset();
                lock.lock();
                continue;
            }
            if (threads_ > width_) break;
            // One thread at a time looks a little longer before sleeping: turns handed over
            // one after another (a caller and its delegate queue) then need no wake-up.
            if (spinning_ == 0) {
                ++spinning_;
                lock.unlock();
                for (int round = 0; round < spinRounds && waiting_.load(std::memory_order_relaxed) == 0; ++round) {
                    std::this_thread::yield();
                }
                lock.lock();
                --spinning_;
                if (!ready_.empty()) continue;
            }
            ++idle_;
            const bool timedOut = !workCv_.wait_for(lock, idleTimeout, [this] { return !ready_.empty(); });
            --idle_;
            if (timedOut) break;
        }
        --threads_;
    }

    // While every thread is busy and turns wait: when nothing has started for a stall
    // interval and every thread of the pool is blocked (none runnable), becomes a thread of
    // the pool (true). Threads that merely compute keep the pool at its width. Ends when
    // nothing waits any more.
    bool watch(std::unique_lock<std::mutex>& lock) {
        std::uint64_t seen = started_;
        for (;;) {
            watchCv_.wait_for(lock, stallInterval);
            if (ready_.empty() || idle_ > 0 || threads_ < width_) break;
            if (started_ == seen && threads_ < width_ + extraThreadCap) {
                const auto threads = tids_;
                lock.unlock();
                const bool computing = anyRunnable(threads);
                lock.lock();
                if (!computing && started_ == seen && !ready_.empty() && idle_ == 0) {
                    watching_ = false;
                    ++threads_;
                    return true;
                }
            }
            seen = started_;
        }
        watching_ = false;
        return false;
    }

    std::mutex mutex_;
    std::condition_variable workCv_;   // idle threads wait here for a turn
    std::condition_variable watchCv_;  // only times the watcher's intervals
    std::deque<std::shared_ptr<Turns>> ready_;
    std::vector<pid_t> tids_;  // the pool's threads, for the watcher's look at their states
    const std::size_t width_;
    std::size_t threads_ = 0;  // threads of the pool, the watcher not counted
    std::size_t idle_ = 0;
    std::size_t spinning_ = 0;                // threads looking for a turn before they sleep
    std::atomic<std::size_t> waiting_{0};     // ready_.size(), readable without the lock
    std::uint64_t started_ = 0;  // turns taken, to tell a stalled pool from a busy one
    bool watching_ = false;
};

}  // namespace

struct OperationQueue::Impl final : Turns, std::enable_shared_from_this<OperationQueue::Impl> {
    mutable std::mutex mutex;
    std::condition_variable finishedCv;  // signalled when the queue becomes empty
    std::deque<std::function<void()>> pending;
    std::size_t running = 0;    // operations running, inline claims included
    std::size_t scheduled = 0;  // turns this queue holds in the pool's ready list
    int maxCount;
    std::string name;
    bool closing = false;  // the OperationQueue is being destroyed

    Impl(int count, std::string queueName) : maxCount(count), name(std::move(queueName)) {}

    std::size_t width() const {
        return maxCount == DefaultMaxConcurrentOperationCount ? defaultWidth() : static_cast<std::size_t>(maxCount);
    }
    bool isEmpty() const { return pending.empty() && running == 0; }

    // Takes turns in the pool for every queued operation that may start now. With the lock held.
    void refill();
    // On a pool thread: starts the first queued operation, the turn it was given.
    void runTurn() override;
};

void OperationQueue::Impl::refill() {
    const std::size_t limit = width();
    const std::size_t taken = running + scheduled;
    if (taken >= limit || scheduled >= pending.size()) return;
    const std::size_t turns = std::min(limit - taken, pending.size() - scheduled);
    scheduled += turns;
    Pool::shared().schedule(shared_from_this(), turns);
}

void OperationQueue::Impl::runTurn() {
    std::unique_lock lock(mutex);
    --scheduled;
    // A turn runs one operation, and goes on with the next ones of this queue while no other
    // queue waits for a thread (a few at most, so that a queue arriving meanwhile soon gets one).
    for (int ran = 0; !pending.empty() && running + scheduled < width() && ran < turnLength; ++ran) {
        if (ran > 0 && Pool::shared().othersWaiting()) break;
        auto operation = std::move(pending.front());
        pending.pop_front();
        ++running;
        lock.unlock();
        const void* previous = currentQueue;
        currentQueue = this;
        runOperation(std::move(operation));
        currentQueue = previous;
        lock.lock();
        --running;
    }
    if (isEmpty()) finishedCv.notify_all();
    refill();
}

OperationQueue::OperationQueue(int maxConcurrentOperationCount, std::string name) {
    require(maxConcurrentOperationCount == DefaultMaxConcurrentOperationCount || maxConcurrentOperationCount > 0,
            "maxConcurrentOperationCount == -1 || maxConcurrentOperationCount > 0", __func__);
    impl_ = std::make_shared<Impl>(maxConcurrentOperationCount, std::move(name));
}

OperationQueue::~OperationQueue() {
    std::unique_lock lock(impl_->mutex);
    impl_->closing = true;
    // From inside, the pool still runs what is queued; it holds the queue's state meanwhile.
    if (!isCurrent()) impl_->finishedCv.wait(lock, [this] { return impl_->isEmpty(); });
}

std::string OperationQueue::name() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->name;
}

void OperationQueue::setName(std::string name) {
    std::lock_guard lock(impl_->mutex);
    impl_->name = std::move(name);
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->maxCount;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    require(count == DefaultMaxConcurrentOperationCount || count > 0, "count == -1 || count > 0", __func__);
    std::lock_guard lock(impl_->mutex);
    impl_->maxCount = count;
    impl_->refill();
}

void OperationQueue::addOperation(std::function<void()> operation) {
    require(static_cast<bool>(operation), "operation", __func__);
    std::lock_guard lock(impl_->mutex);
    impl_->pending.push_back(std::move(operation));
    impl_->refill();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    if (isCurrent()) {
        throw InternalInconsistencyException("waitUntilAllOperationsAreFinished called from the queue's own operation",
                                             __func__, __FILE__, __LINE__);
    }
    std::unique_lock lock(impl_->mutex);
    impl_->finishedCv.wait(lock, [this] { return impl_->isEmpty(); });
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->pending.size() + impl_->running;
}

bool OperationQueue::claimIfIdle(const void*& previous) {
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->closing || !impl_->pending.empty() || impl_->running >= impl_->width()) return false;
        ++impl_->running;
    }
    previous = currentQueue;
    currentQueue = impl_.get();
    return true;
}

void OperationQueue::releaseClaim(const void* previous) noexcept {
    currentQueue = previous;
    std::lock_guard lock(impl_->mutex);
    --impl_->running;
    if (impl_->isEmpty()) impl_->finishedCv.notify_all();
    // What was added meanwhile may have found the queue full and taken no turn.
    impl_->refill();
}

bool OperationQueue::isCurrent() const noexcept { return currentQueue == impl_.get(); }

}  // namespace krcommon::platform
