#include "engine/EngineState.h"

#include <kestrelvue/DrivingInsight.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string_view>
#include <utility>

namespace kestrelvue::detail {
namespace {

constexpr double kMetresPerKilometre = 1000.0;
constexpr double kSecondsPerHour = 3600.0;
constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kSpeedCapKmh = 300.0;

/// A fix whose coordinate is not a place on the earth would poison every distance after it.
bool isOnEarth(const platform::Coordinate& c) {
    return std::isfinite(c.latitude) && std::isfinite(c.longitude) && std::abs(c.latitude) <= 90 &&
           std::abs(c.longitude) <= 180;
}

}  // namespace

double calculateScore(PenaltyTotals& t, double totalTraveledDistance, double metresPerKilometre) {
    // Short trips count as one kilometre, so a few metres cannot blow the per-km totals up.
    if (totalTraveledDistance > 1000.0) {
        const double kilometres = totalTraveledDistance / metresPerKilometre;
        for (KindTotals& k : t.kinds) k.penaltyPerKM = k.penaltyPerKM / kilometres;
        t.fuelEfficiencyPenaltyPerKM = t.fuelEfficiencyPenaltyPerKM / kilometres;
    }
    // Left to right in the fixed order: floating-point sums depend on it.
    double sum = 0;
    bool first = true;
    for (const KindTotals& k : t.kinds) {
        sum = first ? k.penalty : sum + k.penalty;
        first = false;
        sum = sum + k.penaltyPerKM;
    }
    sum = sum + t.fuelEfficiencyPenaltyPerKM;
    double score = 100.0 - sum;
    if (score < 0.0) score = 0.0;
    return score;
}

std::string elapsedClockText(const std::optional<platform::DateComponents>& elapsed) {
    const platform::DateComponents v = elapsed.value_or(platform::DateComponents{});
    return std::to_string(v.hour) + ":" + std::to_string(v.minute) + ":" + std::to_string(v.second);
}

// ---- Odometer -----------------------------------------------------------------------------------

const platform::Location* Odometer::select(const std::vector<platform::Location>& fixes,
                                           platform::TimePoint now, double distanceFilter) const {
    const platform::Location* best = nullptr;
    for (const platform::Location& fix : fixes) {
        if (!(fix.horizontalAccuracy < distanceFilter) || !isOnEarth(fix.coordinate)) continue;
        // A trip always has a current fix (the placeholder until one is accepted); without one,
        // every candidate counts as newer.
        if (currentLocation) {
            const bool newer = fix.timestamp > currentLocation->timestamp;
            const bool sameButBetter = fix.timestamp == currentLocation->timestamp &&
                                       fix.horizontalAccuracy < currentLocation->horizontalAccuracy;
            if (!newer && !sameButBetter) continue;
        }
        if (fix.timestamp < now - std::chrono::seconds(1)) continue;
        if (!best || fix.horizontalAccuracy < best->horizontalAccuracy) best = &fix;
    }
    return best;
}

void Odometer::moveTo(std::optional<platform::Location> fix, double distanceFilterForSpeed) {
    if (currentLocation && fix) measure(*currentLocation, *fix, distanceFilterForSpeed);
    currentLocation = fix;
}

void Odometer::measure(const platform::Location& from, const platform::Location& to,
                       double distanceFilterForSpeed) {
    // Latitude 0.0 is the placeholder of a trip that has no position yet.
    if (from.coordinate.latitude == 0.0) return;
    if (!(from.horizontalAccuracy < distanceFilterForSpeed) ||
        !(to.horizontalAccuracy < distanceFilterForSpeed))
        return;

    addLeg(from.distance(to));
    timeElapsedSinceLastLocation =
        platform::DateComponents::nanosecondOnly(from.timestamp, to.timestamp);
    hoursElapsedSinceLastLocation = static_cast<double>(timeElapsedSinceLastLocation->nanosecond) /
                                    (kSecondsPerHour * kNanosecondsPerSecond);
    if (hoursElapsedSinceLastLocation == 0) return;

    const double speed =
        (traveledDistanceSinceLastLocation / kMetresPerKilometre) / hoursElapsedSinceLastLocation;
    setSpeed(speed <= kSpeedCapKmh ? speed : kSpeedCapKmh);
}

void Odometer::addLeg(double metres) {
    traveledDistanceSinceLastLocation = metres;
    totalTraveledDistance += metres;
}

void Odometer::setSpeed(double kmh) {
    previousSpeed = currentSpeed;
    currentSpeed = kmh;
}

// ---- TripState ----------------------------------------------------------------------------------

TripState TripState::starting(std::string drivingID, platform::TimePoint now) {
    TripState trip;
    trip.drivingID = std::move(drivingID);
    trip.startDateTime = now;
    trip.startLocation = platform::Location{};
    trip.endLocation = platform::Location{};
    trip.startAnnotation = std::make_shared<platform::MapPin>();
    trip.endAnnotation = std::make_shared<platform::MapPin>();
    platform::Location placeholder;
    placeholder.horizontalAccuracy = 1000;
    placeholder.verticalAccuracy = 1000;
    placeholder.timestamp = now;
    trip.odometer.currentLocation = placeholder;
    trip.timeElapsedSinceStart = platform::DateComponents::hourMinuteSecond(now, now);
    trip.odometer.timeElapsedSinceLastLocation = trip.timeElapsedSinceStart;
    return trip;
}

double TripState::settleScore() {
    score = calculateScore(totals, odometer.totalTraveledDistance,
                           DrivingInsight::birKilometreKacMetre);
    return score;
}

std::shared_ptr<Trip> TripState::record(const Environment& environment, std::int64_t userID,
                                        platform::TimePoint now) const {
    auto trip = std::make_shared<Trip>(environment);
    trip->UserID = userID;
    trip->DrivingID = drivingID;
    if (startDateTime) trip->StartDateTime = *startDateTime;
    trip->StartDateTime_Formatted = Trip::formatDateTime(trip->StartDateTime);
    trip->StartLocation = startLocationStr;
    if (startLocation) {
        trip->StartLocationLat = startLocation->coordinate.latitude;
        trip->StartLocationLong = startLocation->coordinate.longitude;
    }
    if (endDateTime) trip->EndDateTime = *endDateTime;
    trip->EndLocation = endLocationStr;
    if (endLocation) {
        trip->EndLocationLat = endLocation->coordinate.latitude;
        trip->EndLocationLong = endLocation->coordinate.longitude;
    }
    trip->StartAnnotation = startAnnotation;
    trip->EndAnnotation = endAnnotation;
    trip->Score = score;
    // The record spells each kind out; the totals hold them by kind.
    struct Fields {
        std::int64_t Trip::*count;
        double Trip::*penalty;
        double Trip::*perKM;
    };
    static constexpr Fields kFields[kEventKindCount] = {
        {&Trip::SharpCorneringCount, &Trip::SharpCorneringPenalty,
         &Trip::SharpCorneringPenaltyPerKM},
        {&Trip::SharpSpeedingCount, &Trip::SharpSpeedingPenalty, &Trip::SharpSpeedingPenaltyPerKM},
        {&Trip::SharpBrakingCount, &Trip::SharpBrakingPenalty, &Trip::SharpBrakingPenaltyPerKM},
        {&Trip::SharpElevatingCount, &Trip::SharpElevatingPenalty,
         &Trip::SharpElevatingPenaltyPerKM},
        {&Trip::SharpLaneChangingCount, &Trip::SharpLaneChangingPenalty,
         &Trip::SharpLaneChangingPenaltyPerKM},
    };
    for (EventKind kind : kEventKinds) {
        const Fields& f = kFields[static_cast<std::size_t>(kind)];
        (*trip).*f.count = totals[kind].count;
        (*trip).*f.penalty = totals[kind].penalty;
        (*trip).*f.perKM = totals[kind].penaltyPerKM;
    }
    trip->FuelEfficiencyPenaltyPerKM = totals.fuelEfficiencyPenaltyPerKM;
    trip->PassedCoordinates = passedCoordinates;
    trip->TimeElapsed = elapsedClockText(timeElapsedSinceStart);
    trip->TotalDistance = odometer.totalTraveledDistance;
    trip->TimeElapsedTotalDistance_Formatted =
        Trip::formatTimeElapsedTotalDistance(trip->TimeElapsed, trip->TotalDistance);
    trip->SentToServer = false;
    trip->SystemDate = now;
    return trip;
}

// ---- Settings -----------------------------------------------------------------------------------

namespace {

using Target = Settings::Reply::Target;

struct Name {
    std::string_view text;
    Target target;
    EventKind kind;
};
constexpr Name kNames[] = {
    {"UpdateInterval", Target::updateInterval, EventKind::cornering},
    {"DistanceFilter", Target::distanceFilter, EventKind::cornering},
    {"SharpLaneChangingDuration1", Target::duration1, EventKind::cornering},
    {"SharpLaneChangingDuration2", Target::duration2, EventKind::cornering},
    {"SharpLaneChangingDuration3", Target::duration3, EventKind::cornering},
    {"SharpLaneChangingDuration4", Target::duration4, EventKind::cornering},
    {"SharpCorneringLevel", Target::band, EventKind::cornering},
    {"SharpSpeedingLevel", Target::band, EventKind::speeding},
    {"SharpBrakingLevel", Target::band, EventKind::braking},
    {"SharpElevatingLevel", Target::band, EventKind::elevating},
    {"SharpLaneChangingLevel", Target::band, EventKind::laneChanging},
    {"FuelEfficiency", Target::fuel, EventKind::cornering},
};

std::optional<double> finiteNumber(const Object& element, std::string_view key) {
    auto it = element.find(key);
    if (it == element.end()) return std::nullopt;
    std::optional<double> number = it->second.asNumber();
    if (!number || !std::isfinite(*number)) return std::nullopt;
    return number;
}

}  // namespace

std::optional<Settings::Reply> Settings::Reply::read(const UserInfo& userInfo) {
    if (!userInfo) return std::nullopt;
    auto data = userInfo->find("Data");
    if (data == userInfo->end()) return std::nullopt;
    const List* list = data->second.asList();
    if (!list) return std::nullopt;

    Reply reply;
    for (const Value& item : *list) {
        const Object* object = item.asObject();
        if (!object) return std::nullopt;
        auto name = object->find("_enmThresholdName");
        if (name == object->end()) continue;
        const std::string* text = name->second.asString();
        if (!text) return std::nullopt;
        const Name* known = nullptr;
        for (const Name& n : kNames)
            if (n.text == *text) known = &n;
        if (!known) continue;

        auto start = finiteNumber(*object, "_limitStart");
        auto end = finiteNumber(*object, "_limitEnd");
        auto impact = finiteNumber(*object, "_impact");
        auto flag = object->find("_perKilometer");
        if (!start || !end || !impact || flag == object->end() || !flag->second.isBool())
            return std::nullopt;
        switch (known->target) {
            case Target::duration1:
            case Target::duration2:
            case Target::duration3:
            case Target::duration4:
                // Truncation towards zero must land inside the signed 64-bit range.
                if (!(*start >= -9223372036854775808.0 && *start < 9223372036854775808.0))
                    return std::nullopt;
                break;
            case Target::updateInterval:
                // A sensor cannot sample at a zero or negative interval.
                if (!(*start > 0)) return std::nullopt;
                break;
            default:
                break;
        }
        reply.elements.push_back(
            {known->target, known->kind, *start, *end, *impact, *flag->second.asBool()});
    }
    return reply;
}

void Settings::apply(const Reply& reply) {
    for (const Reply::Element& e : reply.elements) {
        auto band = [&] {
            return std::make_shared<const Threshold>(e.limitStart, e.limitEnd, e.impact,
                                                     e.perKilometer);
        };
        switch (e.target) {
            case Target::updateInterval:
                updateInterval = e.limitStart;
                break;
            case Target::distanceFilter:
                distanceFilterForSpeed = e.limitStart;
                distanceFilter = e.limitEnd;
                break;
            case Target::duration1:
                sharpLaneChangingDuration1 = static_cast<std::int64_t>(e.limitStart);
                break;
            case Target::duration2:
                sharpLaneChangingDuration2 = static_cast<std::int64_t>(e.limitStart);
                break;
            case Target::duration3:
                sharpLaneChangingDuration3 = static_cast<std::int64_t>(e.limitStart);
                break;
            case Target::duration4:
                sharpLaneChangingDuration4 = static_cast<std::int64_t>(e.limitStart);
                break;
            case Target::band:
                level(e.kind).push_back(band());
                break;
            case Target::fuel:
                fuelEfficiencyLevel.push_back(band());
                break;
        }
    }
}

// ---- MotionUploader -----------------------------------------------------------------------------

std::string MotionUploader::takeBulkText(std::int64_t bulkSize) {
    const std::size_t count =
        std::min<std::size_t>(buffer.motionDataArray.size(),
                              static_cast<std::size_t>(std::max<std::int64_t>(bulkSize, 0)));
    bulkInFlight = count;
    return buffer.bulkMotionDataToString(static_cast<std::int64_t>(count));
}

std::vector<MotionDataItem> MotionUploader::takeAllButInFlight() {
    auto& items = buffer.motionDataArray;
    const auto keep = static_cast<std::ptrdiff_t>(std::min(bulkInFlight.value_or(0), items.size()));
    std::vector<MotionDataItem> rest(items.begin() + keep, items.end());
    items.erase(items.begin() + keep, items.end());
    return rest;
}

MotionUploader::AfterSuccess MotionUploader::confirmed(const UploadPhase& phase) {
    // Only the records the confirmed bulk carried: anything appended while it was in flight has
    // not been sent yet. A confirmation with no bulk in flight removes nothing.
    const std::size_t carried = bulkInFlight.value_or(0);
    bulkInFlight.reset();
    buffer.removeSentBulkMotionData(static_cast<std::int64_t>(carried));
    buffer.isSyncingToServer = false;
    buffer.serverSyncTryCount = 0;
    // With the outbox a stopped trip was handed over whole when it stopped; while driving, the
    // next upload starts when the buffer is full again.
    if (phase.outbox || phase.driving) return AfterSuccess::nothing;
    if (!buffer.motionDataArray.empty()) {
        // Flush the stopped trip bulk by bulk, but only while bulks make progress: a bulk size
        // of 0 (or a confirmation with no bulk in flight) would otherwise send empty bulks for
        // ever. The trip then stays incomplete with its records kept.
        if (carried == 0) return AfterSuccess::nothing;
        buffer.isSyncingToServer = true;
        return AfterSuccess::sendNextBulk;
    }
    // Without the end address the lookup's notification starts the upload that completes it.
    return phase.endKnown ? AfterSuccess::completeTrip : AfterSuccess::nothing;
}

MotionUploader::AfterFailure MotionUploader::failed(const UploadPhase& phase) {
    const std::size_t carried = bulkInFlight.value_or(0);
    bulkInFlight.reset();
    buffer.isSyncingToServer = false;
    if (phase.outbox) {
        // The bulk is safe in the store under its own trip and goes out from there: kept here it
        // would go again, under whichever trip is current by then.
        buffer.removeSentBulkMotionData(static_cast<std::int64_t>(carried));
        if (!phase.driving) return AfterFailure::nothing;  // handed over whole at the stop
    }
    // While driving the records stay and go with the next upload a full buffer starts.
    if (phase.driving) return AfterFailure::report;
    // The end address is not known yet; its notification starts another upload.
    if (!phase.endKnown) return AfterFailure::nothing;
    if (buffer.serverSyncTryCount < 3) {
        buffer.isSyncingToServer = true;
        buffer.serverSyncTryCount += 1;
        return AfterFailure::retry;
    }
    // Retries used up: the trip stays incomplete and its records stay in the buffer.
    return AfterFailure::giveUp;
}

}  // namespace kestrelvue::detail
