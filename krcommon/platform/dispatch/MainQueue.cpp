#include <krcommon/platform/dispatch/MainQueue.h>

#include <krcommon/platform/core/Exception.h>

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

namespace krcommon::platform {

namespace {

using Clock = MainQueue::Clock;
using Job = MainQueue::Job;

// Jobs run by due time, then by posting order. A job posted with async() is due
// at the moment it was posted.
struct Key {
    Clock::time_point due;
    std::uint64_t id;
    auto operator<=>(const Key&) const = default;
};

// The queued jobs: those posted with async() in a plain FIFO, which is already in
// key order and costs no node per job; delayed ones in a map, where a token finds them.
class Jobs {
public:
    [[nodiscard]] bool empty() const noexcept { return now_.empty() && later_.empty(); }
    // The earliest key. Requires !empty().
    [[nodiscard]] const Key& front() const noexcept {
        if (later_.empty()) return now_.front().first;
        if (now_.empty()) return later_.begin()->first;
        return std::min(now_.front().first, later_.begin()->first);
    }
    // Takes the earliest job out. Requires !empty().
    std::pair<Key, Job> pop() {
        if (!later_.empty() && (now_.empty() || later_.begin()->first < now_.front().first)) {
            auto node = later_.extract(later_.begin());
            return {node.key(), std::move(node.mapped())};
        }
        auto job = std::move(now_.front());
        now_.pop_front();
        return job;
    }
    void pushNow(Key key, Job job) { now_.emplace_back(key, std::move(job)); }
    void pushLater(Key key, Job job) { later_.emplace(key, std::move(job)); }
    // Withdraws a delayed job; answers the job, empty when it is not queued.
    Job withdraw(const Key& key) {
        auto node = later_.extract(key);
        return node ? std::move(node.mapped()) : Job();
    }

private:
    std::deque<std::pair<Key, Job>> now_;
    std::map<Key, Job> later_;
};

// Where the threads inside run(), runUntil() and drain() sleep. A condition
// variable would do, but glibc marks its mutex contended whenever a waiter wakes,
// so every wake-up of the main thread would cost a second system call when the
// mutex is released; the pump sleeps on a futex word instead. Changes are made
// under the queue's mutex, and `signal` mostly runs once it has been released.
class PumpSignal {
public:
    // Called with the queue's mutex held: the value to sleep on if nothing is to do.
    std::uint32_t prepare() noexcept {
        sleepers_.fetch_add(1, std::memory_order_relaxed);
        return word_.load(std::memory_order_relaxed);
    }
    // Called unlocked, after prepare(): returns on a signal, at `limit`, or spuriously.
    void sleep(std::uint32_t seen, std::optional<MainQueue::Clock::time_point> limit) noexcept {
        timespec at{};
        if (limit) {
            const auto since = limit->time_since_epoch();
            const auto secs = std::chrono::duration_cast<std::chrono::seconds>(since);
            at.tv_sec = static_cast<time_t>(secs.count());
            at.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(since - secs).count());
        }
        // Absolute time on the monotonic clock, the clock of MainQueue::Clock.
        ::syscall(SYS_futex, &word_, FUTEX_WAIT_BITSET_PRIVATE, seen, limit ? &at : nullptr, nullptr,
                  FUTEX_BITSET_MATCH_ANY);
    }
    // Called with the queue's mutex held again, after sleep().
    void finished() noexcept { sleepers_.fetch_sub(1, std::memory_order_relaxed); }
    // Wakes one sleeper, or all of them.
    void signal(bool all) noexcept {
        word_.fetch_add(1, std::memory_order_seq_cst);
        if (sleepers_.load(std::memory_order_seq_cst) == 0) return;
        ::syscall(SYS_futex, &word_, FUTEX_WAKE_PRIVATE, all ? INT_MAX : 1, nullptr, nullptr, 0);
    }

private:
    static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));
    std::atomic<std::uint32_t> word_{0};
    std::atomic<int> sleepers_{0};
};

struct State {
    std::mutex mutex;
    PumpSignal pump;                  // threads inside run(), runUntil(), drain()
    std::condition_variable timerCv;  // the thread handing delayed jobs to a dispatcher
    Jobs jobs;
    std::uint64_t nextId = 1;
    std::shared_ptr<const MainQueue::Dispatcher> dispatcher;
    std::unordered_set<std::uint64_t> handedOver;  // asyncAfter jobs given to the dispatcher, not yet run
    std::optional<std::thread::id> owner;          // the thread running a job now
    bool stopRequested = false;
    bool timerThreadStarted = false;
};

State& state() {
    // Never destroyed: jobs may be posted while the process exits, and the timer thread outlives main().
    static State* instance = new State;
    return *instance;
}

// How many pumps and jobs the calling thread is inside.
thread_local int mainDepth = 0;

// How many wake batches the calling thread holds, and whether it queued a job
// whose wake-up waits for the outermost one to end.
thread_local int batchDepth = 0;
thread_local bool batchOwesWake = false;

struct MainScope {
    MainScope() noexcept { ++mainDepth; }
    ~MainScope() { --mainDepth; }
    MainScope(const MainScope&) = delete;
    MainScope& operator=(const MainScope&) = delete;
};

// Takes the job by value so that what it captured is released before the caller relocks.
void invoke(Job job) {
    MainScope scope;
    job();
}

Clock::duration toDuration(double seconds) {
    constexpr double maxSeconds = 100.0 * 365 * 24 * 3600;  // keeps now() + delay in range
    if (!(seconds > 0)) return Clock::duration::zero();
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(seconds, maxSeconds)));
}

void requireJob(const Job& job, const char* function) {
    if (!job) {
        throw InternalInconsistencyException("Invalid parameter not satisfying: job", function, __FILE__, __LINE__);
    }
}

enum class Step { Ran, NothingDue, Busy };

// Runs the earliest job if it is due and this thread may run it. Called and
// returns with `lock` held; the job itself runs unlocked.
Step runOne(State& s, std::unique_lock<std::mutex>& lock) {
    if (s.dispatcher || s.jobs.empty() || s.jobs.front().due > Clock::now()) return Step::NothingDue;
    const auto me = std::this_thread::get_id();
    if (s.owner && *s.owner != me) return Step::Busy;

    Job job = std::move(s.jobs.pop().second);
    const auto previous = s.owner;
    s.owner = me;
    lock.unlock();
    struct Relock {
        State& s;
        std::unique_lock<std::mutex>& lock;
        std::optional<std::thread::id> previous;
        ~Relock() {
            lock.lock();
            s.owner = previous;
            if (!previous) {
                // A pump on another thread may take the next job. Rare enough that
                // the signal goes out under the lock.
                s.pump.signal(true);
            }
        }
    } relock{s, lock, previous};
    invoke(std::move(job));
    return Step::Ran;
}

// Sleeps until something may have changed for a pump on this thread, or until `limit`.
void waitForWork(State& s, std::unique_lock<std::mutex>& lock, std::optional<Clock::time_point> limit) {
    const bool mayRun = !s.dispatcher && !s.jobs.empty() && (!s.owner || *s.owner == std::this_thread::get_id());
    if (mayRun) limit = limit ? std::min(*limit, s.jobs.front().due) : s.jobs.front().due;
    const auto seen = s.pump.prepare();
    lock.unlock();
    s.pump.sleep(seen, limit);
    lock.lock();
    s.pump.finished();
}

// Hands every due job to the dispatcher, in order. Called and returns with `lock` held.
void handOverDue(State& s, std::unique_lock<std::mutex>& lock) {
    const auto now = Clock::now();
    std::vector<std::pair<std::uint64_t, Job>> due;
    while (!s.jobs.empty() && s.jobs.front().due <= now) {
        auto [key, job] = s.jobs.pop();
        s.handedOver.insert(key.id);
        due.emplace_back(key.id, std::move(job));
    }
    if (due.empty()) return;
    const auto dispatcher = s.dispatcher;
    lock.unlock();
    for (auto& [id, job] : due) {
        (*dispatcher)([id = id, job = std::move(job)]() mutable {
            auto& s = state();
            {
                std::lock_guard guard(s.mutex);
                if (s.handedOver.erase(id) == 0) return;  // cancelled after the hand-over
            }
            invoke(std::move(job));
        });
    }
    due.clear();
    lock.lock();
}

// While a dispatcher is installed, hands delayed jobs over as they fall due.
void timerLoop() {
    ::pthread_setname_np(::pthread_self(), "kr.maintimer");
    auto& s = state();
    std::unique_lock lock(s.mutex);
    for (;;) {
        if (!s.dispatcher || s.jobs.empty())
            s.timerCv.wait(lock);
        else if (const auto due = s.jobs.front().due; due > Clock::now())
            s.timerCv.wait_until(lock, due);
        else
            handOverDue(s, lock);
    }
}

}  // namespace

namespace {

// Queues a job due now; answers false when it went to the dispatcher instead.
bool enqueueNow(State& s, Job job) {
    std::unique_lock lock(s.mutex);
    if (const auto dispatcher = s.dispatcher) {
        lock.unlock();
        (*dispatcher)([job = std::move(job)]() mutable { invoke(std::move(job)); });
        return false;
    }
    s.jobs.pushNow(Key{Clock::now(), s.nextId++}, std::move(job));
    return true;
}

}  // namespace

void MainQueue::async(Job job) {
    requireJob(job, __func__);
    auto& s = state();
    if (!enqueueNow(s, std::move(job))) return;
    batchOwesWake = false;  // this wake-up covers what the batch queued before
    s.pump.signal(false);
}

void MainQueue::asyncBatched(Job job) {
    requireJob(job, __func__);
    auto& s = state();
    if (!enqueueNow(s, std::move(job))) return;
    if (batchDepth > 0) {
        batchOwesWake = true;
        return;
    }
    s.pump.signal(false);
}

MainQueue::WakeBatch::WakeBatch() noexcept { ++batchDepth; }

MainQueue::WakeBatch::~WakeBatch() {
    if (--batchDepth > 0 || !batchOwesWake) return;
    batchOwesWake = false;
    state().pump.signal(false);
}

MainQueue::Token MainQueue::asyncAfter(double seconds, Job job) {
    requireJob(job, __func__);
    auto& s = state();
    std::unique_lock lock(s.mutex);
    const Key key{Clock::now() + toDuration(seconds), s.nextId++};
    s.jobs.pushLater(key, std::move(job));
    const bool dispatching = s.dispatcher != nullptr;
    lock.unlock();
    if (dispatching)
        s.timerCv.notify_one();
    else
        s.pump.signal(false);
    return Token(key.due, key.id);
}

bool MainQueue::cancel(const Token& token) {
    if (!token.isValid()) return false;
    auto& s = state();
    std::unique_lock lock(s.mutex);
    if (Job withdrawn = s.jobs.withdraw(Key{token.due_, token.id_})) {
        lock.unlock();  // the job's captures are released unlocked
        return true;
    }
    return s.handedOver.erase(token.id_) > 0;
}

void MainQueue::run() {
    auto& s = state();
    MainScope scope;
    std::unique_lock lock(s.mutex);
    for (;;) {
        if (s.stopRequested) {
            s.stopRequested = false;
            return;
        }
        if (runOne(s, lock) != Step::Ran) waitForWork(s, lock, std::nullopt);
    }
}

bool MainQueue::runUntil(const std::function<bool()>& predicate, double timeoutSeconds) {
    constexpr auto pollInterval = std::chrono::milliseconds(10);
    auto& s = state();
    MainScope scope;
    const auto deadline = Clock::now() + toDuration(timeoutSeconds);
    for (;;) {
        if (predicate()) return true;
        std::unique_lock lock(s.mutex);
        if (runOne(s, lock) == Step::Ran) continue;
        const auto now = Clock::now();
        if (now >= deadline) break;
        waitForWork(s, lock, std::min(deadline, now + pollInterval));
    }
    return predicate();
}

std::size_t MainQueue::drain() {
    auto& s = state();
    MainScope scope;
    std::size_t count = 0;
    std::unique_lock lock(s.mutex);
    for (;;) {
        switch (runOne(s, lock)) {
        case Step::Ran: ++count; break;
        case Step::Busy: waitForWork(s, lock, std::nullopt); break;
        case Step::NothingDue: return count;
        }
    }
}

void MainQueue::stop() {
    auto& s = state();
    {
        std::lock_guard lock(s.mutex);
        s.stopRequested = true;
    }
    s.pump.signal(true);
}

void MainQueue::setDispatcher(Dispatcher dispatcher) {
    auto& s = state();
    std::unique_lock lock(s.mutex);
    if (!dispatcher) {
        s.dispatcher = nullptr;
        lock.unlock();
        s.pump.signal(true);
        return;
    }
    s.dispatcher = std::make_shared<const Dispatcher>(std::move(dispatcher));
    if (!s.timerThreadStarted) {
        std::thread(timerLoop).detach();
        s.timerThreadStarted = true;
    }
    s.timerCv.notify_one();
    handOverDue(s, lock);
}

bool MainQueue::isMainThread() noexcept { return mainDepth > 0; }

}  // namespace krcommon::platform
