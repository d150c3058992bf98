#pragma once
// The record of one trip, shared with the host.
//
// Threading: the fields are plain data that any holder reads and writes without checks, on its
// own thread. The route lists (PassedCoordinates, Faults, FuelDefficiencies) are the exception:
// a reply to getPassedCoordinatesFromServer() replaces all three on an HTTP worker thread, under
// the record's route lock, and then posts "drawPassedCoordinates" on that thread. While a query
// may be pending, read them through route(), which copies the three under the same lock and so
// never sees a reply half applied; read the fields directly only once the post has come and no
// other query is pending, and do not write them while one is.

#include <kestrelvue/Export.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/platform/Clock.h>
#include <kestrelvue/platform/Location.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrelvue {

struct Environment;
namespace detail {
template <class T>
struct RecordAllocator;
}

class KESTRELVUE_EXPORT Trip : public std::enable_shared_from_this<Trip> {
public:
    struct FaultStruct {
        platform::Coordinate Coordinate;
        double CorneringPenalty = 0;
        double SpeedingPenalty = 0;
        double BrakingPenalty = 0;
        double ElevatingPenalty = 0;
        double LaneChangingPenalty = 0;
    };
    struct FuelInefficiencyStruct {
        platform::Coordinate Coordinate;
        double FuelEfficiencyPenalty = 0;
    };

    /// A record with the initial values, timed and addressed by Environment::current().
    Trip();
    /// The same over a given environment (engines made through the detached seam use this).
    explicit Trip(const Environment& environment);
    ~Trip();
    Trip(const Trip&) = delete;
    Trip& operator=(const Trip&) = delete;

    /// The service's addresses, shared by every record made over the same base URL (a history
    /// holds thousands of records; two copies each were a tenth of their memory).
    const std::string& addDrivingScoreURL;
    const std::string& getPassedCoordinatesURL;

    std::int64_t UserID = 0;
    std::string DrivingID;
    platform::TimePoint StartDateTime;
    std::string StartDateTime_Formatted;
    std::string StartLocation;
    double StartLocationLat = 0;
    double StartLocationLong = 0;
    platform::TimePoint EndDateTime;
    std::string EndLocation;
    double EndLocationLat = 0;
    double EndLocationLong = 0;
    platform::MapPinRef StartAnnotation;
    platform::MapPinRef EndAnnotation;
    double Score = 0;
    std::int64_t SharpCorneringCount = 0;
    std::int64_t SharpSpeedingCount = 0;
    std::int64_t SharpBrakingCount = 0;
    std::int64_t SharpElevatingCount = 0;
    std::int64_t SharpLaneChangingCount = 0;
    double SharpCorneringPenalty = 0;
    double SharpSpeedingPenalty = 0;
    double SharpBrakingPenalty = 0;
    double SharpElevatingPenalty = 0;
    double SharpLaneChangingPenalty = 0;
    double SharpCorneringPenaltyPerKM = 0;
    double SharpSpeedingPenaltyPerKM = 0;
    double SharpBrakingPenaltyPerKM = 0;
    double SharpElevatingPenaltyPerKM = 0;
    double SharpLaneChangingPenaltyPerKM = 0;
    double FuelEfficiencyPenaltyPerKM = 0;
    std::string TimeElapsed = "00:00:00";
    double TotalDistance = 0;
    std::string TimeElapsedTotalDistance_Formatted;
    bool SentToServer = false;
    platform::TimePoint SystemDate;
    std::vector<platform::Coordinate> PassedCoordinates;
    std::vector<FaultStruct> Faults;
    std::vector<FuelInefficiencyStruct> FuelDefficiencies;

    /// Uploads the record; the host hears tripDidFinish or tripDidFail.
    void saveToServer();
    /// Asks the service for the route and fault points; "drawPassedCoordinates" follows.
    void getPassedCoordinatesFromServer();
    /// Handler of "passedCoordinatesReturnedFromServer": replaces the three route lists from the
    /// reply (keeps them after a failure), ends this record's registrations for the name and
    /// posts "drawPassedCoordinates". Runs on the thread that posted.
    void passedCoordinatesReturnedFromServer(const Notification& notification);

    /// The three route lists, copied together under the route lock.
    struct Route {
        std::vector<platform::Coordinate> PassedCoordinates;
        std::vector<FaultStruct> Faults;
        std::vector<FuelInefficiencyStruct> FuelDefficiencies;
    };
    Route route() const;

    const Environment& environment() const { return env_; }

    /// `StartDateTime_Formatted` of `instant`: "dd.MM.yyyy HH:mm" in the local time zone, the
    /// same in every locale (05.03.2018 14:07).
    static std::string formatDateTime(platform::TimePoint instant);
    /// `TimeElapsedTotalDistance_Formatted`: "0:25:13 sn, 12.4 km" from the elapsed text and the
    /// distance in metres (kilometres with one decimal, as printf's "%.1f").
    static std::string formatTimeElapsedTotalDistance(const std::string& timeElapsed,
                                                      double totalDistanceMetres);

private:
    // Made with the service's addresses already found: a history reply makes thousands of
    // records over one environment, through make_shared with the library's allocator.
    template <class T>
    friend struct detail::RecordAllocator;
    Trip(const Environment& environment, const std::string& addDrivingScoreAddress,
         const std::string& passedCoordinatesAddress);

    // The route lock and the registrations for the route reply, made the first time a route is
    // asked for or read: a history holds thousands of records that never ask. The destructor
    // ends the registrations first, so a released record misses its reply and is never touched.
    struct RouteState;
    RouteState& routeState() const;

    const Environment& env_;
    mutable std::atomic<RouteState*> route_{nullptr};
};

using TripRef = std::shared_ptr<Trip>;

}  // namespace kestrelvue
