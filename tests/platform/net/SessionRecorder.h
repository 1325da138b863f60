#pragma once

// A session delegate for the session tests: it writes down what each task was told, in order.

#include <krcommon/platform/net/URLSession.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace krcommon::platform {

using D = URLSessionAuthChallengeDisposition;

// A delegate that writes down each task's events ("response,data,complete"), body and error, notes any
// event off its delegate queue, and answers challenges and responses as the test says.
class Recorder final : public URLSessionDelegate, public URLSessionChallengeDelegate,
                       public URLSessionTaskCompletionDelegate, public URLSessionDataResponseDelegate,
                       public URLSessionDataReceiveDelegate {
public:
    struct Seen {
        std::string events, body;
        std::shared_ptr<Error> error;
    };
    std::shared_ptr<OperationQueue> queue = std::make_shared<OperationQueue>(1);
    std::function<void(const std::shared_ptr<URLAuthenticationChallenge>&, URLSessionChallengeCompletion)> onChallenge;
    enum class Respond { Allow, Refuse, HoldFirst } respond = Respond::Allow;  // HoldFirst: task 1's answer waits
    URLSessionResponseCompletion held;

    void didReceiveChallenge(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLAuthenticationChallenge>& c,
                             URLSessionChallengeCompletion completion) override {
        note(0, "challenge", [&](Seen&) { challenges.push_back(c); });
        if (onChallenge) onChallenge(c, std::move(completion));
        else completion(D::PerformDefaultHandling, nullptr);
    }
    void didReceiveResponse(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDataTask>& task,
                            const std::shared_ptr<URLResponse>&, URLSessionResponseCompletion completion) override {
        note(task->taskIdentifier(), "response", [&](Seen&) {
            if (respond == Respond::HoldFirst && task->taskIdentifier() == 1) held = std::move(completion);
        });
        if (completion) completion(respond == Respond::Refuse ? URLSessionResponseDisposition::Cancel : URLSessionResponseDisposition::Allow);
    }
    void didReceiveData(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionDataTask>& task,
                        std::optional<std::span<const std::uint8_t>> data) override {
        note(task->taskIdentifier(), "data", [&](Seen& seen) { seen.body.append(data->begin(), data->end()); });
    }
    void didCompleteWithError(const std::shared_ptr<URLSession>&, const std::shared_ptr<URLSessionTask>& task,
                              const std::shared_ptr<Error>& error) override {
        note(task->taskIdentifier(), "complete", [&](Seen& seen) { seen.error = error; });
        done.notify_all();
    }
    // Answers the held response from another thread, once the test has seen it asked: Allow, or dropped unanswered.
    void release(bool allow) {
        std::thread([completion = std::move(held), allow] {
            if (allow) completion(URLSessionResponseDisposition::Allow);
        }).join();
    }
    bool waitForCompletion(std::uint64_t task) {
        std::unique_lock lock(mutex);
        return done.wait_for(lock, std::chrono::seconds(20), [&] { return tasks[task].events.ends_with("complete"); });
    }
    Seen of(std::uint64_t task) {
        std::lock_guard lock(mutex);
        return tasks[task];
    }

    std::mutex mutex;
    std::condition_variable done;
    std::map<std::uint64_t, Seen> tasks;
    std::vector<std::shared_ptr<URLAuthenticationChallenge>> challenges;
    bool offQueue = false;

private:
    void note(std::uint64_t task, const char* event, const std::function<void(Seen&)>& more = {}) {
        std::lock_guard lock(mutex);
        offQueue |= !queue->isCurrent();
        auto& seen = tasks[task];
        seen.events += (seen.events.empty() ? "" : ",") + std::string(event);
        if (more) more(seen);
    }
};

inline URLRequest requestFor(const std::string& text, double timeout = 10) {
    return URLRequest(URL::URLWithString(text), timeout);
}

}  // namespace krcommon::platform
