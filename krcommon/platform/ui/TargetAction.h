#pragma once

// Target-action, as controls and gesture recognisers use it: an action is a
// member function of a target object, called with the sender. Targets are held
// weakly, so a control never keeps its target alive; an action whose target is
// gone is skipped and dropped.

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

namespace krcommon::platform {

template <class Sender>
class TargetActions {
public:
    using Block = std::function<void(Sender&)>;

    /// Registers `action` of `target` for `events` (a non-zero bit mask).
    /// The same target and action again only adds events. `S` is the sender type the
    /// action takes: the sender is handed over cast to it (nullptr if it is not one).
    template <class T, class S>
    void add(const std::shared_ptr<T>& target, void (T::*action)(S*), unsigned long events) {
        if (!target || !action) return;
        const std::string key = keyOf(action);
        for (auto& entry : entries_) {
            if (entry.target == target.get() && entry.key == key && !entry.alive.expired()) {
                entry.events |= events;
                return;
            }
        }
        std::weak_ptr<T> weak = target;
        entries_.push_back({target.get(), weak, key,
                            [weak, action](Sender& sender) {
                                if (auto t = weak.lock()) ((*t).*action)(dynamic_cast<S*>(&sender));
                            },
                            events});
    }

    /// Registers a block with no target of its own (removed only with every target).
    void add(Block block, unsigned long events) {
        if (block) entries_.push_back({nullptr, {}, {}, std::move(block), events});
    }

    /// Withdraws `events` from the actions of `target` (of every target and block when
    /// null); an action left without events goes.
    void remove(const void* target, unsigned long events) { withdraw(target, {}, events); }
    /// As above for one action of `target`.
    template <class T, class S>
    void remove(const void* target, void (T::*action)(S*), unsigned long events) {
        withdraw(target, keyOf(action), events);
    }

    /// Removes everything.
    void clear() noexcept { entries_.clear(); }

    /// Calls, in the order registered, every action whose events meet `events`,
    /// skipping and dropping those whose target is gone.
    void send(Sender& sender, unsigned long events) {
        std::erase_if(entries_, [](const Entry& e) { return e.target && e.alive.expired(); });
        const auto snapshot = entries_;  // an action may change the registrations
        for (const auto& entry : snapshot) {
            if ((entry.events & events) != 0) entry.call(sender);
        }
    }

    /// The live targets, each once, in the order registered.
    [[nodiscard]] std::vector<const void*> targets() const {
        std::vector<const void*> result;
        for (const auto& entry : entries_) {
            if (entry.target && !entry.alive.expired() &&
                std::find(result.begin(), result.end(), entry.target) == result.end()) {
                result.push_back(entry.target);
            }
        }
        return result;
    }

    /// The events registered for `target`, or 0.
    [[nodiscard]] unsigned long eventsOf(const void* target) const {
        unsigned long events = 0;
        for (const auto& entry : entries_) {
            if (entry.target == target && !entry.alive.expired()) events |= entry.events;
        }
        return events;
    }

private:
    struct Entry {
        const void* target;
        std::weak_ptr<void> alive;
        std::string key;
        Block call;
        unsigned long events;
    };

    void withdraw(const void* target, const std::string& key, unsigned long events) {
        for (auto& entry : entries_) {
            if ((target == nullptr || entry.target == target) && (key.empty() || entry.key == key)) {
                entry.events &= ~events;
            }
        }
        std::erase_if(entries_, [](const Entry& e) { return e.events == 0; });
    }

    // Member pointers compare only within one type: key them by type and bytes.
    template <class M>
    static std::string keyOf(M action) {
        std::string key(typeid(M).name());
        key.append(reinterpret_cast<const char*>(&action), sizeof action);
        return key;
    }

    std::vector<Entry> entries_;
};

}  // namespace krcommon::platform
