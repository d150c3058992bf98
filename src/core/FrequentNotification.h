#pragma once
// A notification posted many times a second (one per motion sample): whether anybody observes
// it costs one atomic read, and posting it builds no dictionary. One notification per thread is
// built once and refilled for every post, so its nodes and keys are reused; handlers get it by
// reference for the length of their call, as with any post.

#include <kestrelvue/NotificationCenter.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace kestrelvue::detail {

template <std::size_t N>
class FrequentNotification {
public:
    using Entries = std::array<Value*, N>;

    /// `keys` in ascending order, so each insertion lands at the end of the map.
    FrequentNotification(std::string name, std::array<const char*, N> keys)
        : name_(std::move(name)), keys_(keys), serial_(nextSerial()) {}

    /// Whether anybody observes the name, recounted only when the centre's registrations changed.
    /// Any thread.
    bool observed(const NotificationCenter& center) const {
        const std::uint64_t generation = center.generation();
        std::uint64_t cached = cache_.load(std::memory_order_relaxed);
        if ((cached >> 1) != generation + 1) {
            // Generation first, count second: a change in between only forces another recount.
            cached = ((generation + 1) << 1) | (center.observerCount(name_) > 0 ? 1u : 0u);
            cache_.store(cached, std::memory_order_relaxed);
        }
        return (cached & 1u) != 0;
    }

    /// Posts with `fill(entries)` setting the value of each key, in key order.
    template <class Fill>
    void post(NotificationCenter& center, const void* sender, Fill&& fill) const {
        thread_local Slot cached;
        if (cached.busy) {
            // A handler posts again from inside its own call: it gets a fresh notification.
            Slot fresh;
            fresh.prepare(*this);
            fresh.note.object = sender;
            fill(fresh.entries);
            center.post(fresh.note);
            return;
        }
        if (cached.owner != serial_) cached.prepare(*this);
        cached.busy = true;
        cached.note.object = sender;
        fill(cached.entries);
        center.post(cached.note);
        cached.busy = false;
    }

private:
    struct Slot {
        Notification note;
        Entries entries{};
        std::uint64_t owner = 0;  // the serial of the publisher it was prepared for
        bool busy = false;

        void prepare(const FrequentNotification& publisher) {
            owner = publisher.serial_;
            note = Notification{};
            note.name = publisher.name_;
            note.userInfo.emplace();
            for (std::size_t k = 0; k < N; ++k)
                entries[k] =
                    &note.userInfo->emplace_hint(note.userInfo->end(), publisher.keys_[k], Value())
                         ->second;
        }
    };

    static std::uint64_t nextSerial() {
        static std::atomic<std::uint64_t> serials{0};
        return ++serials;
    }

    std::string name_;
    std::array<const char*, N> keys_;
    std::uint64_t serial_;                         // tells a thread's slot which publisher it holds
    mutable std::atomic<std::uint64_t> cache_{0};  // (generation + 1) << 1 | observed
};

}  // namespace kestrelvue::detail
