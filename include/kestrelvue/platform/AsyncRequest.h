#pragma once
// The one way the library cancels work whose completion runs later: a move-only handle.
//
// Destroying (or cancel()ing) the handle guarantees that the completion never runs afterwards,
// and if it is running on another thread at that moment, waits until it has returned. From inside
// its own completion a handle may be destroyed without waiting. Work that must outlive its owner
// (an upload that has to reach the service) is detach()ed: its completion then runs as if the
// handle were kept, and must hold what it needs itself.
//
// Do not destroy a handle while holding a lock its completion takes: the wait would never end.

#include <kestrelvue/Export.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace kestrelvue::platform {

// [[nodiscard]]: a handle dropped on the floor would cancel its work at once.
class KESTRELVUE_EXPORT AsyncRequest;
class [[nodiscard]] AsyncRequest {
public:
    AsyncRequest() = default;
    AsyncRequest(AsyncRequest&& other) noexcept = default;
    AsyncRequest& operator=(AsyncRequest&& other) noexcept;
    AsyncRequest(const AsyncRequest&) = delete;
    AsyncRequest& operator=(const AsyncRequest&) = delete;
    ~AsyncRequest();

    /// After it returns the completion does not run, and is not running on another thread.
    void cancel();
    /// Lets the work finish without an owner.
    void detach() { state_.reset(); }
    /// Whether the completion has run to its end at least once (or the handle is empty).
    bool finished() const;
    explicit operator bool() const { return state_ != nullptr; }

    /// For implementations of the seams: wraps `completion` so that it runs only while the
    /// returned handle lives. The wrapper may be called on any thread, as often as the seam's
    /// contract says (once for a reply, once per sample for a motion session).
    template <class... Args>
    static std::pair<AsyncRequest, std::function<void(Args...)>> guard(
        std::function<void(Args...)> completion) {
        AsyncRequest handle;
        handle.state_ = std::make_shared<State>();
        std::function<void(Args...)> wrapped = [state = handle.state_,
                                                completion = std::move(completion)](Args... args) {
            if (!state->enter()) return;
            if (completion) completion(std::forward<Args>(args)...);
            state->leave();
        };
        return {std::move(handle), std::move(wrapped)};
    }

private:
    struct KESTRELVUE_EXPORT State {
        bool enter();
        void leave();
        void cancel();
        bool finished();

    private:
        std::mutex mutex_;
        std::condition_variable idle_;
        bool cancelled_ = false;
        bool finished_ = false;
        std::vector<std::thread::id> running_;  // threads inside the completion now
    };
    std::shared_ptr<State> state_;
};

}  // namespace kestrelvue::platform
