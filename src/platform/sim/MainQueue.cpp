#include "platform/sim/MainQueue.h"

#include <utility>

namespace kestrelvue::sim {

void MainQueue::post(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
}

bool MainQueue::runOne() {
    std::function<void()> task;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty()) return false;
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    if (task) task();
    return true;
}

std::size_t MainQueue::runUntilIdle() {
    std::size_t ran = 0;
    while (runOne()) ++ran;
    return ran;
}

std::size_t MainQueue::pending() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

}  // namespace kestrelvue::sim
