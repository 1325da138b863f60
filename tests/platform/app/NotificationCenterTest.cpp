#include <krcommon/platform/app/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

namespace {

// A block that appends "who:name" to `log` (used from one thread only).
NotificationCenter::Block recorder(Strings& log, std::string who) {
    return [&log, who](const Notification& n) { log.push_back(who + ":" + n.name()); };
}

// Registration order, names (nullopt: all), removal; blocks that change registrations, post, or
// throw (which ends the post and leaves no record of the call behind).
TEST(NotificationCenter, DeliversInRegistrationOrderToMatchingNamesUntilRemoved) {
    NotificationCenter center, other;
    Strings journal;
    const auto a = center.addObserverForName("x", recorder(journal, "A"));
    const auto b = center.addObserverForName(std::nullopt, recorder(journal, "B"));
    center.addObserverForName("y", recorder(journal, "C"));
    std::shared_ptr<NotificationCenter::Token> self;
    self = center.addObserverForName("x", [&](const Notification& n) {
        recorder(journal, "D")(n);
        center.removeObserver(self);
        center.addObserverForName("x", recorder(journal, "E"));  // from the next post on
        center.postNotificationName("y");
    });
    const std::pair<const char*, Strings> rows[] = {
        {"x", {"A:x", "B:x", "D:x", "B:y", "C:y"}}, {"x", {"A:x", "B:x", "E:x"}}, {"X", {"B:X"}}, {"", {"B:"}}};
    for (const auto& [name, expected] : rows) {
        center.postNotificationName(name);
        EXPECT_EQ(std::exchange(journal, {}), expected) << name;
    }
    center.removeObserver(a);
    center.removeObserver(a);
    center.removeObserver(nullptr);
    other.removeObserver(b);  // not this center's token: ignored
    const auto thrower = center.addObserverForName("x", [](const Notification&) { throw std::runtime_error("x"); });
    center.addObserverForName("x", recorder(journal, "F"));
    EXPECT_THROW(center.postNotificationName("x"), std::runtime_error);
    EXPECT_EQ(std::exchange(journal, {}), (Strings{"B:x", "E:x"}));
    std::async(std::launch::async, [&] { center.removeObserver(thrower); }).get();  // returns: no call in progress
    center.postNotificationName("x");
    EXPECT_EQ(journal, (Strings{"B:x", "E:x", "F:x"}));
}

// Posters and a thread that keeps adding and removing observers run together; no post loses a
// delivery, and once removeObserver() returns the removed block neither starts again nor is still
// running (it sleeps so that removal nearly always finds a call in progress).
TEST(NotificationCenter, ConcurrentPostsAndNoCallAfterRemovalReturns) {
    NotificationCenter center;
    std::atomic<bool> removed{false}, stop{false};
    std::atomic<int> calls{0}, late{0}, posted{0}, counted{0};
    center.addObserverForName("n", [&](const Notification&) { counted.fetch_add(1); });
    const auto token = center.addObserverForName("n", [&](const Notification&) {
        late += removed.load();
        calls.fetch_add(1);
        std::this_thread::sleep_for(50us);
        late += removed.load();
    });
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) center.removeObserver(center.addObserverForName(std::nullopt, [](const Notification&) {}));
    });
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&] {
            for (; !stop; posted.fetch_add(1)) center.postNotificationName("n");
        });
    while (calls < 200) std::this_thread::yield();
    center.removeObserver(token);
    removed = true;
    for (const int then = posted; posted < then + 200;) std::this_thread::yield();  // posts go on after it
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(counted.load(), posted.load());
}

// Two blocks running on two threads each remove the other: waiting for each other would never
// end, so one of the removals returns without waiting. Posts deliver on the posting thread.
TEST(NotificationCenter, MutualRemovalFromRunningBlocksDoesNotDeadlock) {
    auto& center = NotificationCenter::defaultCenter();
    std::barrier bothRunning(2);
    std::atomic<int> calls[2] = {0, 0};
    std::thread::id ranOn[2];
    std::shared_ptr<NotificationCenter::Token> tokens[2];
    for (int i = 0; i < 2; ++i)
        tokens[i] = center.addObserverForName(std::to_string(i), [&, i](const Notification& n) {
            if (++calls[i] > 1) return;
            ranOn[i] = std::this_thread::get_id();
            EXPECT_EQ(n.userInfo(), (Dictionary{{"k", i}}));
            bothRunning.arrive_and_wait();
            center.removeObserver(tokens[1 - i]);
        });
    std::thread first([&] { center.postNotificationName("0", Value(), Dictionary{{"k", 0}}); }),
        second([&] { center.postNotificationName("1", Value(), Dictionary{{"k", 1}}); });
    const std::thread::id posters[2] = {first.get_id(), second.get_id()};
    first.join();
    second.join();
    for (const char* name : {"0", "1"}) center.postNotificationName(name);  // both removals took effect
    EXPECT_EQ(calls[0].load(), 1);
    EXPECT_EQ(calls[1].load(), 1);
    EXPECT_EQ(ranOn[0], posters[0]);
    EXPECT_EQ(ranOn[1], posters[1]);
}

}  // namespace
