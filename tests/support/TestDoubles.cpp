#include "support/TestDoubles.h"

#include <atomic>
#include <future>
#include <stdexcept>

namespace kestrelvue::test {

bool endWaitsForARunningCall(const std::function<void(const std::function<void()>&)>& call,
                             const std::function<void()>& end) {
    std::promise<void> inside, release;
    std::atomic<bool> returned{false}, endedEarly{false};
    std::thread caller([&] {
        call([&] {
            inside.set_value();
            release.get_future().wait();
            returned = true;
        });
    });
    inside.get_future().wait();
    std::thread ender([&] {
        end();
        endedEarly = !returned;
    });
    // Time for `end` to return early if it does not wait; it cannot make a correct end fail.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    caller.join();
    ender.join();
    return !endedEarly;
}

const Value* RecordedNotification::find(const std::string& key) const {
    if (!userInfo) return nullptr;
    auto it = userInfo->find(key);
    return it == userInfo->end() ? nullptr : &it->second;
}

NotificationRecorder::NotificationRecorder(std::shared_ptr<NotificationCenter> center,
                                           std::vector<std::string> names)
    : center_(std::move(center)), state_(std::make_shared<State>()), names_(std::move(names)) {
    for (const std::string& name : names_) {
        center_->addObserver(this, name, [state = state_](const Notification& n) {
            {
                std::lock_guard lock(state->mutex);
                state->records.push_back(
                    {n.name, n.object, n.userInfo, std::this_thread::get_id()});
            }
            state->cv.notify_all();
        });
    }
}

NotificationRecorder::~NotificationRecorder() {
    center_->removeObserver(this);
}

RecordedNotification NotificationRecorder::at(std::size_t index) const {
    std::lock_guard lock(state_->mutex);
    return state_->records.at(index);
}

std::size_t NotificationRecorder::count() const {
    std::lock_guard lock(state_->mutex);
    return state_->records.size();
}

bool NotificationRecorder::waitFor(std::size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(state_->mutex);
    return state_->cv.wait_for(lock, timeout, [&] { return state_->records.size() >= n; });
}

bool NotificationRecorder::settled(std::size_t n, std::chrono::milliseconds grace) const {
    std::unique_lock lock(state_->mutex);
    state_->cv.wait_for(lock, grace, [&] { return state_->records.size() > n; });
    return state_->records.size() == n;
}

void RecordingDelegate::add(Report r) {
    std::lock_guard lock(mutex_);
    reports_.push_back(std::move(r));
    cv_.notify_all();
}

std::vector<RecordingDelegate::Report> RecordingDelegate::reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
}

std::vector<RecordingDelegate::Report> RecordingDelegate::reports(const std::string& kind) const {
    std::vector<Report> out;
    for (auto& r : reports())
        if (r.kind == kind) out.push_back(std::move(r));
    return out;
}

bool RecordingDelegate::waitFor(std::size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return reports_.size() >= n; });
}

bool RecordingDelegate::settled(std::size_t n, std::chrono::milliseconds grace) const {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, grace, [&] { return reports_.size() > n; });
    return reports_.size() == n;
}

}  // namespace kestrelvue::test
