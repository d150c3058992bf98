#pragma once
// A process-wide, synchronous notification centre.
//
// Threading contract: post() delivers on the posting thread, to a snapshot of the observers that
// match when the post starts. Handlers may add or remove observers (themselves included) while a
// post runs; an observer removed during a post is not called afterwards by that post unless its
// call has already begun. Several threads may post at once. No lock is held while a handler runs.

#include <kestrelvue/Export.h>
#include <kestrelvue/Value.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kestrelvue {

struct KESTRELVUE_EXPORT Notification {
    std::string name;
    /// The sender, compared by identity only; nullptr when absent.
    const void* object = nullptr;
    UserInfo userInfo;
};

class NotificationCenter;

/// Removes its observer registration when destroyed, with the guarantee removeObserver() gives.
/// Move-only.
class KESTRELVUE_EXPORT ObserverToken {
public:
    ObserverToken() = default;
    ObserverToken(ObserverToken&& other) noexcept;
    ObserverToken& operator=(ObserverToken&& other) noexcept;
    ObserverToken(const ObserverToken&) = delete;
    ObserverToken& operator=(const ObserverToken&) = delete;
    ~ObserverToken();

    void reset();
    explicit operator bool() const { return id_ != 0; }

private:
    friend class NotificationCenter;
    ObserverToken(std::weak_ptr<NotificationCenter> center, std::uint64_t id)
        : center_(std::move(center)), id_(id) {}
    std::weak_ptr<NotificationCenter> center_;
    std::uint64_t id_ = 0;
};

class KESTRELVUE_EXPORT NotificationCenter
    : public std::enable_shared_from_this<NotificationCenter> {
public:
    using Handler = std::function<void(const Notification&)>;

    /// The process's default centre.
    static NotificationCenter& defaultCenter();
    static std::shared_ptr<NotificationCenter> make();

    /// Registers `handler` for `name` on behalf of `observer` (an identity used for removal).
    /// With a non-null `sender`, only notifications posted by that sender are delivered.
    void addObserver(const void* observer, std::string name, Handler handler,
                     const void* sender = nullptr);
    /// Like addObserver, but the registration ends when the returned token dies.
    [[nodiscard]] ObserverToken addObserver(std::string name, Handler handler,
                                            const void* sender = nullptr);

    /// Removes every registration of `observer`, or only those for `name` when given. When it
    /// returns, their handlers are not called again, and a call running on another thread has
    /// returned, unless the removal is made from inside a handler of this centre (then it does not
    /// wait, so that two handlers removing each other cannot deadlock). Do not remove while
    /// holding a lock the handlers take.
    void removeObserver(const void* observer, std::optional<std::string> name = std::nullopt);

    void post(const std::string& name, const void* object = nullptr, UserInfo userInfo = {});
    void post(const Notification& notification);

    /// Number of registrations for `name` (diagnostics and tests).
    std::size_t observerCount(const std::string& name) const;

    /// Changes with every registration and removal; lets hot paths cache observerCount().
    std::uint64_t generation() const noexcept {
        return generation_.load(std::memory_order_acquire);
    }

    NotificationCenter() = default;

private:
    friend class ObserverToken;
    /// One registration's state.
    struct Registration {
        bool alive = true;            // guarded by mutex_
        std::atomic<int> running{0};  // calls of its handler under way
    };
    struct Entry {
        std::uint64_t id;
        const void* observer;
        std::string name;
        const void* sender;
        std::shared_ptr<const Handler> handler;
        std::shared_ptr<Registration> registration;
    };
    void removeWhere(const std::function<bool(const Entry&)>& match);
    void removeById(std::uint64_t id);
    std::condition_variable idle_;  // a handler call ended while somebody waited
    std::atomic<int> waiting_{0};   // removals waiting for handler calls to end

    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::uint64_t nextId_ = 1;
    std::atomic<std::uint64_t> generation_{0};  // bumped under mutex_ after each change
};

}  // namespace kestrelvue
