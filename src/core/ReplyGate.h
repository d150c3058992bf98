#pragma once
// Lets completions that run on HTTP worker threads reach an object only while it lives.
//
//   ReplyGate gate_;                               // the owner's LAST member: it closes first
//   http->send(req, [this, key = gate_.key()](HttpResult r) {
//       if (auto pass = key.enter()) handle(r);    // the owner cannot die while `pass` lives
//   });
//
// Closing (the gate's destruction) waits for every pass that is out, then refuses new ones. So a
// completion never touches a destroyed owner. A completion must not destroy the owner itself
// while it holds a pass (it would wait for itself).

#include <memory>
#include <mutex>
#include <shared_mutex>

namespace kestrelvue {

class ReplyGate {
    struct State {
        std::shared_mutex mutex;
        bool open = true;
    };

public:
    class Pass {
    public:
        explicit operator bool() const { return lock_.owns_lock(); }

    private:
        friend class ReplyGate;
        std::shared_ptr<State> state_;  // declared first: outlives the lock on its mutex
        std::shared_lock<std::shared_mutex> lock_;
    };

    class Key {
    public:
        /// A pass while the gate is open; an empty one once it has closed.
        Pass enter() const {
            Pass pass;
            if (!state_) return pass;
            std::shared_lock lock(state_->mutex);
            if (!state_->open) return pass;
            pass.state_ = state_;
            pass.lock_ = std::move(lock);
            return pass;
        }

    private:
        friend class ReplyGate;
        std::shared_ptr<State> state_;
    };

    ReplyGate() = default;
    ReplyGate(const ReplyGate&) = delete;
    ReplyGate& operator=(const ReplyGate&) = delete;
    ~ReplyGate() { close(); }

    Key key() const {
        Key key;
        key.state_ = state_;
        return key;
    }

    /// Waits for the passes that are out; later enter() calls fail.
    void close() {
        std::unique_lock lock(state_->mutex);
        state_->open = false;
    }

private:
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kestrelvue
