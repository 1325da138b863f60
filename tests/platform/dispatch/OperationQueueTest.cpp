#include <krcommon/platform/dispatch/OperationQueue.h>

#include <krcommon/platform/core/Exception.h>

#include "support/ThreadCount.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

struct WidthRow {
    const char* name;
    int count;
    bool waitByDestructor;
    friend void PrintTo(const WidthRow& r, std::ostream* os) { *os << r.name; }
};

class OperationQueueWidth : public ::testing::TestWithParam<WidthRow> {};

// Never more than the width at once, every operation exactly once, a serial queue in the order
// added; waiting, or the destructor, returns only once every operation has finished.
TEST_P(OperationQueueWidth, RunsAtMostItsWidthAtOnceAndEachOperationOnce) {
    const auto [name, count, waitByDestructor] = GetParam();
    const int hardware = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const int width = count == -1 ? std::clamp(hardware, 2, 64) : count;
    const int meet = std::min({width, hardware, 2});  // how many any pool of workers runs together
    const int total = width == 1 ? 3000 : 8 * width;
    std::atomic<int> inside{0}, most{0}, finished{0};
    std::mutex mutex;
    std::vector<int> started;
    EXPECT_THROW(OperationQueue(-count - 1), InternalInconsistencyException);  // neither -1 nor positive
    {
        OperationQueue queue(count);
        EXPECT_THROW(queue.addOperation({}), InternalInconsistencyException);
        for (int i = 0; i < total; ++i) {
            queue.addOperation([&, i] {
                {
                    std::lock_guard lock(mutex);
                    most = std::max(most.load(), ++inside);
                    started.push_back(i);
                }
                for (auto until = std::chrono::steady_clock::now() + 5s;  // the first ones meet
                     most < meet && std::chrono::steady_clock::now() < until;)
                    std::this_thread::sleep_for(100us);
                --inside;
                ++finished;
            });
        }
        if (!waitByDestructor) {
            queue.waitUntilAllOperationsAreFinished();
            EXPECT_EQ(finished.load(), total);
        }
    }
    EXPECT_EQ(finished.load(), total);
    EXPECT_LE(most.load(), width);
    EXPECT_GE(most.load(), meet);
    if (width > 1) std::sort(started.begin(), started.end());
    ASSERT_EQ(started.size(), static_cast<std::size_t>(total));
    for (int i = 0; i < total; ++i) ASSERT_EQ(started[static_cast<std::size_t>(i)], i);
}

INSTANTIATE_TEST_SUITE_P(Widths, OperationQueueWidth,
                         ::testing::Values(WidthRow{"SerialWaited", 1, false}, WidthRow{"SerialDestroyed", 1, true},
                                           WidthRow{"ThreeWaited", 3, false}, WidthRow{"ThreeDestroyed", 3, true},
                                           WidthRow{"DefaultWaited", -1, false}),
                         [](const auto& info) { return std::string(info.param.name); });

// Queues share one pool of threads: many queues do not mean many threads, a backlog starves no
// other queue, and operations that block on each other across queues still finish.
std::size_t threadCount() { return static_cast<std::size_t>(krcommon::test::threadCount()); }

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


TEST(OperationQueuePool, AThousandSerialQueuesRunOnThePoolsThreads) {
    std::thread([] {}).join();  // a helper thread the runtime starts with the first thread (a sanitizer's) counts before
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

}  // namespace
