#include <krcommon/platform/dispatch/MainQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;

namespace {

// The main queue is process-wide: every test starts and ends with it empty and built in.
class MainQueueTest : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        MainQueue::setDispatcher(nullptr);
        MainQueue::drain();
    }
};

// Two pumps (run() on one thread, runUntil() on this one) while four threads post: every job
// runs once, one at a time, and each poster's jobs keep their order.
TEST_F(MainQueueTest, JobsFromManyThreadsRunOnceEachOneAtATimeInPostingOrderPerThread) {
    constexpr int posters = 4, perPoster = 2000;
    std::vector<int> next(posters, 0);  // each poster's next job; only touched by main-queue jobs
    std::atomic<int> inside{0}, ran{0};
    std::atomic<bool> wrong{false};
    std::thread pump([] { MainQueue::run(); });
    std::vector<std::thread> threads;
    for (int t = 0; t < posters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < perPoster; ++i) {
                MainQueue::async([&, t, i] {
                    if (++inside != 1 || next[t]++ != i) wrong = true;
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
    EXPECT_FALSE(wrong.load());
    EXPECT_EQ(next, std::vector<int>(posters, perPoster));
}

// A pump asleep without a deadline must wake for every job posted from another thread: one lost
// wake-up leaves run() asleep and a round trip unanswered. Some rounds post inside wake batches.
TEST_F(MainQueueTest, SleepingPumpWakesForEveryJobWithOrWithoutBatches) {
    std::mutex mutex;
    std::condition_variable answeredCv;
    int answered = 0;
    const MainQueue::Job answer = [&] {
        std::lock_guard lock(mutex);
        ++answered;
        answeredCv.notify_one();
    };
    void (*const posts[])(const MainQueue::Job&) = {
        [](const MainQueue::Job& job) { MainQueue::async(job); },
        [](const MainQueue::Job& job) { MainQueue::asyncBatched(job); },  // no batch: an ordinary post
        [](const MainQueue::Job& job) {  // nested batches: the wake-up comes when the outermost one ends
            MainQueue::WakeBatch outer, inner;
            MainQueue::asyncBatched(job);
        },
        [](const MainQueue::Job& job) { MainQueue::asyncAfter(0.001, job); }};  // the pump sets a new deadline
    std::thread pump([] { MainQueue::run(); });
    int lost = 0;  // the first round whose job did not run
    for (int round = 1; round <= 20000 && lost == 0; ++round) {
        posts[round % 4](answer);
        std::unique_lock lock(mutex);
        if (!answeredCv.wait_for(lock, 10s, [&] { return answered == round; })) lost = round;
    }
    MainQueue::stop();
    pump.join();
    MainQueue::drain();  // a job left behind runs while what it refers to still exists
    EXPECT_EQ(lost, 0);
}

// Jobs run later, on the pumping thread, by due time and then in posting order; a job that throws
// leaves the pump, a job that pumps runs the next ones itself, and neither loses or reorders any.
TEST_F(MainQueueTest, RunsJobsByDueTimeThenPostingOrderThroughThrowsAndNestedPumps) {
    std::string order;
    const auto append = [&](char c) { return [&order, c] { order += MainQueue::isMainThread() ? c : '!'; }; };
    const std::pair<double, MainQueue::Job> posts[] = {  // a delay of -2: posted with async()
        {-2, append('1')}, {0.7, append('e')}, {0.5, append('c')}, {0.0, append('a')},
        {-2, [] { throw std::runtime_error("boom"); }}, {-2, append('2')}, {0.5, append('d')}, {-1.0, append('b')},
        {-2, [&] {
             order += '3';
             MainQueue::async(append('5'));
             EXPECT_EQ(MainQueue::drain(), 2u);  // 4, then 5, which was posted after it
             order += '6';
         }},
        {-2, append('4')}};
    for (const auto& [seconds, job] : posts) {
        if (seconds == -2) MainQueue::async(job);
        else MainQueue::asyncAfter(seconds, job);
    }
    auto cancelled = MainQueue::asyncAfter(300ms, append('X'));
    EXPECT_TRUE(MainQueue::cancel(MainQueue::asyncAfter(0.0, append('Y'))));  // due, but cancelled
    EXPECT_THROW(MainQueue::async({}), InternalInconsistencyException);
    EXPECT_TRUE(order.empty());
    std::thread([] { EXPECT_THROW(MainQueue::drain(), std::runtime_error); }).join();
    EXPECT_EQ(order, "1a");
    EXPECT_EQ(MainQueue::drain(), 3u);  // only what had no delay is due yet
    EXPECT_EQ(order, "1a2b3456");
    EXPECT_TRUE(MainQueue::cancel(cancelled));
    EXPECT_FALSE(MainQueue::cancel(cancelled));
    EXPECT_FALSE(MainQueue::cancel(MainQueue::Token()));
    EXPECT_TRUE(MainQueue::runUntil([&] { return order.size() == 11; }, 10.0));
    EXPECT_EQ(order, "1a2b3456cde");
    const auto start = MainQueue::Clock::now();  // runUntil() gives up at its timeout, not before
    EXPECT_FALSE(MainQueue::runUntil([] { return false; }, 0.05));
    EXPECT_GE(MainQueue::Clock::now() - start, 50ms);
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
    MainQueue::async([&] { log.push_back("posted after"); });
    EXPECT_EQ(received(), 3u);  // what was due, and the new job; delayed ones wait until due
    EXPECT_TRUE(MainQueue::cancel(cancelledEarly));
    EXPECT_TRUE(MainQueue::cancel(cancelledLate));
    EXPECT_TRUE(MainQueue::runUntil([&] { return received() == 4; }, 10.0));  // runs nothing itself
    EXPECT_TRUE(log.empty());
    for (auto& job : host) job();  // the host's loop
    EXPECT_EQ(log, (std::vector<std::string>{"queued before", "posted after", "delayed"}));
    MainQueue::setDispatcher(nullptr);
    MainQueue::async([&] { log.push_back("built in"); });
    EXPECT_EQ(MainQueue::drain(), 1u);
    EXPECT_EQ(log.back(), "built in");
}

}  // namespace
