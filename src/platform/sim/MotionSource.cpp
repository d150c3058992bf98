#include "platform/sim/MotionSource.h"

#include <chrono>
#include <utility>

namespace kestrelvue::sim {

using namespace std::chrono;

bool MotionSource::isDeviceMotionAvailable() const {
    std::lock_guard lock(mutex_);
    return available_;
}

bool MotionSource::isDeviceMotionActive() const {
    std::lock_guard lock(mutex_);
    return session_ != 0;
}

double MotionSource::deviceMotionUpdateInterval() const {
    std::lock_guard lock(mutex_);
    return interval_;
}

void MotionSource::setDeviceMotionUpdateInterval(double seconds) {
    std::lock_guard lock(mutex_);
    interval_ = seconds;
}

bool MotionSource::showsDeviceMovementDisplay() const {
    std::lock_guard lock(mutex_);
    return showsDisplay_;
}

void MotionSource::setShowsDeviceMovementDisplay(bool value) {
    std::lock_guard lock(mutex_);
    showsDisplay_ = value;
}

platform::AsyncRequest MotionSource::startDeviceMotionUpdates(
    platform::AttitudeReferenceFrame frame, std::shared_ptr<platform::Executor> queue,
    platform::DeviceMotionHandler handler) {
    auto [session, guarded] = platform::AsyncRequest::guard(std::move(handler));
    std::lock_guard lock(mutex_);
    session_ = ++lastSession_;
    queue_ = std::move(queue);
    handler_ = std::make_shared<platform::DeviceMotionHandler>(std::move(guarded));
    frame_ = frame;
    ++starts_;
    return std::move(session);
}

void MotionSource::stopDeviceMotionUpdates() {
    std::lock_guard lock(mutex_);
    session_ = 0;
    queue_.reset();
    handler_.reset();
    ++stops_;
}

void MotionSource::setDeviceMotionAvailable(bool value) {
    std::lock_guard lock(mutex_);
    available_ = value;
}

bool MotionSource::push(const platform::DeviceMotion& motion) {
    return deliver(motion, {});
}

bool MotionSource::pushEmpty(std::optional<platform::MotionError> error) {
    return deliver(std::nullopt, std::move(error));
}

bool MotionSource::deliver(std::optional<platform::DeviceMotion> motion,
                           std::optional<platform::MotionError> error) {
    std::shared_ptr<platform::Executor> queue;
    std::shared_ptr<platform::DeviceMotionHandler> handler;
    std::uint64_t session;
    {
        std::lock_guard lock(mutex_);
        if (session_ == 0 || !queue_ || !handler_) return false;
        queue = queue_;
        handler = handler_;
        session = session_;
    }
    queue->post([this, session, handler, motion, error = std::move(error)] {
        {
            // A sample queued before a stop (or a restart) belongs to a session that is over.
            std::lock_guard lock(mutex_);
            if (session_ != session) return;
        }
        if (*handler) (*handler)(motion, error);
    });
    return true;
}

std::optional<platform::AttitudeReferenceFrame> MotionSource::lastReferenceFrame() const {
    std::lock_guard lock(mutex_);
    return frame_;
}

int MotionSource::startCount() const {
    std::lock_guard lock(mutex_);
    return starts_;
}

int MotionSource::stopCount() const {
    std::lock_guard lock(mutex_);
    return stops_;
}

}  // namespace kestrelvue::sim
