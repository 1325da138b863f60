#include <krcommon/platform/dispatch/MainQueue.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
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

TEST_F(MainQueueTest, RunsJobsLaterInOrderOnTheDrainingThread) {
    std::vector<int> order;
    const auto testThread = std::this_thread::get_id();
    for (int i = 0; i < 5; ++i) {
        MainQueue::async([&, i] {
            order.push_back(i);
            EXPECT_NE(std::this_thread::get_id(), testThread);
            EXPECT_TRUE(MainQueue::isMainThread());
            if (i == 0) MainQueue::async([&] { order.push_back(99); });  // posted by a job: runs in this drain
        });
    }
    EXPECT_TRUE(order.empty());
    EXPECT_FALSE(MainQueue::isMainThread());

    std::size_t ran = 0;
    std::thread([&] { ran = MainQueue::drain(); }).join();
    EXPECT_EQ(ran, 6u);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 99}));
    EXPECT_EQ(MainQueue::drain(), 0u);
}

// Two pumps (run() on one thread, runUntil() on this one) while four threads post: every job
// runs once, one at a time, and each poster's jobs keep their order.
TEST_F(MainQueueTest, JobsFromManyThreadsRunOnceEachOneAtATimeInPostingOrderPerThread) {
    constexpr int posters = 4, perPoster = 2000;
    std::vector<std::vector<int>> seen(posters);  // only touched by main-queue jobs
    std::atomic<int> inside{0}, ran{0};
    std::atomic<bool> overlapped{false};
    std::thread pump([] { MainQueue::run(); });
    std::vector<std::thread> threads;
    for (int t = 0; t < posters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perPoster; ++i) {
                MainQueue::async([&, t, i] {
                    if (++inside != 1) overlapped = true;
                    seen[t].push_back(i);
                    std::this_thread::yield();  // gives the other pump the chance to overlap
                    --inside;
                    ++ran;
                });
            }
        });
    }
    EXPECT_TRUE(MainQueue::runUntil([&] { return ran == posters * perPoster; }, 60.0));
    for (auto& t : threads) t.join();
    MainQueue::stop();  // ends run() even if it has not started yet
    pump.join();

    EXPECT_FALSE(overlapped.load());
    for (int t = 0; t < posters; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(perPoster)) << "poster " << t;
        for (int i = 0; i < perPoster; ++i) ASSERT_EQ(seen[t][i], i) << "poster " << t;
    }
}

// A pump asleep without a deadline must wake for every job posted from another
// thread: one lost wake-up leaves run() asleep and a round trip unanswered.
TEST_F(MainQueueTest, SleepingPumpWakesForEveryJobPostedFromAnotherThread) {
    constexpr int rounds = 20000;
    std::thread pump([] { MainQueue::run(); });
    std::mutex mutex;
    std::condition_variable answeredCv;
    int answered = 0;
    int lost = -1;
    for (int i = 0; i < rounds && lost < 0; ++i) {
        MainQueue::async([&] {
            {
                std::lock_guard lock(mutex);
                ++answered;
            }
            answeredCv.notify_one();
        });
        std::unique_lock lock(mutex);
        if (!answeredCv.wait_for(lock, 5s, [&] { return answered == i + 1; })) lost = i;
    }
    MainQueue::stop();
    pump.join();
    EXPECT_EQ(lost, -1) << "the job of round " << lost << " was not run";
    EXPECT_EQ(answered, rounds);
}

// Whether thread `tid` of this process is blocked (state S), as a pump asleep on its queue is.
bool isAsleep(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'S';
}

// Batched posts leave a sleeping pump asleep until the outermost batch ends, then
// wake it once for all of them; an ordinary post wakes it at once for everything
// queued before; without a batch a batched post is an ordinary one.
TEST_F(MainQueueTest, WakeBatchHoldsTheWakeUpOfBatchedPostsUntilItEnds) {
    std::atomic<int> ran{0};
    std::atomic<pid_t> pumpTid{0};
    std::thread pump([] { MainQueue::run(); });
    MainQueue::async([&] { pumpTid = static_cast<pid_t>(::gettid()); ++ran; });
    const auto reaches = [&](int count, auto limit) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (ran.load() < count && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(1ms);
        return ran.load() >= count;
    };
    const auto pumpSleeps = [&] {
        for (int i = 0; i < 5000 && !isAsleep(pumpTid.load()); ++i) std::this_thread::sleep_for(1ms);
        return isAsleep(pumpTid.load());
    };
    ASSERT_TRUE(reaches(1, 5s));

    ASSERT_TRUE(pumpSleeps());
    {
        MainQueue::WakeBatch outer;
        {
            MainQueue::WakeBatch inner;
            MainQueue::asyncBatched([&] { ++ran; });
            MainQueue::asyncBatched([&] { ++ran; });
        }
        EXPECT_FALSE(reaches(2, 100ms)) << "a batched post woke the pump inside the batch";
    }
    EXPECT_TRUE(reaches(3, 5s)) << "the end of the batch did not wake the pump";

    ASSERT_TRUE(pumpSleeps());
    {
        MainQueue::WakeBatch batch;
        MainQueue::asyncBatched([&] { ++ran; });
        MainQueue::async([&] { ++ran; });
        EXPECT_TRUE(reaches(5, 5s)) << "an ordinary post inside a batch did not wake the pump";
    }

    ASSERT_TRUE(pumpSleeps());
    MainQueue::asyncBatched([&] { ++ran; });
    EXPECT_TRUE(reaches(6, 5s)) << "a batched post without a batch did not wake the pump";

    MainQueue::stop();
    pump.join();
}

TEST_F(MainQueueTest, DelayedJobsRunByDueTimeAndCanBeCancelled) {
    std::string order;
    // No delay: an async() job, due when posted like the delayed ones without a delay.
    const std::pair<std::optional<double>, char> rows[] = {{std::nullopt, '1'}, {0.7, 'e'}, {0.5, 'c'},
                                                           {0.0, 'a'},          {std::nullopt, '2'}, {0.5, 'd'},
                                                           {-1.0, 'b'},         {std::nullopt, '3'}};
    for (const auto& [seconds, name] : rows) {
        auto job = [&order, c = name] { order += c; };
        if (seconds) {
            MainQueue::asyncAfter(*seconds, job);
        } else {
            MainQueue::async(job);
        }
    }
    auto cancelled = MainQueue::asyncAfter(300ms, [&] { order += 'X'; });
    auto dueButCancelled = MainQueue::asyncAfter(0.0, [&] { order += 'Y'; });

    EXPECT_TRUE(MainQueue::cancel(dueButCancelled));
    EXPECT_EQ(MainQueue::drain(), 5u);  // only what had no delay is due yet
    EXPECT_EQ(order, "1a2b3");
    EXPECT_TRUE(MainQueue::cancel(cancelled));
    EXPECT_FALSE(MainQueue::cancel(cancelled));

    EXPECT_TRUE(MainQueue::runUntil([&] { return order.size() == 8; }, 10.0));
    EXPECT_EQ(order, "1a2b3cde");
}

TEST_F(MainQueueTest, RunUntilGivesUpAfterTheTimeout) {
    const auto start = MainQueue::Clock::now();
    EXPECT_FALSE(MainQueue::runUntil([] { return false; }, 0.05));
    const auto elapsed = MainQueue::Clock::now() - start;
    EXPECT_GE(elapsed, 50ms);
    EXPECT_LT(elapsed, 3s);

    // Made true by another thread without posting anything: noticed while idle.
    std::atomic<bool> set{false};
    std::thread setter([&] {
        std::this_thread::sleep_for(20ms);
        set = true;
    });
    EXPECT_TRUE(MainQueue::runUntil([&] { return set.load(); }, 10.0));
    setter.join();
}

// A callback that throws or pumps the queue must not lose or reorder the others.
TEST_F(MainQueueTest, ThrowingAndPumpingJobsKeepTheRestInOrder) {
    std::string order;
    MainQueue::async([&] { order += 'a'; });
    MainQueue::async([] { throw std::runtime_error("boom"); });
    MainQueue::async([&] {
        order += 'b';
        MainQueue::async([&] { order += 'd'; });
        EXPECT_EQ(MainQueue::drain(), 2u);  // c, then d
        order += 'e';
    });
    MainQueue::async([&] { order += 'c'; });
    EXPECT_THROW(MainQueue::drain(), std::runtime_error);
    EXPECT_EQ(order, "a");
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(order, "abcde");
}

TEST_F(MainQueueTest, DispatcherReceivesEveryJobAndTheBuiltInQueueWorksAgainAfterwards) {
    std::vector<std::string> log;
    MainQueue::async([&] { log.push_back("queued before"); });
    MainQueue::asyncAfter(300ms, [&] { log.push_back("delayed"); });
    auto cancelledEarly = MainQueue::asyncAfter(5s, [&] { log.push_back("cancelled before hand-over"); });
    auto cancelledLate = MainQueue::asyncAfter(0.0, [&] { log.push_back("cancelled after hand-over"); });

    std::mutex mutex;  // the timer thread hands over delayed jobs
    std::vector<MainQueue::Job> host;
    const auto received = [&] {
        std::lock_guard lock(mutex);
        return host.size();
    };
    MainQueue::setDispatcher([&](MainQueue::Job job) {
        std::lock_guard lock(mutex);
        host.push_back(std::move(job));
    });
    EXPECT_EQ(MainQueue::drain(), 0u);
    MainQueue::async([&] {
        log.push_back("posted after");
        EXPECT_TRUE(MainQueue::isMainThread());
    });
    EXPECT_EQ(received(), 3u);  // what was due, and the new job; delayed ones wait until due
    EXPECT_TRUE(MainQueue::cancel(cancelledEarly));
    EXPECT_TRUE(MainQueue::cancel(cancelledLate));
    EXPECT_TRUE(MainQueue::runUntil([&] { return received() == 4; }, 10.0));  // runs nothing itself
    EXPECT_TRUE(log.empty());
    for (auto& job : host) job();  // the host's loop
    EXPECT_EQ(log, (std::vector<std::string>{"queued before", "posted after", "delayed"}));

    MainQueue::setDispatcher(nullptr);
    MainQueue::async([&] { log.push_back("built in"); });
    EXPECT_EQ(received(), 4u);
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(log.back(), "built in");
}

}  // namespace
