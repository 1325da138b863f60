#include <krcommon/platform/dispatch/OperationQueue.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

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

// A queue of width N runs N operations at once, never more; a serial one also starts them in FIFO order.
// Either waiting or the destructor returns only once every operation has finished.
class OperationQueueWidth : public ::testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(OperationQueueWidth, RunsUpToWidthOperationsAtOnceNeverMore) {
    const auto [count, waitByDestructor] = GetParam();
    const int width =
        count == -1 ? static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 2u, 64u)) : count;
    const int total = width == 1 ? 3000 : 4 * width;
    std::atomic<int> inside{0}, most{0}, finished{0};
    std::mutex mutex;
    std::vector<int> started;
    {
        OperationQueue queue(count);
        for (int i = 0; i < total; ++i) {
            queue.addOperation([&, i] {
                const int now = ++inside;
                for (int seen = most.load(); now > seen && !most.compare_exchange_weak(seen, now);) {
                }
                {
                    std::lock_guard lock(mutex);
                    started.push_back(i);
                }
                std::this_thread::yield();
                eventually([&] { return most.load() >= width; }, 2000ms);  // the first ones meet
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
    EXPECT_EQ(most.load(), width);
    ASSERT_EQ(started.size(), static_cast<std::size_t>(total));
    if (width > 1) std::sort(started.begin(), started.end());  // each ran once
    for (int i = 0; i < total; ++i) ASSERT_EQ(started[i], i);
}

INSTANTIATE_TEST_SUITE_P(Widths, OperationQueueWidth,
                         ::testing::Combine(::testing::Values(1, 3, -1), ::testing::Bool()));

// The last reference goes away inside one of the queue's own operations, by an explicit reset or
// by the operation's captures being released after it ran; the operations queued behind it still run.
TEST(OperationQueue, DroppingTheLastReferenceInsideAnOperationIsSafe) {
    struct State {
        std::atomic<bool> release{false};
        std::atomic<int> after{0};
        std::promise<void> done;
    };
    for (int width : {1, 3}) {
        for (bool explicitReset : {true, false}) {
            SCOPED_TRACE(testing::Message() << "width " << width << (explicitReset ? " reset" : " captured"));
            auto state = std::make_shared<State>();  // shared: the operations may outlive this round
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
            ASSERT_EQ(finished.wait_for(10s), std::future_status::ready);
            EXPECT_TRUE(eventually([&] { return watch.expired(); }));
        }
    }
}

// runIfIdle runs on the calling thread only when the queue could start the operation now
// without passing queued work; it then counts as one of the queue's operations.
TEST(OperationQueue, RunIfIdleRunsHereOnlyWhenTheQueueCouldStartItNow) {
    struct Case {
        const char* name;
        int width;
        int running;  // operations already running on workers
        int queued;   // operations waiting behind those
        bool runsHere;
    };
    const Case cases[] = {
        {"idle serial", 1, 0, 0, true},
        {"serial, one running", 1, 1, 0, false},
        {"width two, one running", 2, 1, 0, true},
        {"width two, full", 2, 2, 0, false},
        {"width two, full with one queued", 2, 2, 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        OperationQueue queue(c.width);
        std::atomic<bool> release{false};
        std::atomic<int> started{0};
        for (int i = 0; i < c.running + c.queued; ++i) {
            queue.addOperation([&] {
                ++started;
                eventually([&] { return release.load(); });
            });
        }
        ASSERT_TRUE(eventually([&] { return started.load() == c.running; }));
        bool current = false;
        std::size_t countInside = 0;
        std::thread::id ranOn;
        const bool ran = queue.runIfIdle([&] {
            current = queue.isCurrent();
            countInside = queue.operationCount();
            ranOn = std::this_thread::get_id();
        });
        EXPECT_EQ(ran, c.runsHere);
        if (c.runsHere) {
            EXPECT_TRUE(current);
            EXPECT_EQ(countInside, static_cast<std::size_t>(c.running + c.queued + 1));
            EXPECT_EQ(ranOn, std::this_thread::get_id());
        } else {
            EXPECT_EQ(ranOn, std::thread::id());  // not run at all
        }
        EXPECT_FALSE(queue.isCurrent());
        release = true;
        queue.waitUntilAllOperationsAreFinished();
        EXPECT_EQ(queue.operationCount(), 0u);
    }
}

// Work added while an operation runs here waits for it (the queue is serial), then
// starts on a worker; waiting for the queue waits for the operation running here too.
TEST(OperationQueue, RunIfIdleKeepsTheQueueSerialAndWaitable) {
    OperationQueue queue(1);
    std::atomic<bool> release{false};
    std::atomic<bool> insideDone{false};
    std::vector<std::string> order;
    std::mutex mutex;
    std::thread::id addedRanOn;
    std::thread::id runnerId;
    std::thread runner([&] {
        runnerId = std::this_thread::get_id();
        queue.runIfIdle([&] {
            queue.addOperation([&] {
                std::lock_guard lock(mutex);
                order.push_back("added");
                addedRanOn = std::this_thread::get_id();
            });
            eventually([&] { return release.load(); });
            std::lock_guard lock(mutex);
            order.push_back("inline");
            insideDone = true;
        });
    });
    ASSERT_TRUE(eventually([&] { return queue.operationCount() == 2; }));
    EXPECT_FALSE(queue.runIfIdle([] { ADD_FAILURE() << "ran while the serial queue was busy"; }));
    auto waited = std::async(std::launch::async, [&] {
        queue.waitUntilAllOperationsAreFinished();
        return insideDone.load();
    });
    EXPECT_EQ(waited.wait_for(50ms), std::future_status::timeout);
    release = true;
    EXPECT_TRUE(waited.get());
    runner.join();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, (std::vector<std::string>{"inline", "added"}));
    EXPECT_NE(addedRanOn, runnerId);
}

}  // namespace
