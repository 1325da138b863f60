#pragma once

// The process's one transfer engine. A single thread, started on first use,
// waits in epoll on the sockets of every session's transfers and on their
// timers, and hands each readiness or expiry to the session that owns it; the
// session then drives its own libcurl multi handle with
// curl_multi_socket_action(). Other threads reach the engine through post(),
// which runs a command on the engine thread at its next round, or, while the
// engine waits, through runRoundIfIdle(), which runs a round on the calling
// thread at once: a request started while nothing else is running goes out
// without waking the engine first. Rounds never overlap: whoever runs one holds
// the engine's round lock.
//
// A round runs transfer work only: it never calls a delegate and never waits on
// one beyond the short, bounded wait of a trust decision.

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace krcommon::platform::detail {

class TransferEngine {
public:
    using Clock = std::chrono::steady_clock;

    /// What the engine drives: a session's multi handle. Every member is called on the engine thread.
    class Client {
    public:
        /// `fd` is ready; `readiness` holds CURL_CSELECT_IN, _OUT and _ERR bits.
        virtual void onSocket(curl_socket_t fd, int readiness) = 0;
        /// The deadline last set with setDeadline() has come.
        virtual void onDeadline(Clock::time_point now) = 0;
        /// Called once at the end of every round in which the client was touched (touch(),
        /// onSocket(), onDeadline()): the place to hand a round's events on and to set the
        /// next deadline.
        virtual void endOfRound() = 0;

    protected:
        Client() = default;
        ~Client() = default;
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

    private:
        friend class TransferEngine;
        std::optional<Clock::time_point> deadline_;
        bool touched_ = false;
    };

    /// The engine, started on the first call. It stops when the process exits.
    static TransferEngine& shared();

    /// Runs `command` on the engine thread at its next round, in the order posted. Callable
    /// from any thread. Once the process is exiting, commands are dropped unrun.
    void post(std::function<void()> command);

    /// Runs `work` at once on the calling thread as a round of the engine's, when the engine
    /// is waiting with no socket to watch and no other round runs; answers false, without
    /// running it, otherwise (also when called from inside a round).
    bool runRoundIfIdle(const std::function<void()>& work);

    /// Whether the calling thread is running a round (the engine thread's own, or one run
    /// by runRoundIfIdle()).
    [[nodiscard]] bool isEngineThread() const noexcept;

    // ---- inside a round only

    /// Follows a libcurl socket callback: watch `fd` for `what` (CURL_POLL_IN, _OUT, _INOUT)
    /// on behalf of `owner`, or stop watching it (CURL_POLL_REMOVE).
    void watchSocket(curl_socket_t fd, int what, Client& owner);
    /// Calls `client.onDeadline()` once `when` has come; nullopt cancels.
    void setDeadline(Client& client, std::optional<Clock::time_point> when);
    /// Makes sure `client.endOfRound()` runs at the end of this round.
    void touch(Client& client);
    /// Drops every socket, deadline and pending end of round of `client`, which is going away.
    void forget(Client& client);
    /// When the current round started: a cheap clock for the many callbacks of a round.
    [[nodiscard]] Clock::time_point roundTime() const noexcept { return roundTime_; }

private:
    TransferEngine();
    void run();
    void stop();
    void endRound();
    void wake();

    struct Watched {
        Client* owner = nullptr;
        std::uint32_t events = 0;
    };

    int epoll_ = -1;
    int wake_ = -1;  // an eventfd; written to end the engine's wait
    std::thread thread_;

    std::mutex roundMutex_;  // held by whoever runs a round; the engine lets go of it only to wait
    Clock::time_point plannedWake_{};  // when the waiting engine looks again at the latest

    std::mutex mutex_;  // guards the commands and the sleep flags
    std::vector<std::function<void()>> commands_;
    bool sleeping_ = false;
    bool wakePending_ = false;
    bool stopping_ = false;

    // Inside a round only.
    Clock::time_point roundTime_{};
    std::vector<Watched> watched_;  // by descriptor
    std::size_t watchedCount_ = 0;  // descriptors with an owner in watched_
    std::set<std::pair<Clock::time_point, Client*>> deadlines_;
    std::vector<Client*> touched_;
};

}  // namespace krcommon::platform::detail
