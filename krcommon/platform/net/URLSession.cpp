#include <krcommon/platform/net/URLSession.h>

#include <krcommon/platform/core/Format.h>
#include <krcommon/platform/net/detail/SessionCore.h>

namespace krcommon::platform {

struct URLSession::Private {};

URLSession::URLSession(const Private&, std::shared_ptr<detail::SessionCore> core) : core_(std::move(core)) {}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    const std::shared_ptr<URLSessionConfiguration>& configuration, std::weak_ptr<URLSessionDelegate> delegate,
    std::shared_ptr<OperationQueue> delegateQueue) {
    auto core = std::make_shared<detail::SessionCore>(configuration ? *configuration : URLSessionConfiguration(),
                                                      std::move(delegate), std::move(delegateQueue));
    auto session = std::make_shared<URLSession>(Private{}, core);
    core->session = session;
    return session;
}

URLSession::~URLSession() { core_->invalidate(); }

std::shared_ptr<URLSessionDataTask> URLSession::dataTaskWithRequest(const URLRequest& request) {
    return std::make_shared<URLSessionDataTask>(core_, ++core_->lastIdentifier, request);
}

std::shared_ptr<URLSessionDownloadTask> URLSession::downloadTaskWithRequest(const URLRequest& request) {
    return std::make_shared<URLSessionDownloadTask>(core_, ++core_->lastIdentifier, request);
}

const URLSessionConfiguration& URLSession::configuration() const noexcept { return core_->configuration; }
const std::shared_ptr<OperationQueue>& URLSession::delegateQueue() const noexcept { return core_->events->queue(); }
std::size_t URLSession::runningTaskCount() const noexcept { return core_->running.load(std::memory_order_relaxed); }

URLSessionTask::URLSessionTask(std::shared_ptr<detail::SessionCore> session, std::uint64_t identifier,
                               URLRequest request)
    : session_(std::move(session)), identifier_(identifier), request_(std::move(request)) {}

URLSessionTask::~URLSessionTask() = default;

std::shared_ptr<URLResponse> URLSessionTask::response() const {
    std::lock_guard lock(mutex_);
    return response_;
}

std::shared_ptr<Error> URLSessionTask::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

void URLSessionTask::resume() {
    auto expected = URLSessionTaskState::Suspended;
    if (started_.exchange(true)) return;
    if (!state_.compare_exchange_strong(expected, URLSessionTaskState::Running)) return;
    session_->start(shared_from_this());
}

void URLSessionTask::cancel() {
    auto state = state_.load(std::memory_order_acquire);
    while (state == URLSessionTaskState::Running || state == URLSessionTaskState::Suspended) {
        if (state_.compare_exchange_weak(state, URLSessionTaskState::Canceling)) break;
    }
    if (state != URLSessionTaskState::Running && state != URLSessionTaskState::Suspended) return;
    if (state == URLSessionTaskState::Suspended && !started_.exchange(true)) {
        // Never started: it completes through the engine like any other task.
        session_->start(shared_from_this());
        return;
    }
    session_->cancel(shared_from_this());
}

std::string URLSessionTask::description() const {
    static constexpr const char* names[] = {"running", "suspended", "canceling", "completed"};
    return format("<%@: %p> { taskIdentifier: %llu } { %s }", className(), static_cast<const void*>(this),
                  static_cast<unsigned long long>(identifier_), names[static_cast<int>(state())]);
}

std::string ServerTrust::description() const {
    return format("<ServerTrust: %p> { host: %@, certificates: %lu, trusted: %s }", static_cast<const void*>(this),
                  host_, static_cast<unsigned long>(certificates_.size()), isTrusted() ? "yes" : "no");
}

}  // namespace krcommon::platform
