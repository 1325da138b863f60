#include <krcommon/platform/dispatch/OperationQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace krcommon::platform {

namespace {

// How long a worker waits for work before it ends.
constexpr auto idleTimeout = std::chrono::seconds(2);

// The queue whose worker the calling thread is; a worker serves one queue for its whole life.
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

}  // namespace

struct OperationQueue::Impl {
    mutable std::mutex mutex;
    std::condition_variable workCv;      // workers wait here for something to start
    std::condition_variable finishedCv;  // signalled when the queue becomes empty
    std::deque<std::function<void()>> pending;
    std::unordered_map<std::thread::id, std::thread> workers;
    std::size_t running = 0;
    int maxCount;
    std::string name;
    bool closing = false;  // the OperationQueue is being destroyed

    Impl(int count, std::string queueName) : maxCount(count), name(std::move(queueName)) {}

    std::size_t width() const {
        return maxCount == DefaultMaxConcurrentOperationCount ? defaultWidth() : static_cast<std::size_t>(maxCount);
    }
    bool canStart() const { return !pending.empty() && running < width(); }
    bool isEmpty() const { return pending.empty() && running == 0; }

    static void work(const std::shared_ptr<Impl>& self) {
        ::pthread_setname_np(::pthread_self(), "kr.opqueue");  // as debuggers and top -H show it
        currentQueue = self.get();
        std::unique_lock lock(self->mutex);
        bool timedOut = false;
        for (;;) {
            if (self->canStart()) {
                auto operation = std::move(self->pending.front());
                self->pending.pop_front();
                ++self->running;
                lock.unlock();
                runOperation(std::move(operation));
                lock.lock();
                --self->running;
                if (self->isEmpty()) self->finishedCv.notify_all();
                timedOut = false;
                continue;
            }
            // A worker that cannot start anything may leave: the running ones take what is queued.
            if (self->closing || timedOut) break;
            timedOut = self->workCv.wait_for(lock, idleTimeout) == std::cv_status::timeout;
        }
        // Ending on its own, the worker detaches itself; at destruction the destructor has taken it.
        if (auto it = self->workers.find(std::this_thread::get_id()); it != self->workers.end()) {
            it->second.detach();
            self->workers.erase(it);
        }
    }

    // Starts workers so that every operation that may start now has one. Called with the lock held.
    static void schedule(const std::shared_ptr<Impl>& self) {
        const std::size_t width = self->width();
        const std::size_t startable = self->running < width ? std::min(self->pending.size(), width - self->running) : 0;
        while (self->workers.size() - self->running < startable && self->workers.size() < width) {
            std::thread worker([self] { work(self); });
            const auto id = worker.get_id();
            self->workers.emplace(id, std::move(worker));
        }
    }
};

OperationQueue::OperationQueue(int maxConcurrentOperationCount, std::string name) {
    require(maxConcurrentOperationCount == DefaultMaxConcurrentOperationCount || maxConcurrentOperationCount > 0,
            "maxConcurrentOperationCount == -1 || maxConcurrentOperationCount > 0", __func__);
    impl_ = std::make_shared<Impl>(maxConcurrentOperationCount, std::move(name));
}

OperationQueue::~OperationQueue() {
    const bool fromInside = isCurrent();
    std::vector<std::thread> workers;
    {
        std::unique_lock lock(impl_->mutex);
        if (!fromInside) impl_->finishedCv.wait(lock, [this] { return impl_->isEmpty(); });
        impl_->closing = true;
        for (auto& [id, worker] : impl_->workers) workers.push_back(std::move(worker));
        impl_->workers.clear();
    }
    impl_->workCv.notify_all();
    // From inside, the workers (this thread among them) still have operations to finish.
    for (auto& worker : workers) fromInside ? worker.detach() : worker.join();
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
    {
        std::lock_guard lock(impl_->mutex);
        impl_->maxCount = count;
        Impl::schedule(impl_);
    }
    impl_->workCv.notify_all();
}

void OperationQueue::addOperation(std::function<void()> operation) {
    require(static_cast<bool>(operation), "operation", __func__);
    {
        std::lock_guard lock(impl_->mutex);
        impl_->pending.push_back(std::move(operation));
        Impl::schedule(impl_);
    }
    impl_->workCv.notify_one();
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
    bool wake = false;
    {
        std::lock_guard lock(impl_->mutex);
        --impl_->running;
        if (impl_->isEmpty()) impl_->finishedCv.notify_all();
        // What was added meanwhile found the queue full and started no worker.
        if (impl_->canStart()) {
            Impl::schedule(impl_);
            wake = true;
        }
    }
    if (wake) impl_->workCv.notify_one();
}

bool OperationQueue::isCurrent() const noexcept { return currentQueue == impl_.get(); }

}  // namespace krcommon::platform
