#pragma once
// Location from gpsd: the Linux counterpart of a phone's location manager.

#include <kestrelvue/Export.h>
#include <kestrelvue/Value.h>
#include <kestrelvue/platform/Executor.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/LocationManager.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kestrelvue::posix {

/// Application information keys that point the manager at a gpsd other than localhost:2947.
inline constexpr std::string_view kGpsdHostKey = "KestrelvueGpsdHost";
inline constexpr std::string_view kGpsdPortKey = "KestrelvueGpsdPort";

struct KESTRELVUE_EXPORT GpsdEndpoint {
    std::string host = "localhost";
    std::string port = "2947";
    /// The keys above when present (the port as a text or a number), the defaults otherwise.
    static GpsdEndpoint fromApplicationInfo(const std::optional<Object>& info);
};

/// Receives each batch of fixes on the host's queue; a host forwards it to
/// DrivingInsight::didUpdateLocations().
using FixHandler = std::function<void(const std::vector<platform::Location>& fixes)>;

/// Reads TPV reports from gpsd on a thread of its own while updating, and posts every batch (the
/// reports that were waiting together) to `queue`.
///
/// Each report becomes a fix: position, speed, course and altitude as gpsd gives them, the
/// report's own time, and a horizontal accuracy rescaled from gpsd's 95 % confidence to the 68 %
/// the phone platforms (and the engine's accuracy filters) mean. A report without a position
/// becomes a fix at latitude 0.0 with the accuracy of the engine's own placeholder (1000 m), which
/// the engine refuses: the last position stays until gpsd has a new one.
///
/// When gpsd goes away the manager reconnects with back-off (doubling from `minBackoff` up to
/// `maxBackoff`) for as long as updates run; the trip goes on meanwhile, without fixes.
/// gpsd unreachable reads as location services off; Linux has no per-application permission, so
/// the authorisation is always granted.
///
/// Threading contract: the LocationManager calls come from the host's thread (setFixHandler and
/// the counters from any); the handler runs on `queue`, never after stopUpdatingLocation() has
/// returned (a batch already queued is dropped).
class KESTRELVUE_EXPORT GpsdLocationManager final : public platform::LocationManager {
public:
    GpsdLocationManager(GpsdEndpoint endpoint, std::shared_ptr<platform::Executor> queue);
    ~GpsdLocationManager() override;
    GpsdLocationManager(const GpsdLocationManager&) = delete;
    GpsdLocationManager& operator=(const GpsdLocationManager&) = delete;

    void setFixHandler(FixHandler handler);
    void setBackoff(std::chrono::milliseconds minBackoff, std::chrono::milliseconds maxBackoff);

    bool locationServicesEnabled() const override;
    platform::AuthorizationStatus authorizationStatus() const override;
    void requestWhenInUseAuthorization() override {}
    double desiredAccuracy() const override;
    void setDesiredAccuracy(double metres) override;
    double distanceFilter() const override;
    void setDistanceFilter(double metres) override;
    void startUpdatingLocation() override;
    void stopUpdatingLocation() override;

    bool isConnected() const;
    /// Connections made since construction (the first one included).
    std::size_t connections() const;
    /// Reports turned into fixes (with or without a position).
    std::size_t reports() const;

private:
    void run(std::uint64_t session);
    void deliver(std::uint64_t session, std::vector<platform::Location> batch);
    bool stopping(std::uint64_t session) const;

    /// What a queued batch needs to find out whether it may still run, and whom to give it to.
    struct Gate {
        std::mutex mutex;
        std::uint64_t session = 0;
        FixHandler handler;
    };

    const GpsdEndpoint endpoint_;
    const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
    const std::shared_ptr<platform::Executor> queue_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::chrono::milliseconds minBackoff_{250}, maxBackoff_{8000};
    double desiredAccuracy_ = platform::kLocationAccuracyBestForNavigation;
    double distanceFilter_ = platform::kDistanceFilterNone;
    std::uint64_t session_ = 0;  // 0: not updating
    std::uint64_t lastSession_ = 0;
    bool connected_ = false;
    std::size_t connections_ = 0, reports_ = 0;
    std::thread reader_;  // last: ends before the members it uses
};

}  // namespace kestrelvue::posix
