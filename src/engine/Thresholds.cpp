// The download of the penalty bands and scalar settings.
//
// A reply is applied whole or not at all: every element that names a setting or list is checked
// first, and one malformed element turns the whole reply into a failure (the settings keep their
// values and the host hears "thresholdsGot" with the error text). Elements without a name, or
// with a name the engine does not know, are ignored whatever else they hold, so the service can
// add kinds without breaking older engines.

#include <optional>

#include "engine/EngineImpl.h"

namespace kestrelvue {

namespace {

constexpr const char* kThresholdsGot = "thresholdsGot";
constexpr const char* kThresholdsFailedText = "Sunucudan ayarlar indirilemedi. Tekrar deneyiniz";

}  // namespace

void DrivingInsight::Impl::getThresholdsFromServer() {
    restfulCall_->Get(getThresholdsURL, getThresholdsObserverName, true);
}

void DrivingInsight::Impl::getThresholds(const Notification& notification) {
    std::optional<detail::Settings::Reply> reply;
    const bool failed = notification.userInfo && notification.userInfo->count("error") &&
                        notification.userInfo->find("error")->second.isString();
    if (!failed) reply = detail::Settings::Reply::read(notification.userInfo);

    if (!reply) {
        center_.post(kThresholdsGot, &self_, Object{{"error", Value(kThresholdsFailedText)}});
        return;
    }
    {
        std::lock_guard lock(mutex_);
        settings.apply(*reply);
    }
    center_.post(kThresholdsGot, &self_);
}

}  // namespace kestrelvue
