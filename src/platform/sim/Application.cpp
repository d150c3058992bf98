#include "platform/sim/Application.h"

#include <utility>

namespace kestrelvue::sim {

bool Application::isIdleTimerDisabled() const {
    std::lock_guard lock(mutex_);
    return idleTimerDisabled_;
}

void Application::setIdleTimerDisabled(bool value) {
    std::lock_guard lock(mutex_);
    idleTimerDisabled_ = value;
    idleChanges_.push_back(value);
}

std::string Application::openSettingsURLString() const {
    std::lock_guard lock(mutex_);
    return settingsURL_;
}

bool Application::openURL(const std::string& url) {
    std::lock_guard lock(mutex_);
    opened_.push_back(url);
    return true;
}

void Application::setOpenSettingsURLString(std::string value) {
    std::lock_guard lock(mutex_);
    settingsURL_ = std::move(value);
}

std::vector<bool> Application::idleTimerChanges() const {
    std::lock_guard lock(mutex_);
    return idleChanges_;
}

std::vector<std::string> Application::openedURLs() const {
    std::lock_guard lock(mutex_);
    return opened_;
}

}  // namespace kestrelvue::sim
