#pragma once

// What the manager's tests share: a caller's view of one request (which
// callback came, with what, on which thread) and a way to wait for it on the
// real main queue.

#include <krcommon/http/KRSDKMemberHttpManager.h>
#include <krcommon/platform/dispatch/MainQueue.h>

#include <gtest/gtest.h>

#include <memory>

namespace krcommon::test {

struct Outcome {
    int calls = 0;
    bool succeeded = false;
    bool onMainQueue = false;
    std::shared_ptr<platform::URLSessionDataTask> task;
    platform::Value object;
    std::shared_ptr<platform::Error> error;
};

/// Callbacks that fill `outcome`; the outcome lives as long as the callbacks.
inline std::pair<KRSDKMemberHttpManager::Success, KRSDKMemberHttpManager::Failure> callbacksInto(
    const std::shared_ptr<Outcome>& outcome) {
    auto success = [outcome](const std::shared_ptr<platform::URLSessionDataTask>& task, const platform::Value& object) {
        ++outcome->calls;
        outcome->succeeded = true;
        outcome->onMainQueue = platform::MainQueue::isMainThread();
        outcome->task = task;
        outcome->object = object;
    };
    auto failure = [outcome](const std::shared_ptr<platform::URLSessionDataTask>& task, const platform::Value& object,
                             const std::shared_ptr<platform::Error>& error) {
        ++outcome->calls;
        outcome->succeeded = false;
        outcome->onMainQueue = platform::MainQueue::isMainThread();
        outcome->task = task;
        outcome->object = object;
        outcome->error = error;
    };
    return {success, failure};
}

/// Pumps the main queue until the outcome has its callback (or 20 s pass), then
/// a little longer so that a second callback would be seen.
inline bool waitFor(const std::shared_ptr<Outcome>& outcome, double seconds = 20) {
    const bool arrived = platform::MainQueue::runUntil([&] { return outcome->calls > 0; }, seconds);
    platform::MainQueue::runUntil([] { return false; }, 0.02);
    return arrived;
}

}  // namespace krcommon::test
