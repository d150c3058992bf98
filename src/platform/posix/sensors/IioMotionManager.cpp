#include <fcntl.h>
#include <kestrelvue/posix/IioMotionManager.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "platform/posix/sensors/MotionFusion.h"

namespace kestrelvue::posix {

using namespace std::chrono;
namespace fs = std::filesystem;

namespace {

/// A small sysfs file's text, without the trailing newline; nullopt with `why` when unreadable.
std::optional<std::string> readText(const std::string& path, std::string* why) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (why) *why = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    char buffer[64];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    const int readErrno = errno;
    ::close(fd);
    if (n < 0) {
        if (why) *why = path + ": " + std::strerror(readErrno);
        return std::nullopt;
    }
    std::string text(buffer, static_cast<std::size_t>(n));
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

std::optional<double> readNumber(const std::string& path, std::string* why) {
    auto text = readText(path, why);
    if (!text) return std::nullopt;
    double value = 0;
    const char* end = text->data() + text->size();
    auto [ptr, ec] = std::from_chars(text->data(), end, value);
    if (ec != std::errc() || ptr != end || !std::isfinite(value)) {
        if (why) *why = path + ": not a number: \"" + *text + "\"";
        return std::nullopt;
    }
    return value;
}

}  // namespace

/// One sensor's three axes: where to read each and how to scale it.
struct Axis {
    std::string raw;
    double scale = 1, offset = 0;
};
struct Sensor {
    std::string device;
    std::array<Axis, 3> axes;

    /// The sensor `kind` ("accel", "anglvel") of the device at `dir`, when it has all three axes
    /// and a scale for each.
    static std::optional<Sensor> find(const fs::path& dir, const char* kind) {
        Sensor sensor;
        sensor.device = dir.filename().string();
        const std::string prefix = (dir / "in_").string() + kind + "_";
        for (int i = 0; i < 3; ++i) {
            const std::string axis = prefix + "xyz"[i];
            Axis& a = sensor.axes[static_cast<std::size_t>(i)];
            a.raw = axis + "_raw";
            if (!fs::exists(a.raw)) return std::nullopt;
            auto scale = readNumber(axis + "_scale", nullptr);
            if (!scale) scale = readNumber(prefix + "scale", nullptr);
            if (!scale) return std::nullopt;
            a.scale = *scale;
            auto offset = readNumber(axis + "_offset", nullptr);
            if (!offset) offset = readNumber(prefix + "offset", nullptr);
            a.offset = offset.value_or(0.0);
        }
        return sensor;
    }
    std::optional<Vector3> read(std::string* why) const {
        double v[3];
        for (std::size_t i = 0; i < 3; ++i) {
            auto raw = readNumber(axes[i].raw, why);
            if (!raw) return std::nullopt;
            v[i] = (*raw + axes[i].offset) * axes[i].scale;
        }
        return Vector3{v[0], v[1], v[2]};
    }
};

struct IioMotionManager::Channels {
    Sensor accel, gyro;
};

IioMotionManager::IioMotionManager(IioOptions options) : options_(std::move(options)) {
    std::error_code ec;
    std::vector<fs::path> devices;
    for (const auto& entry : fs::directory_iterator(options_.root, ec))
        if (entry.path().filename().string().starts_with("iio:device"))
            devices.push_back(entry.path());
    std::sort(devices.begin(), devices.end());  // the lowest-numbered first, whatever the order
    std::optional<Sensor> accel, gyro;
    for (const fs::path& dir : devices) {
        if (!accel) accel = Sensor::find(dir, "accel");
        if (!gyro) gyro = Sensor::find(dir, "anglvel");
    }
    if (accel && gyro) channels_ = std::make_unique<Channels>(Channels{*accel, *gyro});
}

IioMotionManager::~IioMotionManager() {
    stopDeviceMotionUpdates();
}

bool IioMotionManager::isDeviceMotionAvailable() const {
    return channels_ != nullptr;
}

bool IioMotionManager::isDeviceMotionActive() const {
    std::lock_guard lock(mutex_);
    return session_ != 0;
}

double IioMotionManager::deviceMotionUpdateInterval() const {
    std::lock_guard lock(mutex_);
    return interval_;
}

void IioMotionManager::setDeviceMotionUpdateInterval(double seconds) {
    std::lock_guard lock(mutex_);
    // A sysfs read costs tens of microseconds; faster than 1 kHz would only spin.
    if (std::isfinite(seconds)) interval_ = std::max(seconds, 0.001);
}

bool IioMotionManager::showsDeviceMovementDisplay() const {
    std::lock_guard lock(mutex_);
    return showsDisplay_;
}

void IioMotionManager::setShowsDeviceMovementDisplay(bool value) {
    std::lock_guard lock(mutex_);
    showsDisplay_ = value;
}

std::string IioMotionManager::accelerometer() const {
    return channels_ ? channels_->accel.device : std::string();
}
std::string IioMotionManager::gyroscope() const {
    return channels_ ? channels_->gyro.device : std::string();
}

std::optional<IioReading> IioMotionManager::read(std::string* error) const {
    if (!channels_) {
        if (error) *error = options_.root + ": no accelerometer and gyroscope";
        return std::nullopt;
    }
    auto accel = channels_->accel.read(error);
    if (!accel) return std::nullopt;
    auto gyro = channels_->gyro.read(error);
    if (!gyro) return std::nullopt;
    return IioReading{*accel, *gyro};
}

platform::DeviceOrientation IioMotionManager::orientation() const {
    std::lock_guard lock(mutex_);
    return orientation_;
}

std::size_t IioMotionManager::samples() const {
    std::lock_guard lock(mutex_);
    return samples_;
}

platform::AsyncRequest IioMotionManager::startDeviceMotionUpdates(
    platform::AttitudeReferenceFrame, std::shared_ptr<platform::Executor> queue,
    platform::DeviceMotionHandler handler) {
    stopDeviceMotionUpdates();
    auto [request, guarded] = platform::AsyncRequest::guard(std::move(handler));
    if (!channels_ || !queue) return std::move(request);
    std::lock_guard lock(mutex_);
    session_ = ++lastSession_;
    reader_ = std::thread([this, session = session_, queue = std::move(queue),
                           deliver = std::move(guarded)] { run(session, queue, deliver); });
    return std::move(request);
}

void IioMotionManager::stopDeviceMotionUpdates() {
    std::thread reader;
    {
        std::lock_guard lock(mutex_);
        session_ = 0;
        reader = std::move(reader_);
    }
    wake_.notify_all();
    if (reader.joinable()) reader.join();
}

void IioMotionManager::run(std::uint64_t session, const std::shared_ptr<platform::Executor>& queue,
                           std::function<void(const std::optional<platform::DeviceMotion>&,
                                              const std::optional<platform::MotionError>&)>
                               deliver) {
    // Queued samples of a stopped session are dropped: each task asks this flag first.
    auto live = std::make_shared<std::atomic<bool>>(true);
    auto handler = std::make_shared<decltype(deliver)>(std::move(deliver));
    GravityFilter filter(options_.gravityTimeConstant);
    std::optional<steady_clock::time_point> last;
    auto next = steady_clock::now();
    std::unique_lock lock(mutex_);
    while (session_ == session) {
        const auto interval = duration_cast<steady_clock::duration>(duration<double>(interval_));
        lock.unlock();
        std::string why;
        const auto reading = read(&why);
        const auto now = steady_clock::now();
        std::optional<platform::DeviceMotion> motion;
        std::optional<platform::MotionError> error;
        if (reading) {
            const double dt = last ? duration<double>(now - *last).count() : 0.0;
            motion = filter.update({reading->accel, reading->gyro}, dt);
            last = now;
        } else {
            error = platform::MotionError{1, why};
        }
        queue->post([live, handler, motion, error] {
            if (live->load()) (*handler)(motion, error);
        });
        lock.lock();
        if (motion) {
            orientation_ = orientationFromGravity(motion->gravity);
            ++samples_;
        }
        // A late wake-up does not bunch samples: the next one is an interval from now.
        next = std::max(next + interval, steady_clock::now());
        wake_.wait_until(lock, next, [&] { return session_ != session; });
    }
    live->store(false);
}

}  // namespace kestrelvue::posix
