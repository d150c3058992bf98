#include "platform/sim/LocationManager.h"

namespace kestrelvue::sim {

bool LocationManager::locationServicesEnabled() const {
    std::lock_guard lock(mutex_);
    return enabled_;
}

platform::AuthorizationStatus LocationManager::authorizationStatus() const {
    std::lock_guard lock(mutex_);
    return status_;
}

void LocationManager::requestWhenInUseAuthorization() {
    std::lock_guard lock(mutex_);
    ++requests_;
    if (answer_) status_ = *answer_;
}

double LocationManager::desiredAccuracy() const {
    std::lock_guard lock(mutex_);
    return desiredAccuracy_;
}

void LocationManager::setDesiredAccuracy(double metres) {
    std::lock_guard lock(mutex_);
    desiredAccuracy_ = metres;
}

double LocationManager::distanceFilter() const {
    std::lock_guard lock(mutex_);
    return distanceFilter_;
}

void LocationManager::setDistanceFilter(double metres) {
    std::lock_guard lock(mutex_);
    distanceFilter_ = metres;
}

void LocationManager::startUpdatingLocation() {
    std::lock_guard lock(mutex_);
    updating_ = true;
    ++starts_;
}

void LocationManager::stopUpdatingLocation() {
    std::lock_guard lock(mutex_);
    updating_ = false;
    ++stops_;
}

void LocationManager::setLocationServicesEnabled(bool value) {
    std::lock_guard lock(mutex_);
    enabled_ = value;
}

void LocationManager::setAuthorizationStatus(platform::AuthorizationStatus value) {
    std::lock_guard lock(mutex_);
    status_ = value;
}

void LocationManager::setAuthorizationAnswer(std::optional<platform::AuthorizationStatus> value) {
    std::lock_guard lock(mutex_);
    answer_ = value;
}

bool LocationManager::isUpdating() const {
    std::lock_guard lock(mutex_);
    return updating_;
}

int LocationManager::authorizationRequestCount() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

int LocationManager::startCount() const {
    std::lock_guard lock(mutex_);
    return starts_;
}

int LocationManager::stopCount() const {
    std::lock_guard lock(mutex_);
    return stops_;
}

}  // namespace kestrelvue::sim
