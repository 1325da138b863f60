// 10,000 requests through one manager, each answered once, with flat memory. A program of
// its own (CTest label "load"), run once by `make test-load`.

#include "support/TestServer.h"

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <gtest/gtest.h>
#include <malloc.h>

namespace krcommon {
namespace {

using platform::Value;

TEST(ManagerLoadTest, TenThousandRequestsSixtyFourInFlightEachAnsweredOnceWithFlatMemory) {
    // The server answers unrecorded, with a thread for every connection.
    auto server = test::TestServer::http();
    httplib::Server& http = server->server();
    http.new_task_queue = [] { return new httplib::ThreadPool(96); };
    const auto ok = [](const auto&, auto& res) { res.set_content(R"({"ok":1})", "application/json"); };
    http.Get("/load", ok).Post("/load", ok);
    server->start();
    const std::string url = server->origin("http") + "/load";

    auto manager = KRSDKMemberHttpManager::create();
    manager->sessionConfiguration()->setHTTPMaximumConnectionsPerHost(64);
    manager->setValue("identity", "Accept-Encoding");  // keep the server from compressing every answer
    // GET and POST in turn; each answer starts the next request from the main queue, as a host would.
    int started = 0, total = 0, answered = 0, failures = 0;
    std::vector<int> callbacksPerTask(10001, 0);  // by task identifier, allocated up front
    std::function<void()> startOne = [&] {
        const auto answer = [&](const std::shared_ptr<platform::URLSessionDataTask>& task, const std::string& fault) {
            if (!fault.empty() && failures++ == 0) ADD_FAILURE() << fault;
            ++callbacksPerTask.at(task ? task->taskIdentifier() : 0), ++answered;
            if (started < total) startOne();
        };
        auto success = [=](const auto& task, const Value& object) { answer(task, object["ok"] == Value(1) ? "" : "bad answer"); };
        auto failure = [=](const auto& task, const Value&, const auto& error) { answer(task, error->description()); };
        const Value params(platform::Dictionary{{"n", std::to_string(++started)}});
        if (started % 2) manager->GET(url, Value(), params, std::nullopt, success, failure);
        else manager->POST(url, Value(), params, std::nullopt, false, success, failure);
    };
    const auto run = [&](int count) {
        total += count;
        for (int i = 0; i < 64; ++i) startOne();
        return platform::MainQueue::runUntil([&] { return answered == total; }, 300);
    };
    ASSERT_TRUE(run(2000));  // warm up: connections, pools, allocator
    const std::size_t heapAfterWarmUp = mallinfo2().uordblks;
    ASSERT_TRUE(run(8000));
    manager->operationQueue()->waitUntilAllOperationsAreFinished();
    platform::MainQueue::drain();
    const std::size_t heapAtEnd = mallinfo2().uordblks;

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(std::count(callbacksPerTask.begin() + 1, callbacksPerTask.end(), 1), 10000);
    EXPECT_EQ(callbacksPerTask[0], 0) << "a callback without task";
    EXPECT_TRUE(manager->mutableTaskHandlerByTaskIdentifier().empty());
    // 8000 more requests may not leave more than a few dozen bytes each behind. (Under a
    // sanitizer the heap is not glibc's and the check holds trivially.)
    EXPECT_LT(heapAtEnd > heapAfterWarmUp ? heapAtEnd - heapAfterWarmUp : 0, 512u * 1024u);
}

}  // namespace
}  // namespace krcommon
