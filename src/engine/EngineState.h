#pragma once
// The engine's state as plain values, each with its own rules: the penalty totals by kind, the
// per-trip state, the odometer, the settings and bands, and the motion uploader. The engine owns
// one of each behind its lock; tests build and compare them directly.

#include <kestrelvue/Environment.h>
#include <kestrelvue/FaultItem.h>
#include <kestrelvue/LaneChangingData.h>
#include <kestrelvue/MotionData.h>
#include <kestrelvue/Threshold.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/Location.h>
#include <kestrelvue/platform/TransportError.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/Detectors.h"
#include "records/EventKinds.h"

namespace kestrelvue::detail {

struct KindTotals {
    std::int64_t count = 0;
    double penalty = 0;
    double penaltyPerKM = 0;
    bool operator==(const KindTotals&) const = default;
};

/// A trip's counts and penalties, each kind written once.
struct PenaltyTotals {
    std::array<KindTotals, kEventKindCount> kinds{};
    double fuelEfficiencyPenaltyPerKM = 0;

    KindTotals& operator[](EventKind kind) { return kinds[static_cast<std::size_t>(kind)]; }
    const KindTotals& operator[](EventKind kind) const {
        return kinds[static_cast<std::size_t>(kind)];
    }
    bool operator==(const PenaltyTotals&) const = default;
};

/// Divides the per-kilometre totals by the trip's kilometres when it is longer than 1000 m, then
/// returns 100 minus all totals (each kind's penalty, then its per-km penalty, in kind order, then
/// fuel), not below 0.
double calculateScore(PenaltyTotals& totals, double totalTraveledDistance,
                      double metresPerKilometre);

/// The trip record's elapsed time: hours, minutes and seconds without padding, joined by ":"
/// ("0:25:13"); "0:0:0" when unknown.
std::string elapsedClockText(const std::optional<platform::DateComponents>& elapsed);

/// Position, speed and distance, moved on by the fixes the engine accepts.
struct Odometer {
    /// The fix the engine stands on (a placeholder at latitude 0 until the trip's first one).
    std::optional<platform::Location> currentLocation;
    std::optional<platform::DateComponents> timeElapsedSinceLastLocation;
    double hoursElapsedSinceLastLocation = 0;
    double currentSpeed = 0;  // km/h
    double previousSpeed = 0;
    double totalTraveledDistance = 0;  // m
    double traveledDistanceSinceLastLocation = 0;

    /// Of a batch of fixes, the most accurate one that is accurate enough (< distanceFilter), on
    /// the earth, newer than the current fix (or as old and more accurate) and not older than a
    /// second; null when none is.
    const platform::Location* select(const std::vector<platform::Location>& fixes,
                                     platform::TimePoint now, double distanceFilter) const;
    /// Stands on `fix`, measuring the way from the current fix first.
    void moveTo(std::optional<platform::Location> fix, double distanceFilterForSpeed);
    /// Distance and speed from `from` to `to`, when both are accurate enough for speed and the
    /// start is a real position; speed capped at 300 km/h.
    void measure(const platform::Location& from, const platform::Location& to,
                 double distanceFilterForSpeed);
    /// Stores the leg, then adds it to the total.
    void addLeg(double metres);
    /// Keeps the old speed as the previous one, then stores the new one.
    void setSpeed(double kmh);
};

/// Everything that belongs to one trip.
struct TripState {
    std::string drivingID;
    std::optional<platform::TimePoint> startDateTime;
    std::optional<platform::TimePoint> endDateTime;
    std::optional<platform::Location> startLocation;
    std::optional<platform::Location> endLocation;
    std::string startLocationStr;
    std::string endLocationStr;
    platform::MapPinRef startAnnotation, endAnnotation;
    std::vector<platform::Coordinate> passedCoordinates;
    std::optional<platform::DateComponents> timeElapsedSinceStart;
    double hoursElapsedSinceStart = 0;
    Odometer odometer;
    PenaltyTotals totals;
    double score = 0;
    std::optional<double> temperature;

    /// A trip starting at `now`: fresh identity and pins, empty places, a placeholder fix 1 km
    /// inaccurate, nothing charged.
    static TripState starting(std::string drivingID, platform::TimePoint now);

    /// Settles the per-km totals into per-kilometre figures, as the record carries them, and
    /// keeps the score they give.
    double settleScore();

    /// The record the host and the service see, made at `now` for `userID`.
    std::shared_ptr<Trip> record(const Environment& environment, std::int64_t userID,
                                 platform::TimePoint now) const;
};

/// The scalar settings and the penalty bands the service sends.
struct Settings {
    double tolerance = 0.1;
    double updateInterval = 0.5;  // seconds between motion samples
    std::array<ThresholdList, kEventKindCount> levels;
    ThresholdList fuelEfficiencyLevel;
    std::int64_t sharpLaneChangingDuration1 = 3;
    std::int64_t sharpLaneChangingDuration2 = 10;
    std::int64_t sharpLaneChangingDuration3 = 4;
    std::int64_t sharpLaneChangingDuration4 = 15;
    /// These are the reply kept from an earlier run, not yet replaced by a download.
    bool fromKeptReply = false;
    double distanceFilter = 50.0;          // m: fixes less accurate than this are ignored
    double distanceFilterForSpeed = 30.0;  // m: ... and not used for speed

    ThresholdList& level(EventKind kind) { return levels[static_cast<std::size_t>(kind)]; }
    const ThresholdList& level(EventKind kind) const {
        return levels[static_cast<std::size_t>(kind)];
    }
    LaneChangeSettings laneChange() const {
        return {sharpLaneChangingDuration1, sharpLaneChangingDuration2, sharpLaneChangingDuration3,
                sharpLaneChangingDuration4, updateInterval};
    }

    /// A threshold reply, checked: what it sets, in reply order.
    struct Reply {
        enum class Target {
            updateInterval,
            distanceFilter,
            duration1,
            duration2,
            duration3,
            duration4,
            band,
            fuel,
        };
        struct Element {
            Target target;
            EventKind kind;  // for bands
            double limitStart, limitEnd, impact;
            bool perKilometer;
        };
        std::vector<Element> elements;

        /// Nullopt when the reply is malformed: not a "Data" list of objects, or an element the
        /// engine knows with a missing or wrong member. Unnamed and unknown elements are ignored.
        static std::optional<Reply> read(const UserInfo& userInfo);
    };
    /// Applies a checked reply whole: scalars replaced, bands appended.
    void apply(const Reply& reply);
    /// True when any list holds a band: without one no event is ever charged.
    bool hasBands() const {
        for (const auto& list : levels)
            if (!list.empty()) return true;
        return !fuelEfficiencyLevel.empty();
    }
};

/// The rates the detectors measured in one sample, as the host is shown them.
struct SampleRates {
    double cornering = 0, speeding = 0, braking = 0, elevating = 0;
};

/// The detectors' state, which carries over from one sample into the next and from one trip into
/// the next: the orientation, the last finding, the count of events and the lane-change machine.
struct Evaluator {
    int deviceOrientationGiven = 0;  // as the device reports it
    int deviceOrientation = 0;       // as the engine reads it from the pitch
    FaultTypes faultType = FaultTypes::none;
    std::int64_t eventCount = 0;
    LaneChangingData laneChangingItems;

    /// Every detector looks at the sample; each finding is counted and, with a direction, charged
    /// to its kind in `totals` and in `fault`, the sample's record (blank on entry: only what is
    /// charged is written). The last finding stays as the fault type. Inline, and defined in
    /// Evaluation.cpp, the one place it is called.
    inline SampleRates judge(const Vector3& rotationRate, const Vector3& userAcceleration,
                             const Settings& settings, PenaltyTotals& totals, FaultItem& fault);
};

/// {"UserID":..,"DrivingGuid":"..","MotionStr":"..","AppVersion":".." or null}, compact, written by
/// hand: one bulk text is ~300 KB and a general writer would build a dynamic value around it
/// first. nullopt when a text is not valid UTF-8 (the body would not be JSON).
std::optional<std::string> writeMotionDataBody(std::int64_t userID, std::string_view drivingGuid,
                                               std::string_view motionStr,
                                               const std::optional<std::string>& appVersion);

/// The transport error as an optional value: Optional(Error Domain=.. Code=.. "..") or nil.
std::string describeOptionalError(const std::optional<TransportError>& error);

/// Where the trip stands when an upload's outcome arrives.
struct UploadPhase {
    bool outbox = false;    // the durable outbox took the stopped trip whole
    bool driving = false;   // the trip is still being recorded
    bool endKnown = false;  // the stopped trip's end address is known
};

/// The motion records waiting to go, the bulk on its way, and what to do when it is answered.
struct MotionUploader {
    MotionData buffer;
    /// How many records the upload in flight carries: its confirmation removes exactly these.
    std::optional<std::size_t> bulkInFlight;

    /// After a record was added: whether a full bulk can go now (none on its way). Marks it
    /// going when so.
    bool startWhenFull(std::int64_t bulkSize) {
        if (buffer.isSyncingToServer ||
            static_cast<std::int64_t>(buffer.motionDataArray.size()) < bulkSize)
            return false;
        buffer.isSyncingToServer = true;
        return true;
    }
    /// The text of the next bulk (the oldest `bulkSize` records, all there are when fewer),
    /// written from the buffer in place; the bulk is marked in flight and its records stay until
    /// confirmed.
    std::string takeBulkText(std::int64_t bulkSize);
    /// Hands over what is not in flight (the outbox takes a stopped trip whole).
    std::vector<MotionDataItem> takeAllButInFlight();

    enum class AfterSuccess { nothing, sendNextBulk, completeTrip };
    /// The bulk in flight was confirmed: its records leave the buffer.
    AfterSuccess confirmed(const UploadPhase& phase);

    enum class AfterFailure { nothing, retry, report, giveUp };
    /// The bulk in flight failed. Its records stay, unless the outbox keeps them; a stopped
    /// trip's bulk is tried again three times before the host is told.
    AfterFailure failed(const UploadPhase& phase);
};

}  // namespace kestrelvue::detail
