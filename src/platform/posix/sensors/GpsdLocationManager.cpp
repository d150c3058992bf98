#include <gps.h>
#include <kestrelvue/posix/GpsdLocationManager.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/posix/sensors/GpsdReport.h"

namespace kestrelvue::posix {

using namespace std::chrono;

namespace {

// How long a read waits before the reader looks at whether it should stop.
constexpr int kPollMicroseconds = 100'000;

std::string text(const Value* value, std::string fallback) {
    if (!value) return fallback;
    if (const std::string* s = value->asString()) return s->empty() ? fallback : *s;
    if (auto n = value->asNumber(); n && *n >= 1 && *n <= 65535)
        return std::to_string(static_cast<int>(*n));
    return fallback;
}

/// One connection to gpsd, closed when it ends.
class Connection {
public:
    Connection(const GpsdEndpoint& endpoint) : data_(std::make_unique<gps_data_t>()) {
        open_ = gps_open(endpoint.host.c_str(), endpoint.port.c_str(), data_.get()) == 0;
        if (open_ && gps_stream(data_.get(), WATCH_ENABLE | WATCH_JSON, nullptr) != 0) close();
    }
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return open_; }
    /// Waits up to `microseconds` for a report: nullopt on time-out, false when the connection
    /// broke, true with `data()` and `message()` filled.
    std::optional<bool> read(int microseconds) {
        errno = 0;
        if (!gps_waiting(data_.get(), microseconds)) {
            // gps_waiting also says false on a socket error; errno tells the two apart.
            return errno == 0 || errno == EINTR || errno == EAGAIN ? std::nullopt
                                                                   : std::optional(false);
        }
        return gps_read(data_.get(), message_, sizeof message_ - 1) > 0;
    }
    const gps_data_t& data() const { return *data_; }
    bool isTpv() const { return std::strstr(message_, "\"class\":\"TPV\"") != nullptr; }

private:
    void close() {
        if (open_) gps_close(data_.get());
        open_ = false;
    }
    std::unique_ptr<gps_data_t> data_;
    bool open_ = false;
    // gpsd's longest report (a SKY with many satellites) fits in 10 KiB.
    char message_[10240] = {};
};

}  // namespace

GpsdEndpoint GpsdEndpoint::fromApplicationInfo(const std::optional<Object>& info) {
    GpsdEndpoint endpoint;
    if (!info) return endpoint;
    auto find = [&](std::string_view key) -> const Value* {
        auto it = info->find(key);
        return it == info->end() ? nullptr : &it->second;
    };
    endpoint.host = text(find(kGpsdHostKey), endpoint.host);
    endpoint.port = text(find(kGpsdPortKey), endpoint.port);
    return endpoint;
}

GpsdLocationManager::GpsdLocationManager(GpsdEndpoint endpoint,
                                         std::shared_ptr<platform::Executor> queue)
    : endpoint_(std::move(endpoint)), queue_(std::move(queue)) {}

GpsdLocationManager::~GpsdLocationManager() {
    stopUpdatingLocation();
}

void GpsdLocationManager::setFixHandler(FixHandler handler) {
    std::lock_guard lock(gate_->mutex);
    gate_->handler = std::move(handler);
}

void GpsdLocationManager::setBackoff(milliseconds minBackoff, milliseconds maxBackoff) {
    std::lock_guard lock(mutex_);
    minBackoff_ = minBackoff;
    maxBackoff_ = std::max(minBackoff, maxBackoff);
}

bool GpsdLocationManager::locationServicesEnabled() const {
    {
        std::lock_guard lock(mutex_);
        if (connected_) return true;
    }
    // Not connected now: ask gpsd itself (on the host's own machine the answer is immediate).
    return Connection(endpoint_).isOpen();
}

platform::AuthorizationStatus GpsdLocationManager::authorizationStatus() const {
    return platform::AuthorizationStatus::authorizedAlways;
}

double GpsdLocationManager::desiredAccuracy() const {
    std::lock_guard lock(mutex_);
    return desiredAccuracy_;
}
void GpsdLocationManager::setDesiredAccuracy(double metres) {
    std::lock_guard lock(mutex_);
    desiredAccuracy_ = metres;
}
double GpsdLocationManager::distanceFilter() const {
    std::lock_guard lock(mutex_);
    return distanceFilter_;
}
void GpsdLocationManager::setDistanceFilter(double metres) {
    std::lock_guard lock(mutex_);
    distanceFilter_ = metres;
}

void GpsdLocationManager::startUpdatingLocation() {
    std::unique_lock lock(mutex_);
    if (session_ != 0) return;
    session_ = ++lastSession_;
    {
        std::lock_guard gate(gate_->mutex);
        gate_->session = session_;
    }
    std::thread old = std::move(reader_);
    reader_ = std::thread([this, session = session_] { run(session); });
    lock.unlock();
    if (old.joinable()) old.join();
}

void GpsdLocationManager::stopUpdatingLocation() {
    std::thread reader;
    {
        std::lock_guard lock(mutex_);
        session_ = 0;
        connected_ = false;
        reader = std::move(reader_);
    }
    {
        std::lock_guard gate(gate_->mutex);
        gate_->session = 0;
    }
    wake_.notify_all();
    if (reader.joinable()) reader.join();
}

bool GpsdLocationManager::isConnected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}
std::size_t GpsdLocationManager::connections() const {
    std::lock_guard lock(mutex_);
    return connections_;
}
std::size_t GpsdLocationManager::reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
}

bool GpsdLocationManager::stopping(std::uint64_t session) const {
    std::lock_guard lock(mutex_);
    return session_ != session;
}

void GpsdLocationManager::run(std::uint64_t session) {
    milliseconds backoff;
    {
        std::lock_guard lock(mutex_);
        backoff = minBackoff_;
    }
    while (!stopping(session)) {
        Connection gpsd(endpoint_);
        if (gpsd.isOpen()) {
            {
                std::lock_guard lock(mutex_);
                if (session_ != session) break;
                connected_ = true;
                ++connections_;
                backoff = minBackoff_;
            }
            std::vector<platform::Location> batch;
            while (!stopping(session)) {
                // Reports that arrive together go as one batch, as a phone delivers them.
                const auto got = gpsd.read(batch.empty() ? kPollMicroseconds : 0);
                if (got == std::optional(false)) break;
                if (got && gpsd.isTpv()) {
                    if (auto fix = fixFromTpv(gpsd.data())) batch.push_back(*fix);
                }
                if (!got && !batch.empty()) deliver(session, std::exchange(batch, {}));
            }
            if (!batch.empty()) deliver(session, std::move(batch));
        }
        std::unique_lock lock(mutex_);
        if (session_ != session) break;
        connected_ = false;
        wake_.wait_for(lock, backoff, [&] { return session_ != session; });
        backoff = std::min(backoff * 2, maxBackoff_);
    }
}

void GpsdLocationManager::deliver(std::uint64_t session, std::vector<platform::Location> batch) {
    {
        std::lock_guard lock(mutex_);
        reports_ += batch.size();
    }
    // The task holds the gate, not the manager: it may run after the manager has ended.
    queue_->post([gate = gate_, session, batch = std::move(batch)] {
        FixHandler handler;
        {
            std::lock_guard lock(gate->mutex);
            if (gate->session != session) return;
            handler = gate->handler;
        }
        if (handler) handler(batch);
    });
}

}  // namespace kestrelvue::posix
