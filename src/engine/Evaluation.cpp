// Judging, charging, recording and publishing one motion sample.

#include <array>
#include <charconv>
#include <cmath>
#include <string>

#include "engine/Detectors.h"
#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

// What the host sees of a sample; captured under the lock, turned into a dictionary after it,
// and only when somebody listens.
struct ShowMotionData {
    double corneringRate, speedingRate, brakingRate, elevatingRate;
    double calculatedSpeed, locationSpeed, totalDistance;
    std::optional<platform::DateComponents> elapsed;
    int orientation;
    std::int64_t motionId;
};

void appendInteger(std::string& out, long long v) {
    char buffer[24];
    out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, v).ptr);
}

}  // namespace

// "1 saat 5 dk 3 sn": each part only when it is not zero; nothing for an unknown time.
std::string detail::elapsedWordsText(const std::optional<platform::DateComponents>& elapsed) {
    std::string text;
    if (!elapsed) return text;
    if (elapsed->hour != 0) {
        appendInteger(text, elapsed->hour);
        text += " saat ";
    }
    if (elapsed->minute != 0) {
        appendInteger(text, elapsed->minute);
        text += " dk ";
    }
    if (elapsed->second != 0) {
        appendInteger(text, elapsed->second);
        text += " sn";
    }
    return text;
}

namespace {

/// What one sample is charged for one kind: its direction and the amount, on the absolute or
/// the per-kilometre side.
struct SampleCharge {
    char direction = ' ';
    double penalty = 0, perKM = 0;
};

// The amount (rate x impact x interval) to the absolute or the per-kilometre side, in the trip's
// totals and in the sample's record alike.
void charge(double amount, bool perKm, detail::KindTotals& total, SampleCharge& share) {
    if (perKm) {
        total.penaltyPerKM += amount;
        share.perKM = amount;
    } else {
        total.penalty += amount;
        share.penalty = amount;
    }
}

void fill(const std::array<Value*, kShowMotionDataKeys.size()>& entries,
          const ShowMotionData& show) {
    *entries[0] = show.brakingRate;
    *entries[1] = show.calculatedSpeed;
    *entries[2] = show.corneringRate;
    *entries[3] = show.elevatingRate;
    *entries[4] = show.locationSpeed;
    *entries[5] = std::to_string(show.motionId);
    *entries[6] = show.orientation;
    *entries[7] = show.speedingRate;
    *entries[8] = detail::elapsedWordsText(show.elapsed);
    *entries[9] = show.totalDistance;
}

}  // namespace

void DrivingInsight::Impl::setFaultType(FaultTypes value) {
    faultType = value;
    if (const auto kind = detail::kindOf(value)) {
        ++trip.totals[*kind].count;
        ++eventCount;
    }
}

void DrivingInsight::Impl::evaluateActionForDrivingScore(std::int64_t motionId,
                                                         const Vector3& attitude,
                                                         const Vector3& rotationRate,
                                                         const Vector3& userAcceleration,
                                                         const Vector3& gravity) {
    // Decide under the lock, report after it: observers and the upload may call back in.
    const bool observed = showMotionData_.observed(center_);
    ShowMotionData show;  // filled only when observed
    std::optional<platform::Location> geocodeStart;
    bool startUpload = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Without a position there is nothing to record or to send: the sample is skipped
        // whole (no detector runs, the lane-change state does not move).
        if (!trip.odometer.currentLocation) return;
        const platform::Location& here = *trip.odometer.currentLocation;
        const double speedAtSample = trip.odometer.currentSpeed;
        trip.endLocation = here;
        if (motionId == 1) {
            trip.startLocation = here;
            if (!trip.startAnnotation) trip.startAnnotation = std::make_shared<platform::MapPin>();
            trip.startAnnotation->coordinate = here.coordinate;
            trip.startAnnotation->subtitle = "Başlangıç";
            trip.startDateTime = env_.clock->now();
            geocodeStart = here;
        }

        const int orientation = deviceOrientation;
        const double ui = settings.updateInterval;

        // Every detector looks at the sample; each finding is counted and, with a direction,
        // charged to its kind. The last finding stays as the engine's fault type.
        const detail::Finding cornering = detail::checkSharpCornering(
            orientation, userAcceleration, settings.level(detail::EventKind::cornering));
        const detail::Finding elevating =
            detail::checkSharpElevating(orientation, rotationRate, userAcceleration,
                                        settings.level(detail::EventKind::elevating));
        const detail::SpeedingFinding speeding = detail::checkSharpSpeeding(
            orientation, userAcceleration, settings.level(detail::EventKind::speeding),
            settings.level(detail::EventKind::braking));
        const double fuelRate = detail::checkFuelEfficiency(orientation, userAcceleration,
                                                            settings.fuelEfficiencyLevel);
        const detail::Finding lane = detail::checkSharpLaneChanging(
            laneChangingItems, orientation, rotationRate.z, settings.laneChange(),
            settings.level(detail::EventKind::laneChanging));

        const detail::Finding findings[] = {
            cornering,
            elevating,
            {speeding.finding,
             speeding.finding == FaultTypes::sharpBraking ? speeding.brakingRate
                                                          : speeding.speedingRate,
             speeding.impact, speeding.isPerKM},
            lane,
        };
        std::array<SampleCharge, detail::kEventKindCount> charges{};
        for (const detail::Finding& f : findings) {
            setFaultType(f.finding);
            const char direction = directionCharacter(f.finding);
            const auto kind = detail::kindOf(f.finding);
            if (direction == ' ' || !kind) continue;
            SampleCharge& c = charges[static_cast<std::size_t>(*kind)];
            c.direction = direction;
            charge(f.rate * f.impact * ui, f.isPerKM, trip.totals[*kind], c);
        }
        double kmF = 0;
        if (fuelRate > 0) {
            kmF = fuelRate * ui;
            trip.totals.fuelEfficiencyPenaltyPerKM += kmF;
        }
        auto at = [&](detail::EventKind kind) -> const SampleCharge& {
            return charges[static_cast<std::size_t>(kind)];
        };
        using K = detail::EventKind;
        // Speeding and braking share one direction slot: a sample is one or the other.
        const char dirS =
            at(K::speeding).direction != ' ' ? at(K::speeding).direction : at(K::braking).direction;

        uploader.buffer.motionDataArray.emplace_back(
            motionId, userAcceleration, rotationRate, attitude, gravity, here,
            FaultItem{at(K::cornering).direction, at(K::cornering).penalty, dirS,
                      at(K::speeding).penalty, at(K::braking).penalty, at(K::elevating).direction,
                      at(K::elevating).penalty, at(K::laneChanging).direction,
                      at(K::laneChanging).penalty, at(K::cornering).perKM, at(K::speeding).perKM,
                      at(K::braking).perKM, at(K::elevating).perKM, at(K::laneChanging).perKM, kmF},
            env_.clock->now(), deviceOrientationGiven, orientation, speedAtSample);

        if (observed) {
            show = {cornering.rate,
                    speeding.speedingRate,
                    speeding.brakingRate,
                    elevating.rate,
                    trip.odometer.currentSpeed,
                    here.speed * birSaatKacSaniye / birKilometreKacMetre,
                    trip.odometer.totalTraveledDistance / birKilometreKacMetre,
                    trip.timeElapsedSinceStart,
                    orientation,
                    motionId};
        }

        startUpload = uploader.startWhenFull(bulkMotionDataSize_);
    }

    if (geocodeStart) geocodeStartAddress(*geocodeStart);

    if (observed) showMotionData_.post(center_, &self_, [&](const auto& e) { fill(e, show); });

    if (startUpload) {
        sendMotionDataToServer();
        requestWeather();
    }
}

}  // namespace kestrelvue
