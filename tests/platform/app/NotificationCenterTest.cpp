#include <krcommon/platform/app/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace krcommon::platform;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

// A block that appends "who:name" to `log` (used from one thread only).
static NotificationCenter::Block recorder(Strings& log, std::string who) {
    return [&log, who](const Notification& n) { log.push_back(who + ":" + n.name()); };
}

TEST(NotificationCenter, DeliversInRegistrationOrderToMatchingNamesUntilRemoved) {
    NotificationCenter center, other;
    Strings journal;
    const auto a = center.addObserverForName("x", recorder(journal, "A"));
    const auto b = center.addObserverForName(std::nullopt, recorder(journal, "B"));
    center.addObserverForName("y", recorder(journal, "C"));
    center.addObserverForName("x", recorder(journal, "D"));
    const std::pair<const char*, Strings> rows[] = {
        {"x", {"A:x", "B:x", "D:x"}}, {"y", {"B:y", "C:y"}}, {"X", {"B:X"}}, {"", {"B:"}}};
    for (const auto& [name, expected] : rows) {
        center.postNotificationName(name);
        EXPECT_EQ(std::exchange(journal, {}), expected) << name;
    }
    center.removeObserver(a);
    center.removeObserver(a);
    center.removeObserver(nullptr);
    other.removeObserver(b);  // not this center's token: ignored
    center.postNotificationName("x");
    EXPECT_EQ(std::exchange(journal, {}), (Strings{"B:x", "D:x"}));

    // A throwing block stops the post, skipping later observers, and leaves no
    // record of the call behind: removing it from another thread returns.
    const auto thrower = center.addObserverForName("x", [](const Notification&) { throw std::runtime_error("x"); });
    center.addObserverForName("x", recorder(journal, "E"));
    EXPECT_THROW(center.postNotificationName("x"), std::runtime_error);
    EXPECT_EQ(std::exchange(journal, {}), (Strings{"B:x", "D:x"}));
    std::async(std::launch::async, [&] { center.removeObserver(thrower); }).get();
    center.postNotificationName("x");
    EXPECT_EQ(std::exchange(journal, {}), (Strings{"B:x", "D:x", "E:x"}));
}

TEST(NotificationCenter, BlocksMayChangeRegistrationsAndPostWhileDelivering) {
    NotificationCenter center;
    Strings journal;
    std::shared_ptr<NotificationCenter::Token> self, later;
    self = center.addObserverForName("n", [&](const Notification& n) {
        recorder(journal, "self")(n);
        center.removeObserver(self);
        center.removeObserver(later);
        center.addObserverForName("n", recorder(journal, "added"));
        center.postNotificationName("inner");
    });
    center.addObserverForName("inner", recorder(journal, "inner"));
    later = center.addObserverForName("n", recorder(journal, "later"));
    center.postNotificationName("n");
    EXPECT_EQ(std::exchange(journal, {}), (Strings{"self:n", "inner:inner"}));
    center.postNotificationName("n");
    EXPECT_EQ(std::exchange(journal, {}), Strings{"added:n"});
}

// Posters and a thread that keeps adding and removing observers run together;
// no post loses a delivery, and once removeObserver() returns the removed block
// neither starts again nor is still running (it sleeps so that removal nearly
// always finds a call in progress).
TEST(NotificationCenter, ConcurrentPostsAndNoCallAfterRemovalReturns) {
    NotificationCenter center;
    std::atomic<bool> removed{false}, stop{false};
    std::atomic<int> calls{0}, late{0}, posted{0}, counted{0};
    center.addObserverForName("n", [&](const Notification&) { counted.fetch_add(1); });
    const auto token = center.addObserverForName("n", [&](const Notification&) {
        if (removed) ++late;
        calls.fetch_add(1);
        std::this_thread::sleep_for(50us);
        if (removed) ++late;
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
    std::this_thread::sleep_for(20ms);
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(counted.load(), posted.load());
}

// Two blocks running on two threads each remove the other: waiting for each
// other would never end, so one of the removals returns without waiting.
TEST(NotificationCenter, MutualRemovalFromRunningBlocksDoesNotDeadlock) {
    NotificationCenter center;
    std::barrier bothRunning(2);
    std::atomic<int> calls[2] = {0, 0};
    std::shared_ptr<NotificationCenter::Token> tokens[2];
    for (int i = 0; i < 2; ++i)
        tokens[i] = center.addObserverForName(std::to_string(i), [&, i](const Notification&) {
            if (++calls[i] > 1) return;
            bothRunning.arrive_and_wait();
            center.removeObserver(tokens[1 - i]);
        });
    std::thread first([&] { center.postNotificationName("0"); }), second([&] { center.postNotificationName("1"); });
    first.join();
    second.join();
    for (const char* name : {"0", "1"}) center.postNotificationName(name);  // both removals took effect
    EXPECT_EQ(calls[0].load(), 1);
    EXPECT_EQ(calls[1].load(), 1);
}

TEST(NotificationCenter, DefaultCenterIsSharedAndDeliversOnThePostingThread) {
    auto& center = NotificationCenter::defaultCenter();
    const auto sender = std::make_shared<Object>();
    std::optional<std::pair<Notification, std::thread::id>> seen;
    const auto token = center.addObserverForName(
        "krcommon.test", [&](const Notification& n) { seen.emplace(n, std::this_thread::get_id()); });
    std::thread poster([&] {
        NotificationCenter::defaultCenter().postNotificationName("krcommon.test", sender, Dictionary{{"k", 1}});
    });
    const auto posterId = poster.get_id();
    poster.join();
    center.removeObserver(token);
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->second, posterId);
    EXPECT_EQ(seen->first.object().objectAs<Object>(), sender);
    EXPECT_EQ(seen->first.userInfo(), (Dictionary{{"k", 1}}));
}
