// Operation queues on the shared pool against the plainest alternative: one std::thread
// serving a deque under a mutex and a condition variable.
#include <krcommon/platform/dispatch/OperationQueue.h>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

using krcommon::platform::OperationQueue;

namespace {

// The baseline: a dedicated worker thread with its own queue.
class PlainWorker {
public:
    PlainWorker() : thread_([this] { run(); }) {}
    ~PlainWorker() {
        { std::lock_guard lock(mutex_); stopping_ = true; }
        cv_.notify_one();
        thread_.join();
    }
    void add(std::function<void()> job) {
        { std::lock_guard lock(mutex_); jobs_.push_back(std::move(job)); }
        cv_.notify_one();
    }
    void waitUntilEmpty() {
        std::unique_lock lock(mutex_);
        idleCv_.wait(lock, [this] { return jobs_.empty() && !busy_; });
    }

private:
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            busy_ = true;
            lock.unlock();
            job();
            lock.lock();
            busy_ = false;
            if (jobs_.empty()) idleCv_.notify_all();
        }
    }
    std::mutex mutex_;
    std::condition_variable cv_, idleCv_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false, stopping_ = false;
    std::thread thread_;
};

// One job at a time: the caller hands it over and waits until it has run.
template <class Queue, class Add>
void roundTrips(benchmark::State& state, Queue& queue, Add add) {
    std::mutex mutex;
    std::condition_variable cv;
    std::uint64_t ran = 0, sent = 0;
    for (auto _ : state) {
        ++sent;
        add(queue, [&] {
            { std::lock_guard lock(mutex); ++ran; }
            cv.notify_one();
        });
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return ran == sent; });
    }
}

void KR_QueueRoundTrip(benchmark::State& state) {
    OperationQueue queue(1);
    roundTrips(state, queue, [](OperationQueue& q, auto job) { q.addOperation(job); });
}
BENCHMARK(KR_QueueRoundTrip)->UseRealTime();

void BASE_QueueRoundTrip(benchmark::State& state) {
    PlainWorker worker;
    roundTrips(state, worker, [](PlainWorker& w, auto job) { w.add(job); });
}
BENCHMARK(BASE_QueueRoundTrip)->UseRealTime();

// A burst of N small jobs on a serial queue, then waiting for all of them.
void KR_QueueBurst(benchmark::State& state) {
    OperationQueue queue(1);
    std::uint64_t count = 0;
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) queue.addOperation([&count] { ++count; });
        queue.waitUntilAllOperationsAreFinished();
    }
    benchmark::DoNotOptimize(count);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(KR_QueueBurst)->Arg(1000)->UseRealTime();

void BASE_QueueBurst(benchmark::State& state) {
    PlainWorker worker;
    std::uint64_t count = 0;
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(0); ++i) worker.add([&count] { ++count; });
        worker.waitUntilEmpty();
    }
    benchmark::DoNotOptimize(count);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BASE_QueueBurst)->Arg(1000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
