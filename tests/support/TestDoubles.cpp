#include "support/TestDoubles.h"

#include <stdexcept>

namespace kestrelvue::test {

void ManualExecutor::post(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
}

bool ManualExecutor::runOne() {
    std::function<void()> task;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty()) return false;
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    task();
    return true;
}

std::size_t ManualExecutor::runUntilIdle() {
    std::size_t ran = 0;
    while (runOne()) ++ran;
    return ran;
}

std::size_t ManualExecutor::pending() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

const Value* RecordedNotification::find(const std::string& key) const {
    if (!userInfo) return nullptr;
    auto it = userInfo->find(key);
    return it == userInfo->end() ? nullptr : &it->second;
}

const std::string* RecordedNotification::errorText() const {
    const Value* v = find("error");
    return v ? v->asString() : nullptr;
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

std::vector<RecordedNotification> NotificationRecorder::all() const {
    std::lock_guard lock(state_->mutex);
    return state_->records;
}

std::vector<RecordedNotification> NotificationRecorder::named(const std::string& name) const {
    std::lock_guard lock(state_->mutex);
    std::vector<RecordedNotification> out;
    for (const auto& r : state_->records) {
        if (r.name == name) out.push_back(r);
    }
    return out;
}

RecordedNotification NotificationRecorder::at(std::size_t index) const {
    std::lock_guard lock(state_->mutex);
    return state_->records.at(index);
}

std::size_t NotificationRecorder::count() const {
    std::lock_guard lock(state_->mutex);
    return state_->records.size();
}

std::size_t NotificationRecorder::count(const std::string& name) const {
    return named(name).size();
}

bool NotificationRecorder::waitFor(std::size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(state_->mutex);
    return state_->cv.wait_for(lock, timeout, [&] { return state_->records.size() >= n; });
}

bool NotificationRecorder::waitFor(const std::string& name, std::size_t n,
                                   std::chrono::milliseconds timeout) const {
    std::unique_lock lock(state_->mutex);
    return state_->cv.wait_for(lock, timeout, [&] {
        std::size_t c = 0;
        for (const auto& r : state_->records) c += r.name == name ? 1 : 0;
        return c >= n;
    });
}

bool NotificationRecorder::settled(std::size_t n, std::chrono::milliseconds grace) const {
    std::unique_lock lock(state_->mutex);
    state_->cv.wait_for(lock, grace, [&] { return state_->records.size() > n; });
    return state_->records.size() == n;
}

void NotificationRecorder::clear() {
    std::lock_guard lock(state_->mutex);
    state_->records.clear();
}

}  // namespace kestrelvue::test
