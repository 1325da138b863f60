#include <krcommon/platform/dispatch/OperationQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

// Counts operations running at once and remembers the most seen.
struct Meter {
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    void enter() {
        const int now = ++inside;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
    }
    void leave() { --inside; }
};

// Waits (bounded) until `condition` holds; answers whether it did.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(100us);
    }
    return true;
}

TEST(OperationQueue, SerialQueueRunsOneOperationAtATimeInFifoOrder) {
    constexpr int count = 3000;
    OperationQueue queue(1, "serial");
    Meter meter;
    std::vector<int> order;  // unguarded on purpose: only a serial queue keeps this race-free
    for (int i = 0; i < count; ++i) {
        queue.addOperation([&, i] {
            meter.enter();
            order.push_back(i);
            std::this_thread::yield();
            meter.leave();
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_EQ(meter.most.load(), 1);
    ASSERT_EQ(order.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(order[i], i);
    EXPECT_EQ(queue.name(), "serial");
}

// A queue of width N runs N operations at once, never more.
class OperationQueueWidth : public ::testing::TestWithParam<int> {};

TEST_P(OperationQueueWidth, RunsUpToWidthOperationsAtOnceNeverMore) {
    const int count = GetParam();
    const int width =
        count == -1 ? static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 2u, 64u)) : count;
    OperationQueue queue(count);
    EXPECT_EQ(queue.maxConcurrentOperationCount(), count);
    Meter meter;
    std::atomic<int> finished{0};
    for (int i = 0; i < 4 * width; ++i) {
        queue.addOperation([&] {
            meter.enter();
            eventually([&] { return meter.most.load() >= width; }, 2000ms);  // the first ones meet
            meter.leave();
            ++finished;
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(finished.load(), 4 * width);
    EXPECT_EQ(meter.most.load(), width);
}

INSTANTIATE_TEST_SUITE_P(Widths, OperationQueueWidth, ::testing::Values(2, 3, 5, -1));

// A changed count applies to operations started afterwards: `from` running operations hold
// their slots while queued ones start, or not, under the new count.
struct CountChange {
    int from, to;
};
void PrintTo(const CountChange& change, std::ostream* os) { *os << change.from << " -> " << change.to; }
class OperationQueueCountChange : public ::testing::TestWithParam<CountChange> {};

TEST_P(OperationQueueCountChange, TakesEffectForQueuedOperations) {
    const auto [from, to] = GetParam();
    constexpr int queued = 40;
    OperationQueue queue(from);
    std::atomic<bool> release{false};
    std::atomic<int> blocking{0};
    for (int i = 0; i < from; ++i) {
        queue.addOperation([&] {
            ++blocking;
            eventually([&] { return release.load(); });
        });
    }
    ASSERT_TRUE(eventually([&] { return blocking.load() == from; }));
    Meter meter;
    for (int i = 0; i < queued; ++i) {
        queue.addOperation([&] {
            meter.enter();
            std::this_thread::sleep_for(1ms);
            meter.leave();
        });
    }
    queue.setMaxConcurrentOperationCount(to);
    EXPECT_EQ(queue.maxConcurrentOperationCount(), to);
    if (to > from) {
        EXPECT_TRUE(eventually([&] { return meter.most.load() == to - from; }));  // beside the blocked ones
    } else {
        std::this_thread::sleep_for(30ms);
        EXPECT_EQ(queue.operationCount(), static_cast<std::size_t>(from + queued));
    }
    EXPECT_LE(meter.most.load(), std::max(0, to - from));
    release = true;
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_LE(meter.most.load(), to);
}

INSTANTIATE_TEST_SUITE_P(Changes, OperationQueueCountChange,
                         ::testing::Values(CountChange{1, 2}, CountChange{1, 3}, CountChange{3, 1},
                                           CountChange{4, 2}, CountChange{2, 2}));

TEST(OperationQueue, RejectsInvalidCountsAndEmptyOperations) {
    for (int bad : {0, -2, INT_MIN}) {
        EXPECT_THROW(OperationQueue{bad}, InternalInconsistencyException) << bad;
        OperationQueue queue;
        EXPECT_THROW(queue.setMaxConcurrentOperationCount(bad), InternalInconsistencyException) << bad;
        EXPECT_EQ(queue.maxConcurrentOperationCount(), OperationQueue::DefaultMaxConcurrentOperationCount);
    }
    OperationQueue queue;
    EXPECT_THROW(queue.addOperation(nullptr), InternalInconsistencyException);
}

TEST(OperationQueue, KnowsWhenItRunsTheCallingThreadAndRefusesToWaitForItself) {
    OperationQueue queue(2), other(1);
    std::atomic<bool> current{false}, otherCurrent{true}, refused{false};
    queue.addOperation([&] {
        current = queue.isCurrent();
        otherCurrent = other.isCurrent();
        try {
            queue.waitUntilAllOperationsAreFinished();
        } catch (const InternalInconsistencyException&) {
            refused = true;
        }
    });
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(current);
    EXPECT_FALSE(otherCurrent);
    EXPECT_TRUE(refused);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(OperationQueue, DestructionWaitsForEveryQueuedOperation) {
    for (int width : {1, 3}) {
        std::atomic<int> finished{0};
        {
            OperationQueue queue(width);
            for (int i = 0; i < 20; ++i) {
                queue.addOperation([&] {
                    std::this_thread::sleep_for(1ms);
                    ++finished;
                });
            }
        }
        EXPECT_EQ(finished.load(), 20) << "width " << width;
    }
}

// The last reference goes away inside one of the queue's own operations, by an explicit
// reset or by the operation's captures being released after it ran. The operations share
// their state by shared_ptr: they may outlive a loop round.
TEST(OperationQueue, DroppingTheLastReferenceInsideAnOperationIsSafe) {
    struct State {
        std::atomic<bool> release{false};
        std::atomic<int> after{0};
        std::promise<void> done;
    };
    for (int width : {1, 3}) {
        for (bool explicitReset : {true, false}) {
            SCOPED_TRACE(testing::Message() << "width " << width << (explicitReset ? " reset" : " captured"));
            auto state = std::make_shared<State>();
            auto finished = state->done.get_future();
            auto queue = std::make_shared<OperationQueue>(width);
            const std::weak_ptr<OperationQueue> watch = queue;
            queue->addOperation([state, explicitReset, keep = queue]() mutable {
                eventually([&] { return state->release.load(); });
                if (explicitReset) keep.reset();
            });
            for (int i = 0; i < 5; ++i) {
                queue->addOperation([state] {
                    if (++state->after == 5) state->done.set_value();
                });
            }
            queue.reset();
            state->release = true;
            ASSERT_EQ(finished.wait_for(5s), std::future_status::ready);
            EXPECT_TRUE(eventually([&] { return watch.expired(); }));
        }
    }
}

TEST(OperationQueue, IdleWorkersEndWhileTheQueueLivesOnAndNewOnesStartForNewWork) {
    OperationQueue queue(3);
    Meter meter;
    std::mutex mutex;
    std::vector<pid_t> workers;
    for (int i = 0; i < 3; ++i) {
        queue.addOperation([&] {
            meter.enter();
            eventually([&] { return meter.most.load() >= 3; });
            meter.leave();
            std::lock_guard lock(mutex);
            workers.push_back(static_cast<pid_t>(::syscall(SYS_gettid)));
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    ASSERT_EQ(workers.size(), 3u);
    const auto ended = [&] {
        return std::none_of(workers.begin(), workers.end(), [](pid_t tid) {
            return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
        });
    };
    EXPECT_TRUE(eventually(ended, 10000ms));

    std::atomic<bool> ran{false};
    queue.addOperation([&] { ran = true; });
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(ran);
}

}  // namespace
