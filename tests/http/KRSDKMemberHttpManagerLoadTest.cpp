#include "http/HttpTestSupport.h"
#include "support/TestServer.h"

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <gtest/gtest.h>
#include <malloc.h>

#include <unordered_map>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KRCOMMON_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KRCOMMON_TEST_SANITIZED 1
#endif
#endif

namespace krcommon {
namespace {

using platform::Value;

std::size_t heapInUse() { return mallinfo2().uordblks; }

// Keeps `inFlight` requests running on one manager until `total` have been
// answered, from the main queue as a host would; answers how many callbacks
// each task got.
struct LoadRun {
    std::shared_ptr<KRSDKMemberHttpManager> manager;
    std::string url;
    int total = 0;
    int started = 0;
    int answered = 0;
    int failures = 0;
    std::vector<int> callbacksPerTask = std::vector<int>(20001, 0);  // by task identifier, allocated up front

    void startOne() {
        ++started;
        const bool post = started % 2 == 0;
        auto success = [this](const std::shared_ptr<platform::URLSessionDataTask>& task, const Value& object) {
            ++callbacksPerTask.at(task->taskIdentifier());
            if (object["ok"] != Value(1)) ++failures;
            next();
        };
        auto failure = [this](const std::shared_ptr<platform::URLSessionDataTask>& task, const Value&,
                              const std::shared_ptr<platform::Error>& error) {
            if (failures < 5) ADD_FAILURE() << error->description();
            ++callbacksPerTask.at(task ? task->taskIdentifier() : 0);
            ++failures;
            next();
        };
        if (post) {
            manager->POST(url, Value(), Value(platform::Dictionary{{"n", started}}), std::nullopt, false, success, failure);
        } else {
            manager->GET(url, Value(), Value(platform::Dictionary{{"n", std::to_string(started)}}), std::nullopt, success,
                         failure);
        }
    }
    void next() {
        ++answered;
        if (started < total) startOne();
    }
    bool run(int count, int inFlight) {
        total += count;
        const int target = answered + count;
        for (int i = 0; i < inFlight && started < total; ++i) startOne();
        return platform::MainQueue::runUntil([&] { return answered >= target; }, 300);
    }
};

TEST(ManagerLoadTest, TenThousandRequestsSixtyFourInFlightEachAnsweredOnceWithFlatMemory) {
    auto server = test::TestServer::http();
    server->setRecording(false);
    server->route("GET", "/load", [](const auto&, auto& res) { res.set_content(R"({"ok":1})", "application/json"); });
    server->route("POST", "/load", [](const auto&, auto& res) { res.set_content(R"({"ok":1})", "application/json"); });
    server->start();

    LoadRun load;
    load.manager = KRSDKMemberHttpManager::create();
    load.manager->sessionConfiguration()->setHTTPMaximumConnectionsPerHost(64);
    load.manager->setValue("identity", "Accept-Encoding");  // keep the test server from compressing every answer
    load.url = server->origin("http") + "/load";

    ASSERT_TRUE(load.run(2000, 64));  // warm up: connections, pools, allocator
    platform::MainQueue::drain();
    const std::size_t heapAfterWarmUp = heapInUse();
    ASSERT_TRUE(load.run(8000, 64));
    platform::MainQueue::runUntil([] { return false; }, 0.05);
    const std::size_t heapAtEnd = heapInUse();

    EXPECT_EQ(load.answered, 10000);
    EXPECT_EQ(load.failures, 0);
    int notOnce = 0;
    for (std::size_t id = 1; id <= 10000; ++id) notOnce += load.callbacksPerTask[id] != 1;
    EXPECT_EQ(notOnce, 0);
    EXPECT_EQ(load.callbacksPerTask[0], 0) << "a callback without task";
    EXPECT_TRUE(load.manager->mutableTaskHandlerByTaskIdentifier().empty());
    EXPECT_EQ(load.manager->session()->runningTaskCount(), 0u);
#ifndef KRCOMMON_TEST_SANITIZED
    // 8000 more requests may not leave more than a few hundred bytes each behind.
    const auto grown = heapAtEnd > heapAfterWarmUp ? heapAtEnd - heapAfterWarmUp : 0;
    EXPECT_LT(grown, 512u * 1024u) << "heap grew by " << grown << " bytes";
#else
    (void)heapAfterWarmUp;
    (void)heapAtEnd;
#endif
}

}  // namespace
}  // namespace krcommon
