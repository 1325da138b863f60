#pragma once

// A caller's view of one manager request: which callback came, how often, with
// what and on which thread, filled on the real main queue.

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <gtest/gtest.h>

namespace krcommon::test {

struct Outcome {
    int calls = 0;
    std::shared_ptr<platform::URLSessionDataTask> task;
    platform::Value object;
    std::shared_ptr<platform::Error> error;  // nullptr after success
};

/// Starts a request with `start(success, failure)` and pumps the main queue until its callback has come (on
/// the main queue), then lets the delegate and main queues run dry, so that a second one would be seen too.
template <class Start>
std::shared_ptr<Outcome> run(KRSDKMemberHttpManager& manager, Start start) {
    auto o = std::make_shared<Outcome>();  // the callbacks keep it alive
    const auto note = [o](const auto& task, const platform::Value& object, const std::shared_ptr<platform::Error>& e) {
        EXPECT_TRUE(platform::MainQueue::isMainThread());
        *o = {o->calls + 1, task, object, e};
    };
    start([note](const auto& task, const auto& object) { note(task, object, nullptr); }, note);
    EXPECT_TRUE(platform::MainQueue::runUntil([&] { return o->calls > 0; }, 20));
    manager.operationQueue()->waitUntilAllOperationsAreFinished();
    platform::MainQueue::drain();
    EXPECT_EQ(o->calls, 1);
    return o;
}

}  // namespace krcommon::test
