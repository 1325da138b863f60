#include <krcommon/platform/net/detail/TransferEngine.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace krcommon::platform::detail {

namespace {

thread_local bool onEngineThread = false;

std::uint32_t epollEventsFor(int what) noexcept {
    std::uint32_t events = 0;
    if (what & CURL_POLL_IN) events |= EPOLLIN;
    if (what & CURL_POLL_OUT) events |= EPOLLOUT;
    return events;
}

int readinessFor(std::uint32_t events) noexcept {
    int readiness = 0;
    if (events & (EPOLLIN | EPOLLHUP | EPOLLRDHUP)) readiness |= CURL_CSELECT_IN;
    if (events & EPOLLOUT) readiness |= CURL_CSELECT_OUT;
    if (events & EPOLLERR) readiness |= CURL_CSELECT_ERR;
    return readiness;
}

}  // namespace

TransferEngine& TransferEngine::shared() {
    // Never destroyed: sessions held by other static objects may still post while the
    // process exits. The thread itself is stopped and joined at exit, before the TLS
    // library cleans up after itself (atexit handlers run in reverse order).
    static TransferEngine* const engine = [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        auto* made = new TransferEngine();
        std::atexit([] { TransferEngine::shared().stop(); });
        return made;
    }();
    return *engine;
}

TransferEngine::TransferEngine() {
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wake_;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event);
    thread_ = std::thread([this] { run(); });
}

bool TransferEngine::isEngineThread() const noexcept { return onEngineThread; }

void TransferEngine::post(std::function<void()> command) {
    bool wake = false;
    {
        std::lock_guard lock(mutex_);
        if (!stopping_) {
            commands_.push_back(std::move(command));
            wake = sleeping_ && !wakePending_;
            if (wake) wakePending_ = true;
        }
    }
    // A command dropped at exit is destroyed here, outside the lock: it may hold the
    // last reference to a session.
    if (wake) this->wake();
}

void TransferEngine::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    const std::uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
    if (thread_.joinable()) thread_.join();
}

void TransferEngine::watchSocket(curl_socket_t fd, int what, Client& owner) {
    if (fd < 0) return;
    const auto index = static_cast<std::size_t>(fd);
    if (what == CURL_POLL_REMOVE) {
        // A descriptor now watched for another session was closed and reused: leave it be.
        if (index < watched_.size() && watched_[index].owner == &owner) {
            ::epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
            watched_[index] = Watched{};
            --watchedCount_;
        }
        return;
    }
    if (index >= watched_.size()) watched_.resize(std::max(index + 1, watched_.size() * 2));
    Watched& entry = watched_[index];
    epoll_event event{};
    event.events = epollEventsFor(what);
    event.data.fd = fd;
    if (entry.owner == &owner && entry.events == event.events) return;
    // The descriptor may have been closed and reused without a word: then epoll has
    // forgotten it already, and adding is what works.
    if (::epoll_ctl(epoll_, entry.owner ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event) != 0) {
        ::epoll_ctl(epoll_, entry.owner ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
    }
    if (!entry.owner) ++watchedCount_;
    entry = Watched{&owner, event.events};
}

void TransferEngine::setDeadline(Client& client, std::optional<Clock::time_point> when) {
    if (client.deadline_ == when) return;
    if (client.deadline_) deadlines_.erase({*client.deadline_, &client});
    client.deadline_ = when;
    if (when) deadlines_.emplace(*when, &client);
}

void TransferEngine::touch(Client& client) {
    if (client.touched_) return;
    client.touched_ = true;
    touched_.push_back(&client);
}

void TransferEngine::forget(Client& client) {
    for (std::size_t fd = 0; fd < watched_.size(); ++fd) {
        if (watched_[fd].owner != &client) continue;
        ::epoll_ctl(epoll_, EPOLL_CTL_DEL, static_cast<int>(fd), nullptr);
        watched_[fd] = Watched{};
        --watchedCount_;
    }
    setDeadline(client, std::nullopt);
    if (client.touched_) {
        std::erase(touched_, &client);
        client.touched_ = false;
    }
}

bool TransferEngine::runRoundIfIdle(const std::function<void()>& work) {
    if (onEngineThread) return false;  // inside a round already: the caller posts instead
    std::unique_lock round(roundMutex_, std::try_to_lock);
    if (!round) return false;
    // With transfers on the wire the engine wakes for their sockets soon: it takes the work in
    // that round, and the caller's rounds never contend with the engine's for the lock.
    if (watchedCount_ != 0) return false;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return false;
    }
    onEngineThread = true;
    roundTime_ = Clock::now();
    work();
    endRound();
    onEngineThread = false;
    // The engine waits until its planned time, or until a socket it watches is ready: a
    // deadline set here before that time needs it awake.
    const bool earlier = !deadlines_.empty() && deadlines_.begin()->first < plannedWake_;
    round.unlock();
    if (earlier) wake();
    return true;
}

void TransferEngine::wake() {
    const std::uint64_t one = 1;
    while (::write(wake_, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void TransferEngine::endRound() {
    std::vector<Client*> ending;
    ending.swap(touched_);
    for (Client* client : ending) client->touched_ = false;
    for (Client* client : ending) client->endOfRound();
}

void TransferEngine::run() {
    ::pthread_setname_np(::pthread_self(), "kr.transfer");
    std::vector<epoll_event> ready(256);
    std::vector<std::function<void()>> commands;
    std::vector<Client*> due;
    std::unique_lock round(roundMutex_);
    while (true) {
        // An idle engine still looks once a second: deadlines further out need no wake-up.
        roundTime_ = Clock::now();
        int timeout = 1000;
        if (!deadlines_.empty()) {
            const auto left = deadlines_.begin()->first - roundTime_;
            const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            timeout = static_cast<int>(std::clamp<long long>(ms, 0, timeout));
        }
        {
            std::lock_guard lock(mutex_);
            if (stopping_) break;
            if (!commands_.empty()) timeout = 0;
            sleeping_ = timeout != 0;
        }
        plannedWake_ = roundTime_ + std::chrono::milliseconds(timeout);
        onEngineThread = false;
        round.unlock();
        const int count = ::epoll_wait(epoll_, ready.data(), static_cast<int>(ready.size()), timeout);
        round.lock();
        onEngineThread = true;
        {
            std::lock_guard lock(mutex_);
            sleeping_ = false;
            wakePending_ = false;
            commands.swap(commands_);
        }
        roundTime_ = Clock::now();

        for (int i = 0; i < count; ++i) {
            const int fd = ready[static_cast<std::size_t>(i)].data.fd;
            if (fd == wake_) {
                std::uint64_t signals = 0;
                (void)!::read(wake_, &signals, sizeof signals);
                continue;
            }
            const auto index = static_cast<std::size_t>(fd);
            Client* owner = index < watched_.size() ? watched_[index].owner : nullptr;
            if (!owner) continue;  // removed since the wait ended
            touch(*owner);
            owner->onSocket(fd, readinessFor(ready[static_cast<std::size_t>(i)].events));
        }

        for (auto& command : commands) command();
        commands.clear();  // what the commands held goes here, inside the round

        // Each client whose deadline has come runs once a round; one that asks to run
        // again at once gets the next round, after the sockets.
        while (!deadlines_.empty() && deadlines_.begin()->first <= roundTime_) {
            Client* client = deadlines_.begin()->second;
            deadlines_.erase(deadlines_.begin());
            client->deadline_.reset();
            due.push_back(client);
        }
        for (Client* client : due) {
            touch(*client);
            client->onDeadline(roundTime_);
        }
        due.clear();
        endRound();
    }
    onEngineThread = false;
}

}  // namespace krcommon::platform::detail
