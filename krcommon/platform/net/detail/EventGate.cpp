#include <krcommon/platform/net/detail/EventGate.h>

#include <krcommon/platform/dispatch/MainQueue.h>

namespace krcommon::platform::detail {

void EventQueue::enqueue(Entry entry, bool first, bool runSoon) {
    bool start = false;
    {
        std::lock_guard lock(mutex_);
        if (stopped_) return;  // the entry is destroyed on return, outside the lock
        if (first) {
            entries_.push_front(std::move(entry));
        } else {
            entries_.push_back(std::move(entry));
        }
        start = runSoon && !scheduled_;
        scheduled_ = scheduled_ || start;
    }
    if (start) queue_->addOperation([self = shared_from_this()] { self->drain(); });
}

void EventQueue::schedule() {
    {
        std::lock_guard lock(mutex_);
        if (scheduled_ || entries_.empty()) return;
        scheduled_ = true;
    }
    queue_->addOperation([self = shared_from_this()] { self->drain(); });
}

void EventQueue::stop() {
    std::deque<Entry> dropped;
    std::lock_guard lock(mutex_);
    stopped_ = true;
    dropped.swap(entries_);
    // Released after the lock (declared first, destroyed last): dropped events may answer
    // what they carried, which posts again and is refused.
}

void EventQueue::run(Entry& entry) {
    if (entry.plain) {
        entry.plain();
        return;
    }
    if (!entry.gate) {
        entry.forTask(false);
        return;
    }
    ResponseGate& gate = *entry.gate;
    std::unique_lock lock(gate.mutex);
    switch (gate.state) {
        case ResponseGate::State::Waiting:
        case ResponseGate::State::Releasing: gate.parked.push_back(std::move(entry.forTask)); return;
        case ResponseGate::State::Open:
            lock.unlock();
            entry.forTask(false);
            return;
        case ResponseGate::State::Cancelled:
            lock.unlock();
            entry.forTask(true);
            return;
    }
}

bool EventQueue::answer(const std::shared_ptr<ResponseGate>& gate, bool allow) {
    bool nothingHeld = false;
    {
        std::lock_guard lock(gate->mutex);
        if (gate->state != ResponseGate::State::Waiting) return false;
        // Usually the answer comes while the response event runs, before any later event of
        // the task: then the gate simply opens (or shuts).
        nothingHeld = gate->parked.empty();
        gate->state = nothingHeld ? (allow ? ResponseGate::State::Open : ResponseGate::State::Cancelled)
                                  : ResponseGate::State::Releasing;
    }
    if (nothingHeld) return true;
    // One event runs what was held, in order; events arriving meanwhile join it.
    post([gate, allow] {
        while (true) {
            std::vector<std::function<void(bool)>> held;
            {
                std::lock_guard lock(gate->mutex);
                if (gate->parked.empty()) {
                    gate->state = allow ? ResponseGate::State::Open : ResponseGate::State::Cancelled;
                    return;
                }
                held.swap(gate->parked);
            }
            for (auto& next : held) next(!allow);
        }
    });
    return true;
}

void EventQueue::drain() {
    // Runs a batch of events, then yields the delegate queue to other work. What the
    // events post to the main queue in a batch wakes the main thread once.
    MainQueue::WakeBatch burst;
    for (int ran = 0; ran < 64; ++ran) {
        Entry entry;
        {
            std::lock_guard lock(mutex_);
            if (entries_.empty()) {
                scheduled_ = false;
                return;
            }
            entry = std::move(entries_.front());
            entries_.pop_front();
        }
        run(entry);
    }
    {
        std::lock_guard lock(mutex_);
        if (entries_.empty()) {
            scheduled_ = false;
            return;
        }
    }
    queue_->addOperation([self = shared_from_this()] { self->drain(); });
}

}  // namespace krcommon::platform::detail
