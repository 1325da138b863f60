#include <krcommon/platform/dispatch/MainQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

// The main queue is process-wide: every test starts and ends with it empty and built in.
class MainQueueTest : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        MainQueue::setDispatcher(nullptr);
        MainQueue::drain();
    }
};

// A host whose loop is the test thread: the dispatcher only collects the jobs.
class Host {
public:
    void post(MainQueue::Job job) {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    std::size_t received() {
        std::lock_guard lock(mutex_);
        return jobs_.size();
    }
    void runAll() {
        std::vector<MainQueue::Job> jobs;
        {
            std::lock_guard lock(mutex_);
            jobs.swap(jobs_);
        }
        for (auto& job : jobs) job();
    }

private:
    std::mutex mutex_;
    std::vector<MainQueue::Job> jobs_;
};

TEST_F(MainQueueTest, RunsJobsLaterInOrderOnTheDrainingThread) {
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int i = 0; i < 5; ++i) {
        MainQueue::async([&, i] {
            order.push_back(i);
            threads.push_back(std::this_thread::get_id());
            EXPECT_TRUE(MainQueue::isMainThread());
            if (i == 0) MainQueue::async([&] { order.push_back(99); });  // posted by a job: runs in this drain
        });
    }
    EXPECT_TRUE(order.empty());
    EXPECT_FALSE(MainQueue::isMainThread());

    // Drain from another thread: that thread is the main one while it pumps.
    std::size_t ran = 0;
    std::thread([&] { ran = MainQueue::drain(); }).join();
    EXPECT_EQ(ran, 6u);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 99}));
    for (auto id : threads) EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_EQ(MainQueue::drain(), 0u);
}

TEST_F(MainQueueTest, JobsPostedFromManyThreadsRunOnceEachAndInPostingOrderPerThread) {
    constexpr int posters = 4, perPoster = 2000;
    std::vector<std::vector<int>> seen(posters);  // only touched by main-queue jobs
    std::atomic<int> inside{0}, maxInside{0};
    MainQueue::stop();  // a stop with no run() going ends the next run() at once
    MainQueue::run();

    // Two pumping threads at once must still run one job at a time.
    std::vector<std::thread> pumps;
    std::atomic<int> exited{0};
    for (int i = 0; i < 2; ++i) {
        pumps.emplace_back([&] {
            MainQueue::run();
            ++exited;
        });
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < posters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perPoster; ++i) {
                MainQueue::async([&, t, i] {
                    const int now = ++inside;
                    int seenMax = maxInside.load();
                    while (now > seenMax && !maxInside.compare_exchange_weak(seenMax, now)) {
                    }
                    seen[t].push_back(i);
                    std::this_thread::yield();  // gives a second pump the chance to overlap
                    --inside;
                });
            }
        });
    }
    for (auto& t : threads) t.join();
    std::atomic<bool> done{false};
    MainQueue::async([&] { done = true; });
    while (!done) std::this_thread::sleep_for(1ms);
    // Each stop() ends one run().
    for (int stopped = 1; stopped <= 2; ++stopped) {
        MainQueue::stop();
        while (exited < stopped) std::this_thread::sleep_for(1ms);
    }
    for (auto& p : pumps) p.join();

    EXPECT_EQ(maxInside.load(), 1);
    for (int t = 0; t < posters; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(perPoster)) << "poster " << t;
        for (int i = 0; i < perPoster; ++i) ASSERT_EQ(seen[t][i], i) << "poster " << t;
    }
}

TEST_F(MainQueueTest, DelayedJobsRunByDueTimeThenPostingOrderAndCanBeCancelled) {
    std::string order;
    const struct {
        double seconds;
        char name;
    } rows[] = {{0.3, 'e'}, {0.2, 'c'}, {0.0, 'a'}, {0.2, 'd'}, {-1.0, 'b'}};
    for (const auto& row : rows) MainQueue::asyncAfter(row.seconds, [&order, c = row.name] { order += c; });
    auto cancelled = MainQueue::asyncAfter(100ms, [&] { order += 'X'; });
    auto dueButCancelled = MainQueue::asyncAfter(0.0, [&] { order += 'Y'; });

    EXPECT_TRUE(MainQueue::cancel(dueButCancelled));
    EXPECT_EQ(MainQueue::drain(), 2u);  // only a and b are due yet
    EXPECT_EQ(order, "ab");
    EXPECT_TRUE(MainQueue::cancel(cancelled));
    EXPECT_FALSE(MainQueue::cancel(cancelled));
    EXPECT_FALSE(MainQueue::cancel(MainQueue::Token{}));

    EXPECT_TRUE(MainQueue::runUntil([&] { return order.size() == 5; }, 5.0));
    EXPECT_EQ(order, "abcde");
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(MainQueue::drain(), 0u);  // the cancelled one stays away
}

TEST_F(MainQueueTest, RunUntilAnswersWhetherThePredicateHeldWithinTheTimeout) {
    auto start = MainQueue::Clock::now();
    EXPECT_FALSE(MainQueue::runUntil([] { return false; }, 0.05));
    auto elapsed = MainQueue::Clock::now() - start;
    EXPECT_GE(elapsed, 50ms);
    EXPECT_LT(elapsed, 1s);

    // Made true by a job.
    bool flag = false;
    MainQueue::asyncAfter(5ms, [&] { flag = true; });
    EXPECT_TRUE(MainQueue::runUntil([&] { return flag; }, 5.0));

    // Made true by another thread without posting anything: noticed while idle.
    std::atomic<bool> set{false};
    std::thread setter([&] {
        std::this_thread::sleep_for(20ms);
        set = true;
    });
    start = MainQueue::Clock::now();
    EXPECT_TRUE(MainQueue::runUntil([&] { return set.load(); }, 5.0));
    EXPECT_LT(MainQueue::Clock::now() - start, 1s);
    setter.join();
}

TEST_F(MainQueueTest, AnExceptionFromAJobLeavesTheDrainAndTheRestStayQueued) {
    std::vector<int> ran;
    MainQueue::async([&] { ran.push_back(1); });
    MainQueue::async([] { throw std::runtime_error("boom"); });
    MainQueue::async([&] { ran.push_back(3); });
    EXPECT_THROW(MainQueue::drain(), std::runtime_error);
    EXPECT_EQ(ran, std::vector<int>{1});
    EXPECT_FALSE(MainQueue::isMainThread());
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(ran, (std::vector<int>{1, 3}));
    EXPECT_THROW(MainQueue::async(nullptr), InternalInconsistencyException);
}

TEST_F(MainQueueTest, AJobMayPumpTheQueueItself) {
    std::string order;
    MainQueue::async([&] {
        order += 'a';
        MainQueue::async([&] { order += 'c'; });
        EXPECT_EQ(MainQueue::drain(), 2u);  // b, then c
        order += 'd';
    });
    MainQueue::async([&] { order += 'b'; });
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(order, "abcd");
}

TEST_F(MainQueueTest, DispatcherReceivesEveryJobAndTheBuiltInQueueWorksAgainAfterwards) {
    std::vector<std::string> log;
    MainQueue::async([&] { log.push_back("queued before"); });
    MainQueue::asyncAfter(300ms, [&] { log.push_back("delayed"); });
    auto cancelledEarly = MainQueue::asyncAfter(200ms, [&] { log.push_back("cancelled before hand-over"); });
    auto cancelledLate = MainQueue::asyncAfter(0.0, [&] { log.push_back("cancelled after hand-over"); });

    Host host;
    MainQueue::setDispatcher([&](MainQueue::Job job) { host.post(std::move(job)); });
    EXPECT_EQ(MainQueue::drain(), 0u);
    MainQueue::async([&] {
        log.push_back("posted after");
        EXPECT_TRUE(MainQueue::isMainThread());
    });
    EXPECT_EQ(host.received(), 3u);  // what was due, and the new job; delayed ones wait until due
    EXPECT_TRUE(MainQueue::cancel(cancelledEarly));
    EXPECT_TRUE(MainQueue::cancel(cancelledLate));
    EXPECT_TRUE(MainQueue::runUntil([&] { return host.received() == 4; }, 5.0));  // runs nothing itself
    EXPECT_TRUE(log.empty());
    host.runAll();
    EXPECT_EQ(log, (std::vector<std::string>{"queued before", "posted after", "delayed"}));

    MainQueue::setDispatcher(nullptr);
    MainQueue::async([&] { log.push_back("built in"); });
    EXPECT_EQ(host.received(), 0u);
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(log.back(), "built in");
}

}  // namespace
