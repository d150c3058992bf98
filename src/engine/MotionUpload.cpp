// The motion buffer's upload: one bulk per request, continued, retried and reported by the two
// outcome handlers.

#include <algorithm>
#include <utility>

#include "core/Json.h"
#include "core/Locked.h"
#include "engine/EngineImpl.h"
#include "engine/EngineState.h"
#include "net/EncodedUpload.h"
#include "net/Gzip.h"
#include "net/HttpReply.h"
#include "net/Outbox.h"
#include "net/Url.h"

namespace kestrelvue {

namespace {

constexpr const char* kMotionDataSynced = "motionDataSynced";
constexpr const char* kMotionDataSyncFailed = "motionDataSyncFailed";
constexpr const char* kConnectionTitle = "Sistem Bağlantı Hatası";
constexpr const char* kNotSentPrefix = "Sürüş Bilgisi Sunucuya iletilemedi. ";

std::optional<std::string> appVersionOf(const Environment& env) {
    if (!env.applicationInfo) return std::nullopt;
    auto it = env.applicationInfo->find("CFBundleShortVersionString");
    if (it == env.applicationInfo->end()) return std::nullopt;
    if (const std::string* s = it->second.asString()) return *s;
    return std::nullopt;
}

UserInfo errorInfo(std::string text) {
    Object info;
    info["error"] = Value(std::move(text));
    return info;
}

}  // namespace

void DrivingInsight::Impl::sendMotionDataToServer() {
    if (!parseUrl(urls.addMotionDataURL)) {
        center_.post(kMotionDataSyncFailed, &self_, errorInfo("Error Code:1004 Bad URL"));
        return;
    }
    sendBulk(detail::withLock(mutex_, [this] { return takeBulkLocked(); }));
}

DrivingInsight::Impl::PendingBulk DrivingInsight::Impl::takeBulkLocked() {
    // The text is written straight from the buffer's records, with no copy of them: a bulk is
    // taken once per thousand samples and its text takes a fraction of a sample's interval.
    // The records stay in the buffer until the service confirms them.
    PendingBulk bulk;
    bulk.motionStr = uploader.takeBulkText(host.bulkMotionDataSize);
    bulk.carried = uploader.bulkInFlight.value_or(0);
    bulk.user = host.userID;
    bulk.driving = trip.drivingID;
    return bulk;
}

void DrivingInsight::Impl::sendBulk(const PendingBulk& bulk) {
    const std::size_t carried = bulk.carried;
    auto body =
        detail::writeMotionDataBody(bulk.user, bulk.driving, bulk.motionStr, appVersionOf(env_));
    if (!body) {
        center_.post(kMotionDataSyncFailed, &self_,
                     errorInfo("Error Code:1005 JSON Serialization Fail"));
        return;
    }

    platform::HttpRequest request;
    request.url = urls.addMotionDataURL;
    request.method = "POST";
    request.setValue("application/json", "Content-Type");
    request.setValue("application/json", "Accept");
    request.body = std::move(*body);

    // The bulk is sent whatever becomes of this engine, so its reply never touches the engine:
    // it holds the centre and posts the outcome there, where the engine's observers (gone with
    // the engine) hear it.
    auto completion = [center = center_.shared_from_this(),
                       sender =
                           static_cast<const void*>(&self_)](const platform::HttpResult& result) {
        // The response decides; the transport's error only describes a missing one.
        const detail::HttpReply reply = detail::classify(result);
        if (reply.kind == detail::HttpReply::Kind::noResponse) {
            center->post(kMotionDataSyncFailed, sender,
                         errorInfo("Error Code:1007 Bad HTTPURLResponse - " +
                                   detail::describeOptionalError(result.error)));
        } else if (reply.kind == detail::HttpReply::Kind::ok) {
            center->post(kMotionDataSynced, sender);
        } else {
            center->post(
                kMotionDataSyncFailed, sender,
                errorInfo("Error Code:1006 Response Code:" + std::to_string(reply.status)));
        }
    };
    if (net.outbox) {
        // Written to the store first; the outbox reports this first try as the client would.
        platform::OutboxEntry entry;
        entry.kind = platform::OutboxKind::motion;
        entry.records = static_cast<std::int64_t>(carried);
        entry.url = std::move(request.url);
        entry.body = std::move(*request.body);
        std::vector<platform::OutboxEntry> entries;
        entries.push_back(std::move(entry));
        net.outbox->submit(std::move(entries), std::move(completion));
        return;
    }
    if (net.deflater) {
        // Deflated on the deflater's thread: a bulk is ~300 KB and this may be the host's.
        net.deflater->post([http = env_.http, request = std::move(request),
                            completion = std::move(completion)]() mutable {
            if (detail::compressFor(true, request.url)) {
                if (auto packed = detail::gzip(*request.body)) request.body = std::move(*packed);
            }
            detail::sendUpload(http, std::move(request), std::move(completion)).detach();
        });
        return;
    }
    env_.http->send(std::move(request), std::move(completion)).detach();
}

void DrivingInsight::Impl::handOverStoppedTrip() {
    // Records of an upload still in flight stay: its outcome removes them.
    std::vector<MotionDataItem> records;
    std::int64_t user = 0;
    std::string driving;
    std::size_t bulkSize = 0;
    {
        std::lock_guard lock(mutex_);
        records = uploader.takeAllButInFlight();
        user = host.userID;
        driving = trip.drivingID;
        bulkSize = static_cast<std::size_t>(std::max<std::int64_t>(host.bulkMotionDataSize, 1));
    }
    std::vector<platform::OutboxEntry> entries;
    const auto appVersion = appVersionOf(env_);
    for (std::size_t at = 0; at < records.size(); at += bulkSize) {
        MotionData bulk;
        const std::size_t n = std::min(bulkSize, records.size() - at);
        bulk.motionDataArray.assign(records.begin() + static_cast<std::ptrdiff_t>(at),
                                    records.begin() + static_cast<std::ptrdiff_t>(at + n));
        auto body = detail::writeMotionDataBody(
            user, driving, bulk.bulkMotionDataToString(static_cast<std::int64_t>(n)), appVersion);
        if (!body) continue;  // a record that is no JSON text cannot be sent at all
        platform::OutboxEntry entry;
        entry.kind = platform::OutboxKind::motion;
        entry.records = static_cast<std::int64_t>(n);
        entry.url = urls.addMotionDataURL;
        entry.body = std::move(*body);
        entries.push_back(std::move(entry));
    }
    if (!entries.empty()) net.outbox->submit(std::move(entries));
    completeStoppedTrip();
}

detail::UploadPhase DrivingInsight::Impl::uploadPhaseLocked() const {
    return {net.outbox != nullptr, isDriving, !trip.endLocationStr.empty()};
}

void DrivingInsight::Impl::MotionDataSynced(const Notification&) {
    using Next = detail::MotionUploader::AfterSuccess;
    Next next = Next::nothing;
    {
        std::lock_guard lock(mutex_);
        next = uploader.confirmed(uploadPhaseLocked());
    }
    if (next == Next::sendNextBulk) sendMotionDataToServer();
    if (next == Next::completeTrip) completeStoppedTrip();
}

void DrivingInsight::Impl::MotionDataSyncFailed(const Notification& notification) {
    // A notification without an "error" text is a failure with an empty text.
    std::string error;
    if (notification.userInfo) {
        auto it = notification.userInfo->find("error");
        if (it != notification.userInfo->end()) {
            if (const std::string* text = it->second.asString()) error = *text;
        }
    }

    using Next = detail::MotionUploader::AfterFailure;
    Next next = Next::nothing;
    std::shared_ptr<DrivingInsightDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        next = uploader.failed(uploadPhaseLocked());
        if (next == Next::report || next == Next::giveUp) delegate = host.drivingInsightDelegate;
    }
    if (next == Next::retry) sendMotionDataToServer();
    if (!delegate) return;
    const std::string report = next == Next::report
                                   ? std::string(kNotSentPrefix) + "Error Code:1008 - " + error
                                   : kNotSentPrefix + error;
    delegate->tripDidFail(1000, kConnectionTitle, report, nullptr);
}

}  // namespace kestrelvue

// ---- Request body
// -------------------------------------------------------------------------------- The motion
// upload body, written straight into one buffer.

namespace kestrelvue {
namespace detail {

std::optional<std::string> writeMotionDataBody(std::int64_t userID, std::string_view drivingGuid,
                                               std::string_view motionStr,
                                               const std::optional<std::string>& appVersion) {
    if (!json::isValidUtf8(drivingGuid) || !json::isValidUtf8(motionStr) ||
        (appVersion && !json::isValidUtf8(*appVersion)))
        return std::nullopt;
    std::string out;
    out.reserve(motionStr.size() + drivingGuid.size() + (appVersion ? appVersion->size() : 0) + 96);
    out += "{\"UserID\":";
    out += std::to_string(userID);
    out += ",\"DrivingGuid\":";
    json::escapeTo(out, drivingGuid);
    out += ",\"MotionStr\":";
    json::escapeTo(out, motionStr);
    out += ",\"AppVersion\":";
    if (appVersion)
        json::escapeTo(out, *appVersion);
    else
        out += "null";
    out.push_back('}');
    return out;
}

std::string describeOptionalError(const std::optional<TransportError>& error) {
    if (!error) return "nil";
    return "Optional(Error Domain=" + error->domain + " Code=" + std::to_string(error->code) +
           " \"" + error->description + "\")";
}

}  // namespace detail

}  // namespace kestrelvue
