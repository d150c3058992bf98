#include "platform/sim/Sim.h"

#include <cstdio>
#include <utility>

namespace kestrelvue::sim {

using namespace std::chrono;

// ---- VirtualClock ---------------------------------------------------------------------------

VirtualClock::VirtualClock() : VirtualClock(platform::TimePoint(seconds(1520251200))) {}

VirtualClock::VirtualClock(platform::TimePoint start)
    : nanos_(duration_cast<nanoseconds>(start.time_since_epoch()).count()) {}

platform::TimePoint VirtualClock::now() const {
    return platform::TimePoint(
        duration_cast<platform::TimePoint::duration>(nanoseconds(nanos_.load())));
}

void VirtualClock::setNow(platform::TimePoint value) {
    nanos_.store(duration_cast<nanoseconds>(value.time_since_epoch()).count());
}

void VirtualClock::advance(nanoseconds by) {
    nanos_.fetch_add(by.count());
}

// ---- SequentialIdGenerator ------------------------------------------------------------------

std::string SequentialIdGenerator::makeUuid() {
    unsigned long long n = ++next_;
    char text[40];
    std::snprintf(text, sizeof text, "%08llX-0000-4000-8000-%012llX", n & 0xFFFFFFFFull,
                  n & 0xFFFFFFFFFFFFull);
    return text;
}

// ---- MainQueue ------------------------------------------------------------------------------

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

// ---- MotionSource ---------------------------------------------------------------------------

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

// ---- LocationManager ------------------------------------------------------------------------

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

// ---- Geocoder -------------------------------------------------------------------------------

Geocoder::Geocoder(std::shared_ptr<platform::Executor> mainQueue)
    : mainQueue_(std::move(mainQueue)) {}

platform::AsyncRequest Geocoder::reverseGeocodeLocation(const platform::Location& location,
                                                        platform::GeocodeCompletion completion) {
    auto [lookup, guarded] = platform::AsyncRequest::guard(std::move(completion));
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(location);
        if (!script_.empty()) {
            answer = std::move(script_.front());
            script_.pop_front();
        } else if (answerer_) {
            answer = answerer_(location);
        } else {
            answer = placemark({platform::shortestDecimalText(location.coordinate.latitude) + ", " +
                                platform::shortestDecimalText(location.coordinate.longitude)});
        }
    }
    mainQueue_->post([completion = std::move(guarded), answer = std::move(answer)] {
        completion(answer.placemarks, answer.error);
    });
    return std::move(lookup);
}

void Geocoder::enqueueAnswer(Answer answer) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(answer));
}

void Geocoder::setAnswerer(Answerer answerer) {
    std::lock_guard lock(mutex_);
    answerer_ = std::move(answerer);
}

std::vector<platform::Location> Geocoder::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

Geocoder::Answer Geocoder::placemark(std::vector<std::string> lines) {
    return Answer{std::vector<platform::Placemark>{platform::Placemark{std::move(lines)}},
                  std::nullopt};
}

Geocoder::Answer Geocoder::failure(std::int64_t code, std::string description) {
    return Answer{std::nullopt, platform::GeocodeError{code, std::move(description)}};
}

Geocoder::Answer Geocoder::nothing() {
    return Answer{};
}

// ---- Application ----------------------------------------------------------------------------

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

// ---- Device ---------------------------------------------------------------------------------

platform::DeviceOrientation Device::orientation() const {
    return static_cast<platform::DeviceOrientation>(orientation_.load());
}

void Device::setOrientation(platform::DeviceOrientation value) {
    orientation_.store(static_cast<int>(value));
}

void Platform::installInto(Environment& env) const {
    env.clock = clock;
    env.ids = ids;
    env.mainQueue = queue;
    env.makeMotionManager = [m = motion] { return m; };
    env.makeLocationManager = [l = location] { return l; };
    env.geocoder = geocoder;
    env.application = application;
    env.device = device;
}

}  // namespace kestrelvue::sim
