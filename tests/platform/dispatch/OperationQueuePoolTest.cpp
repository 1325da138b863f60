// Operation queues share one pool of threads: many queues do not mean many threads, each
// queue keeps its width and order, and operations that block on each other still finish.
#include <krcommon/platform/dispatch/OperationQueue.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

std::size_t threadCount() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// A flag other threads wait for, with a deadline so that a fault fails instead of hanging.
struct Signal {
    std::mutex mutex;
    std::condition_variable cv;
    bool set = false;
    void raise() {
        { std::lock_guard lock(mutex); set = true; }
        cv.notify_all();
    }
    bool wait(std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, limit, [this] { return set; });
    }
};

}  // namespace

TEST(OperationQueuePool, AThousandSerialQueuesRunOnThePoolsThreads) {
    const std::size_t before = threadCount();
    std::atomic<std::size_t> peak{0}, done{0};
    std::vector<std::unique_ptr<OperationQueue>> queues;
    for (int i = 0; i < 1000; ++i) {
        queues.push_back(std::make_unique<OperationQueue>(1));
        queues.back()->addOperation([&] {
            const std::size_t now = threadCount();
            for (std::size_t seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {}
            ++done;
        });
    }
    queues.clear();  // waits for every operation
    EXPECT_EQ(done.load(), 1000U);
    // The pool's width, and at most one thread watching for a stalled pool.
    EXPECT_LE(peak.load(), before + std::max(1U, std::thread::hardware_concurrency()) + 1);
}

TEST(OperationQueuePool, EachQueueKeepsItsOrderAndWidth) {
    OperationQueue serial(1), wide(2);
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<int> active{0}, peak{0};
    Signal pairMet;
    for (int i = 0; i < 50; ++i) {
        serial.addOperation([&, i] { std::lock_guard lock(mutex); order.push_back(i); });
        wide.addOperation([&] {
            const int now = ++active;
            for (int seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {}
            if (now == 2) pairMet.raise();
            pairMet.wait(2s);  // two at once must happen; the wait ends at once after that
            --active;
        });
    }
    serial.waitUntilAllOperationsAreFinished();
    wide.waitUntilAllOperationsAreFinished();
    std::vector<int> expected(50);
    for (int i = 0; i < 50; ++i) expected[static_cast<std::size_t>(i)] = i;
    EXPECT_EQ(order, expected);
    EXPECT_EQ(peak.load(), 2);
}

TEST(OperationQueuePool, AQueueWithABacklogDoesNotStarveAnother) {
    OperationQueue busy, other(1);
    std::atomic<int> busyDone{0}, busyDoneWhenOtherRan{-1};
    for (int i = 0; i < 400; ++i) {
        busy.addOperation([&] {
            std::this_thread::sleep_for(50us);
            ++busyDone;
        });
    }
    other.addOperation([&] { busyDoneWhenOtherRan = busyDone.load(); });
    other.waitUntilAllOperationsAreFinished();
    busy.waitUntilAllOperationsAreFinished();
    // The other queue's turn comes after at most the busy queue's width of turns, not its backlog.
    EXPECT_GE(busyDoneWhenOtherRan.load(), 0);
    EXPECT_LT(busyDoneWhenOtherRan.load(), 200);
}

TEST(OperationQueuePool, AnOperationAddedDuringAnInlineClaimOfAWideQueueStarts) {
    OperationQueue queue(2);
    Signal ran;
    bool ranInsideClaim = false;
    ASSERT_TRUE(queue.runIfIdle([&] {
        queue.addOperation([&] { ran.raise(); });
        ranInsideClaim = ran.wait(5s);  // the second slot is free: it must not wait for the claim
    }));
    EXPECT_TRUE(ranInsideClaim);
}

TEST(OperationQueuePool, OperationsBlockedOnEachOtherAcrossQueuesStillFinish) {
    // More blocked operations than the pool has threads: only a thread added for the
    // stalled pool lets the last queue's operation release them.
    const std::size_t blocked = std::max(1U, std::thread::hardware_concurrency()) + 1;
    Signal release;
    std::atomic<std::size_t> released{0};
    std::vector<std::unique_ptr<OperationQueue>> queues;
    for (std::size_t i = 0; i < blocked; ++i) {
        queues.push_back(std::make_unique<OperationQueue>(1));
        queues.back()->addOperation([&] { released += release.wait() ? 1 : 0; });
    }
    OperationQueue releaser(1);
    releaser.addOperation([&] { release.raise(); });
    queues.clear();
    EXPECT_EQ(released.load(), blocked);
}
