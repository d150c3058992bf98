// Trip::saveToServer: one POST of the record, reported to the engine's delegate.

#include <kestrelvue/Environment.h>
#include <kestrelvue/Trip.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "core/Json.h"
#include "net/HttpReply.h"
#include "net/Outbox.h"
#include "net/Url.h"
#include "records/EnvironmentServices.h"

namespace kestrelvue {
namespace {

constexpr const char* kConnectionTitle = "Sistem Bağlantı Hatası";
constexpr const char* kNotSentMessage = "Sürüş Bilgisi Sunucuya iletilemedi";

// "yyyy-MM-dd HH:mm:ss +0000": the instant in UTC, as the service expects every date.
std::string formatUtc(platform::TimePoint t) {
    using namespace std::chrono;
    const auto secs = floor<seconds>(t);
    const auto day = floor<days>(secs);
    const year_month_day ymd{day};
    const hh_mm_ss hms{secs - day};
    char buf[48];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02d:%02d:%02d +0000", int(ymd.year()),
                  unsigned(ymd.month()), unsigned(ymd.day()), int(hms.hours().count()),
                  int(hms.minutes().count()), int(hms.seconds().count()));
    return buf;
}

void reportFailure(const Environment& env, std::int64_t code, const std::string& title,
                   const std::string& message) {
    if (auto delegate = env.services().tripReporter())
        delegate->tripDidFail(code, title, message, nullptr);
}

}  // namespace

void Trip::saveToServer() {
    const Environment& env = env_;
    if (!parseUrl(addDrivingScoreURL)) {
        reportFailure(env, 1013, "URL Hatası", "Servis URL Hatası");
        return;
    }
    platform::HttpRequest request;
    request.url = addDrivingScoreURL;
    request.setValue("application/json", "Content-Type");
    request.setValue("application/json", "Accept");
    request.method = "POST";

    // Read now: later changes to the record do not reach this upload.
    Object body;
    body["userID"] = Value(UserID);
    body["drivingGuid"] = Value(DrivingID);
    body["startDateTime"] = Value(formatUtc(StartDateTime));
    body["startLocation"] = Value(StartLocation);
    body["startLocationLatitude"] = Value(StartLocationLat);
    body["startLocationLongitude"] = Value(StartLocationLong);
    body["endDateTime"] = Value(formatUtc(EndDateTime));
    body["endLocation"] = Value(EndLocation);
    body["endLocationLatitude"] = Value(EndLocationLat);
    body["endLocationLongitude"] = Value(EndLocationLong);
    body["Score"] = Value(Score);
    body["sharpCorneringCount"] = Value(SharpCorneringCount);
    body["sharpSpeedingCount"] = Value(SharpSpeedingCount);
    body["sharpBrakingCount"] = Value(SharpBrakingCount);
    body["sharpElevatingCount"] = Value(SharpElevatingCount);
    body["sharpLaneChangingCount"] = Value(SharpLaneChangingCount);
    body["sharpCorneringPenalty"] = Value(SharpCorneringPenalty + SharpCorneringPenaltyPerKM);
    body["sharpSpeedingPenalty"] = Value(SharpSpeedingPenalty + SharpSpeedingPenaltyPerKM);
    body["sharpBrakingPenalty"] = Value(SharpBrakingPenalty + SharpBrakingPenaltyPerKM);
    body["sharpElevatingPenalty"] = Value(SharpElevatingPenalty + SharpElevatingPenaltyPerKM);
    body["sharpLaneChangingPenalty"] =
        Value(SharpLaneChangingPenalty + SharpLaneChangingPenaltyPerKM);
    body["fuelEfficiencyPenalty"] = Value(FuelEfficiencyPenaltyPerKM);
    body["totalDistance"] = Value(TotalDistance);
    body["timeElapsed"] = Value(TimeElapsed);

    // The writer refuses non-finite numbers; texts must be UTF-8 for the body to be JSON at all.
    std::optional<std::string> text;
    if (json::isValidUtf8(DrivingID) && json::isValidUtf8(StartLocation) &&
        json::isValidUtf8(EndLocation) && json::isValidUtf8(TimeElapsed))
        text = json::write(Value(std::move(body)));
    if (!text) {
        reportFailure(env, 1014, "Sistem Hatası", "Hatalı Json Verisi");
        return;
    }
    request.body = std::move(*text);

    const auto outbox = env.services().openOutbox();
    // The pending upload keeps the record alive until its reply has been handled. A record not
    // held by a shared_ptr is uploaded all the same but cannot be handed back on success.
    auto completion = [self = weak_from_this().lock(), &env](const platform::HttpResult& result) {
        // The response decides; a transport error beside it is not looked at.
        const detail::HttpReply reply = detail::classify(result);
        if (reply.kind == detail::HttpReply::Kind::noResponse) {
            reportFailure(env, 1017, kConnectionTitle, kNotSentMessage);
        } else if (reply.kind == detail::HttpReply::Kind::ok) {
            if (auto delegate = env.services().tripReporter()) delegate->tripDidFinish(self);
        } else {
            reportFailure(
                env, 1015, kConnectionTitle,
                std::string(kNotSentMessage) + ". Response Code:" + std::to_string(reply.status));
        }
    };
    if (outbox) {
        // Written to the store first and sent after the trip's motion bulks; the host hears
        // the first try as always, and later tries only through "uploadsPending".
        platform::OutboxEntry entry;
        entry.kind = platform::OutboxKind::trip;
        entry.url = std::move(request.url);
        entry.body = std::move(*request.body);
        std::vector<platform::OutboxEntry> entries;
        entries.push_back(std::move(entry));
        outbox->submit(std::move(entries), std::move(completion));
        return;
    }
    // The record must reach the service even when nobody holds it any more.
    env.http->send(std::move(request), std::move(completion)).detach();
}

}  // namespace kestrelvue
