// The download of the penalty bands and scalar settings.
//
// A reply is applied whole or not at all: every element that names a setting or list is checked
// first, and one malformed element turns the whole reply into a failure (the settings keep their
// values and the host hears "thresholdsGot" with the error text). Elements without a name, or
// with a name the engine does not know, are ignored whatever else they hold, so the service can
// add kinds without breaking older engines.

#include <cmath>
#include <optional>
#include <string_view>
#include <variant>

#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

constexpr const char* kThresholdsGot = "thresholdsGot";
constexpr const char* kThresholdsFailedText = "Sunucudan ayarlar indirilemedi. Tekrar deneyiniz";

enum class Target {
    updateInterval,
    distanceFilter,
    duration1,
    duration2,
    duration3,
    duration4,
    cornering,
    speeding,
    braking,
    elevating,
    laneChanging,
    fuel,
};

std::optional<Target> targetFor(std::string_view name) {
    static constexpr std::pair<std::string_view, Target> kNames[] = {
        {"UpdateInterval", Target::updateInterval},
        {"DistanceFilter", Target::distanceFilter},
        {"SharpLaneChangingDuration1", Target::duration1},
        {"SharpLaneChangingDuration2", Target::duration2},
        {"SharpLaneChangingDuration3", Target::duration3},
        {"SharpLaneChangingDuration4", Target::duration4},
        {"SharpCorneringLevel", Target::cornering},
        {"SharpSpeedingLevel", Target::speeding},
        {"SharpBrakingLevel", Target::braking},
        {"SharpElevatingLevel", Target::elevating},
        {"SharpLaneChangingLevel", Target::laneChanging},
        {"FuelEfficiency", Target::fuel},
    };
    for (const auto& [text, target] : kNames)
        if (text == name) return target;
    return std::nullopt;
}

struct Element {
    Target target;
    double limitStart, limitEnd, impact;
    bool perKilometer;
};

std::optional<double> finiteNumber(const Object& element, std::string_view key) {
    auto it = element.find(key);
    if (it == element.end()) return std::nullopt;
    std::optional<double> number = it->second.asNumber();
    if (!number || !std::isfinite(*number)) return std::nullopt;
    return number;
}

/// The elements the engine acts on, in reply order; nullopt when the reply is malformed.
std::optional<std::vector<Element>> readReply(const UserInfo& userInfo) {
    if (!userInfo) return std::nullopt;
    auto data = userInfo->find("Data");
    if (data == userInfo->end()) return std::nullopt;
    const List* list = data->second.asList();
    if (!list) return std::nullopt;

    std::vector<Element> elements;
    for (const Value& item : *list) {
        const Object* object = item.asObject();
        if (!object) return std::nullopt;
        auto name = object->find("_enmThresholdName");
        if (name == object->end()) continue;
        const std::string* text = name->second.asString();
        if (!text) return std::nullopt;
        std::optional<Target> target = targetFor(*text);
        if (!target) continue;

        auto start = finiteNumber(*object, "_limitStart");
        auto end = finiteNumber(*object, "_limitEnd");
        auto impact = finiteNumber(*object, "_impact");
        auto flag = object->find("_perKilometer");
        if (!start || !end || !impact || flag == object->end() || !flag->second.isBool())
            return std::nullopt;
        switch (*target) {
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
        elements.push_back({*target, *start, *end, *impact, *flag->second.asBool()});
    }
    return elements;
}

}  // namespace

void DrivingInsight::Impl::getThresholdsFromServer() {
    restfulCall_->Get(getThresholdsURL, getThresholdsObserverName, true);
}

void DrivingInsight::Impl::getThresholds(const Notification& notification) {
    std::optional<std::vector<Element>> elements;
    const bool failed = notification.userInfo && notification.userInfo->count("error") &&
                        notification.userInfo->find("error")->second.isString();
    if (!failed) elements = readReply(notification.userInfo);

    if (!elements) {
        center_.post(kThresholdsGot, &self_, Object{{"error", Value(kThresholdsFailedText)}});
        return;
    }
    {
        std::lock_guard lock(mutex_);
        for (const Element& e : *elements) {
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
                case Target::cornering:
                    sharpCorneringLevel.push_back(band());
                    break;
                case Target::speeding:
                    sharpSpeedingLevel.push_back(band());
                    break;
                case Target::braking:
                    sharpBrakingLevel.push_back(band());
                    break;
                case Target::elevating:
                    sharpElevatingLevel.push_back(band());
                    break;
                case Target::laneChanging:
                    sharpLaneChangingLevel.push_back(band());
                    break;
                case Target::fuel:
                    fuelEfficiencyLevel.push_back(band());
                    break;
            }
        }
    }
    center_.post(kThresholdsGot, &self_);
}

}  // namespace kestrelvue
