// Judging, charging, recording and publishing one motion sample.

#include <charconv>
#include <cmath>
#include <string>

#include "engine/Detectors.h"
#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

const std::string kShowMotionData = "showMotionData";

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
std::string detail::elapsedText(const std::optional<platform::DateComponents>& elapsed) {
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

// rate × impact × interval to the absolute or the per-kilometre side, in the totals and in the
// sample's record alike.
void charge(double rate, double impact, bool perKm, double interval, double& total,
            double& totalPerKm, double& share, double& sharePerKm) {
    const double amount = rate * impact * interval;
    if (perKm) {
        totalPerKm += amount;
        sharePerKm = amount;
    } else {
        total += amount;
        share = amount;
    }
}

// The ten entries in key order, so each insertion lands at the end of the map.
constexpr const char* kShowMotionDataKeys[10] = {
    "brakingRate", "calculatedSpeed", "corneringRate", "elevatingRate",         "locationSpeed",
    "motionID",    "orientation",     "speedingRate",  "timeElapsedSinceStart", "totalDistance"};

void fill(Value* const (&entries)[10], const ShowMotionData& show) {
    *entries[0] = show.brakingRate;
    *entries[1] = show.calculatedSpeed;
    *entries[2] = show.corneringRate;
    *entries[3] = show.elevatingRate;
    *entries[4] = show.locationSpeed;
    *entries[5] = std::to_string(show.motionId);
    *entries[6] = show.orientation;
    *entries[7] = show.speedingRate;
    *entries[8] = detail::elapsedText(show.elapsed);
    *entries[9] = show.totalDistance;
}

// One notification per thread, built once and refilled for every sample: the dictionary's nodes
// and keys are reused, so publishing a sample allocates nothing of its own. Handlers get it by
// reference for the length of their call, as with any post.
struct ShowMotionDataNotification {
    Notification note;
    Value* entries[10];
    bool busy = false;

    ShowMotionDataNotification() {
        note.name = kShowMotionData;
        note.userInfo.emplace();
        for (std::size_t k = 0; k < 10; ++k)
            entries[k] =
                &note.userInfo->emplace_hint(note.userInfo->end(), kShowMotionDataKeys[k], Value())
                     ->second;
    }
};

void postShowMotionData(const void* engine, NotificationCenter& center,
                        const ShowMotionData& show) {
    thread_local ShowMotionDataNotification cached;
    if (cached.busy) {
        // A handler evaluated a sample from inside its own call: give it a fresh notification.
        ShowMotionDataNotification fresh;
        fresh.note.object = engine;
        fill(fresh.entries, show);
        center.post(fresh.note);
        return;
    }
    cached.busy = true;
    cached.note.object = engine;
    fill(cached.entries, show);
    center.post(cached.note);
    cached.busy = false;
}

}  // namespace

void DrivingInsight::Impl::setFaultType(FaultTypes value) {
    faultType = value;
    switch (value) {
        case FaultTypes::sharpCorneringRight:
        case FaultTypes::sharpCorneringLeft:
            ++sharpCorneringCount;
            break;
        case FaultTypes::sharpElevatingUp:
        case FaultTypes::sharpElevatingDown:
            ++sharpElevatingCount;
            break;
        case FaultTypes::sharpSpeeding:
            ++sharpSpeedingCount;
            break;
        case FaultTypes::sharpBraking:
            ++sharpBrakingCount;
            break;
        case FaultTypes::sharpLaneChangingRight:
        case FaultTypes::sharpLaneChangingLeft:
            ++sharpLaneChangingCount;
            break;
        case FaultTypes::none:
            return;
    }
    ++eventCount;
}

void DrivingInsight::Impl::evaluateActionForDrivingScore(std::int64_t motionId,
                                                         const Vector3& attitude,
                                                         const Vector3& rotationRate,
                                                         const Vector3& userAcceleration,
                                                         const Vector3& gravity) {
    // Decide under the lock, report after it: observers and the upload may call back in.
    const bool observed = showMotionDataObserved_.observed(center_);
    ShowMotionData show;  // filled only when observed
    std::optional<platform::Location> geocodeStart;
    bool startUpload = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Without a position there is nothing to record or to send: the sample is skipped
        // whole (no detector runs, the lane-change state does not move).
        if (!currentLocation) return;
        const platform::Location& here = *currentLocation;
        const double speedAtSample = currentSpeed;
        endLocation = here;
        if (motionId == 1) {
            startLocation = here;
            if (!startAnnotation) startAnnotation = std::make_shared<platform::MapPin>();
            startAnnotation->coordinate = here.coordinate;
            startAnnotation->subtitle = "Başlangıç";
            startDateTime = env_.clock->now();
            geocodeStart = here;
        }

        const int orientation = deviceOrientation;
        const double ui = updateInterval;
        // The sample's fault record, kept in scalars and assembled once at the end: cheaper than
        // initialising a record and overwriting it.
        char dirC = ' ', dirS = ' ', dirE = ' ', dirL = ' ';
        double penC = 0, penS = 0, penB = 0, penE = 0, penL = 0;
        double kmC = 0, kmS = 0, kmB = 0, kmE = 0, kmL = 0, kmF = 0;

        const detail::Finding cornering =
            detail::checkSharpCornering(orientation, userAcceleration, sharpCorneringLevel);
        setFaultType(cornering.finding);
        dirC = directionCharacter(FaultType());
        if (dirC != ' ')
            charge(cornering.rate, cornering.impact, cornering.isPerKM, ui, sharpCorneringPenalty,
                   sharpCorneringPenaltyPerKM, penC, kmC);

        const detail::Finding elevating = detail::checkSharpElevating(
            orientation, rotationRate, userAcceleration, sharpElevatingLevel);
        setFaultType(elevating.finding);
        dirE = directionCharacter(FaultType());
        if (dirE != ' ')
            charge(elevating.rate, elevating.impact, elevating.isPerKM, ui, sharpElevatingPenalty,
                   sharpElevatingPenaltyPerKM, penE, kmE);

        const detail::SpeedingFinding speeding = detail::checkSharpSpeeding(
            orientation, userAcceleration, sharpSpeedingLevel, sharpBrakingLevel);
        setFaultType(speeding.finding);
        dirS = directionCharacter(FaultType());
        if (dirS == 'S')
            charge(speeding.speedingRate, speeding.impact, speeding.isPerKM, ui,
                   sharpSpeedingPenalty, sharpSpeedingPenaltyPerKM, penS, kmS);
        else if (dirS == 'B')
            charge(speeding.brakingRate, speeding.impact, speeding.isPerKM, ui, sharpBrakingPenalty,
                   sharpBrakingPenaltyPerKM, penB, kmB);

        const double fuelRate =
            detail::checkFuelEfficiency(orientation, userAcceleration, fuelEfficiencyLevel);
        if (fuelRate > 0) {
            kmF = fuelRate * ui;
            fuelEfficiencyPenaltyPerKM += kmF;
        }

        const detail::LaneChangeSettings laneSettings{
            sharpLaneChangingDuration1, sharpLaneChangingDuration2, sharpLaneChangingDuration3,
            sharpLaneChangingDuration4, ui};
        const detail::Finding lane = detail::checkSharpLaneChanging(
            laneChangingItems, orientation, rotationRate.z, laneSettings, sharpLaneChangingLevel);
        setFaultType(lane.finding);
        dirL = directionCharacter(FaultType());
        if (dirL != ' ')
            charge(lane.rate, lane.impact, lane.isPerKM, ui, sharpLaneChangingPenalty,
                   sharpLaneChangingPenaltyPerKM, penL, kmL);

        tripMotion.motionDataArray.emplace_back(
            motionId, userAcceleration, rotationRate, attitude, gravity, here,
            FaultItem{dirC, penC, dirS, penS, penB, dirE, penE, dirL, penL, kmC, kmS, kmB, kmE, kmL,
                      kmF},
            env_.clock->now(), deviceOrientationGiven, orientation, speedAtSample);

        if (observed) {
            show = {cornering.rate,
                    speeding.speedingRate,
                    speeding.brakingRate,
                    elevating.rate,
                    currentSpeed,
                    here.speed * birSaatKacSaniye / birKilometreKacMetre,
                    totalTraveledDistance / birKilometreKacMetre,
                    timeElapsedSinceStart,
                    orientation,
                    motionId};
        }

        if (!tripMotion.isSyncingToServer &&
            static_cast<std::int64_t>(tripMotion.motionDataArray.size()) >= bulkMotionDataSize_) {
            tripMotion.isSyncingToServer = true;
            startUpload = true;
        }
    }

    if (geocodeStart) geocodeStartAddress(*geocodeStart);

    if (observed) postShowMotionData(&self_, center_, show);

    if (startUpload) {
        sendMotionDataToServer();
        requestWeather();
    }
}

}  // namespace kestrelvue
