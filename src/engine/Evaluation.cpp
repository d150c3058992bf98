// Judging, charging, recording and publishing one motion sample.

#include <charconv>
#include <cmath>
#include <string>

#include "engine/Detectors.h"
#include "engine/EngineImpl.h"
#include "net/Url.h"

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

/// Where each kind's charge goes in a sample's record. Braking shares the speeding character.
struct FaultFields {
    char FaultItem::*direction;
    double FaultItem::*penalty;
    double FaultItem::*perKM;
};
constexpr FaultFields kFaultFields[detail::kEventKindCount] = {
    {&FaultItem::sharpCornering, &FaultItem::sharpCorneringPenalty,
     &FaultItem::sharpCorneringPenaltyPerKM},
    {&FaultItem::sharpSpeeding, &FaultItem::sharpSpeedingPenalty,
     &FaultItem::sharpSpeedingPenaltyPerKM},
    {&FaultItem::sharpSpeeding, &FaultItem::sharpBrakingPenalty,
     &FaultItem::sharpBrakingPenaltyPerKM},
    {&FaultItem::sharpElevating, &FaultItem::sharpElevatingPenalty,
     &FaultItem::sharpElevatingPenaltyPerKM},
    {&FaultItem::sharpLaneChanging, &FaultItem::sharpLaneChangingPenalty,
     &FaultItem::sharpLaneChangingPenaltyPerKM},
};

// The amount (rate x impact x interval) to the absolute or the per-kilometre side, in the trip's
// totals and in the sample's record alike.
void charge(double amount, bool perKm, detail::KindTotals& total, double& share,
            double& sharePerKm) {
    if (perKm) {
        total.penaltyPerKM += amount;
        sharePerKm = amount;
    } else {
        total.penalty += amount;
        share = amount;
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

// The evaluator's loop and the recording step are parts of one per-sample path and are inlined
// into it: as calls, with the judgement returned through memory, they cost a fifth of a sample's
// evaluation.
[[gnu::always_inline]] detail::SampleRates detail::Evaluator::judge(const Vector3& rotationRate,
                                                                    const Vector3& userAcceleration,
                                                                    const Settings& settings,
                                                                    PenaltyTotals& totals,
                                                                    FaultItem& fault) {
    const int orientation = deviceOrientation;
    const double ui = settings.updateInterval;

    const Finding cornering =
        checkSharpCornering(orientation, userAcceleration, settings.level(EventKind::cornering));
    const Finding elevating = checkSharpElevating(orientation, rotationRate, userAcceleration,
                                                  settings.level(EventKind::elevating));
    const SpeedingFinding speeding =
        checkSharpSpeeding(orientation, userAcceleration, settings.level(EventKind::speeding),
                           settings.level(EventKind::braking));
    const double fuelRate =
        checkFuelEfficiency(orientation, userAcceleration, settings.fuelEfficiencyLevel);
    const Finding lane =
        checkSharpLaneChanging(laneChangingItems, orientation, rotationRate.z,
                               settings.laneChange(), settings.level(EventKind::laneChanging));

    // Each detector finds its own kind (or nothing), so each finding is charged to a kind known
    // here, one after another: looked up, and looped over by address, they stayed in memory.
    const auto record = [&](const Finding& f, EventKind kind) {
        if (f.finding == FaultTypes::none) return;
        KindTotals& total = totals[kind];
        ++total.count;
        ++eventCount;
        const FaultFields& field = kFaultFields[static_cast<std::size_t>(kind)];
        fault.*field.direction = directionCharacter(f.finding);
        charge(f.rate * f.impact * ui, f.isPerKM, total, fault.*field.penalty, fault.*field.perKM);
    };
    record(cornering, EventKind::cornering);
    record(elevating, EventKind::elevating);
    const bool braking = speeding.finding == FaultTypes::sharpBraking;
    record({speeding.finding, braking ? speeding.brakingRate : speeding.speedingRate,
            speeding.impact, speeding.isPerKM},
           braking ? EventKind::braking : EventKind::speeding);
    record(lane, EventKind::laneChanging);
    faultType = lane.finding;  // the last finding stays
    if (fuelRate > 0) {
        fault.fuelEfficiencyPenaltyPerKM = fuelRate * ui;
        totals.fuelEfficiencyPenaltyPerKM += fault.fuelEfficiencyPenaltyPerKM;
    }
    return {cornering.rate, speeding.speedingRate, speeding.brakingRate, elevating.rate};
}

// What a recorded sample leaves to do once the lock is released.
struct DrivingInsight::Impl::SampleEffects {
    ShowMotionData show;  // filled only when observed
    std::optional<platform::Location> geocodeStart;
    /// When the sample filled a bulk: the bulk (unless the address is bad) and the weather's
    /// address. Apart, so that an ordinary sample builds and ends none of it.
    struct Upload {
        std::optional<PendingBulk> bulk;
        std::string weatherURL;
    };
    std::optional<Upload> upload;
};

void DrivingInsight::Impl::evaluateActionForDrivingScore(std::int64_t motionId,
                                                         const Vector3& attitude,
                                                         const Vector3& rotationRate,
                                                         const Vector3& userAcceleration,
                                                         const Vector3& gravity) {
    evaluate(nullptr, motionId, attitude, rotationRate, userAcceleration, gravity);
}

void DrivingInsight::Impl::evaluate(const SampleAdmission* admission, std::int64_t motionId,
                                    const Vector3& attitude, const Vector3& rotationRate,
                                    const Vector3& userAcceleration, const Vector3& gravity) {
    // Decide under the lock, report after it: observers and the upload may call back in. A
    // session's sample is admitted, recorded and, when it fills a bulk, the bulk taken, all
    // under one lock.
    const bool observed = showMotionData_.observed(center_);
    SampleEffects effects;
    SampleGate gate = SampleGate::admitted;
    bool recorded = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (admission) gate = admitSampleLocked(*admission, attitude, motionId);
        if (gate == SampleGate::admitted)
            recorded = recordSampleLocked(motionId, attitude, rotationRate, userAcceleration,
                                          gravity, observed, effects);
    }
    if (gate == SampleGate::noPosition) {
        endForLackOfPosition();
        return;
    }
    if (!recorded) return;

    if (effects.geocodeStart) geocodeStartAddress(*effects.geocodeStart);

    if (observed)
        showMotionData_.post(center_, &self_, [&](const auto& e) { fill(e, effects.show); });

    if (effects.upload) {
        if (effects.upload->bulk)
            sendBulk(*effects.upload->bulk);
        else
            sendMotionDataToServer();  // reports the bad address
        requestWeather(effects.upload->weatherURL);
    }
}

[[gnu::always_inline]] bool DrivingInsight::Impl::recordSampleLocked(
    std::int64_t motionId, const Vector3& attitude, const Vector3& rotationRate,
    const Vector3& userAcceleration, const Vector3& gravity, bool observed,
    SampleEffects& effects) {
    // Without a position there is nothing to record or to send: the sample is skipped
    // whole (no detector runs, the lane-change state does not move).
    if (!trip.odometer.currentLocation) return false;
    const platform::Location& here = *trip.odometer.currentLocation;
    const double speedAtSample = trip.odometer.currentSpeed;
    trip.endLocation = here;
    if (motionId == 1) {
        trip.startLocation = here;
        if (!trip.startAnnotation) trip.startAnnotation = std::make_shared<platform::MapPin>();
        trip.startAnnotation->coordinate = here.coordinate;
        trip.startAnnotation->subtitle = "Başlangıç";
        trip.startDateTime = env_.clock->now();
        effects.geocodeStart = here;
    }

    // The record is made blank and charged in place: a charge built apart was zeroed first and
    // copied in after.
    static constexpr FaultItem kNothingCharged{};
    const int orientation = evaluator.deviceOrientation;
    MotionDataItem& record = uploader.buffer.motionDataArray.emplace_back(
        motionId, userAcceleration, rotationRate, attitude, gravity, here, kNothingCharged,
        env_.clock->now(), evaluator.deviceOrientationGiven, orientation, speedAtSample);
    const detail::SampleRates rates =
        evaluator.judge(rotationRate, userAcceleration, settings, trip.totals, record.Fault);

    if (observed) {
        effects.show = {rates.cornering,
                        rates.speeding,
                        rates.braking,
                        rates.elevating,
                        trip.odometer.currentSpeed,
                        here.speed * birSaatKacSaniye / birKilometreKacMetre,
                        trip.odometer.totalTraveledDistance / birKilometreKacMetre,
                        trip.timeElapsedSinceStart,
                        orientation,
                        motionId};
    }

    if (uploader.startWhenFull(host.bulkMotionDataSize)) {
        auto& upload = effects.upload.emplace();
        if (parseUrl(urls.addMotionDataURL)) upload.bulk = takeBulkLocked();
        upload.weatherURL = weatherURLLocked();
    }
    return true;
}

}  // namespace kestrelvue
