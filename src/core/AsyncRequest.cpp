#include <kestrelvue/platform/AsyncRequest.h>

#include <algorithm>

namespace kestrelvue::platform {

bool AsyncRequest::State::enter() {
    std::lock_guard lock(mutex_);
    if (cancelled_) return false;
    running_.push_back(std::this_thread::get_id());
    return true;
}

void AsyncRequest::State::leave() {
    std::lock_guard lock(mutex_);
    auto it = std::find(running_.begin(), running_.end(), std::this_thread::get_id());
    if (it != running_.end()) running_.erase(it);
    finished_ = true;
    idle_.notify_all();
}

void AsyncRequest::State::cancel() {
    std::unique_lock lock(mutex_);
    cancelled_ = true;
    // A completion that ends its own handle must not wait for itself.
    const auto self = std::this_thread::get_id();
    idle_.wait(lock, [&] {
        return std::all_of(running_.begin(), running_.end(),
                           [&](const std::thread::id& id) { return id == self; });
    });
}

bool AsyncRequest::State::finished() {
    std::lock_guard lock(mutex_);
    return finished_;
}

AsyncRequest& AsyncRequest::operator=(AsyncRequest&& other) noexcept {
    if (this != &other) {
        cancel();
        state_ = std::move(other.state_);
    }
    return *this;
}

AsyncRequest::~AsyncRequest() {
    cancel();
}

void AsyncRequest::cancel() {
    if (!state_) return;
    state_->cancel();
    state_.reset();
}

bool AsyncRequest::finished() const {
    return !state_ || state_->finished();
}

}  // namespace kestrelvue::platform
