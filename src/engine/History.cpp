// The trip history: the engine's own GET, its completion, and the reports to the host.

#include <kestrelvue/Limits.h>

#include <string>
#include <utility>

#include "engine/EngineImpl.h"
#include "net/HttpReply.h"
#include "net/Url.h"
#include "records/HistoryReply.h"

namespace kestrelvue {

void DrivingInsight::Impl::getTripHistory() {
    std::string address;
    {
        std::lock_guard lock(mutex_);
        address = urls.getDrivingDataURL + "/" + std::to_string(host.userID);
    }
    if (!parseUrl(address)) {
        // The history is left as it was: nothing was asked.
        reportHistoryFailure(1009, "URL Hatası", "Tarihçe Servis URLi Hatalı");
        return;
    }
    platform::HttpRequest request;  // GET, no headers, no body, the default time-out
    request.url = std::move(address);
    request.maxBodyBytes = kMaxHistoryReplyBytes;
    {
        // Emptied now, before anything is sent; lastTrip stays.
        std::lock_guard lock(mutex_);
        host.tripHistory.clear();
    }
    platform::AsyncRequest pending = env_.http->send(
        std::move(request), [this](const platform::HttpResult& r) { historyReplyArrived(r); });
    // Overlapping requests each deliver their reply.
    keep(std::move(pending));
}

void DrivingInsight::Impl::historyReplyArrived(const platform::HttpResult& result) {
    static constexpr const char* kConnectionTitle = "Sistem Bağlantı Hatası";
    const detail::HttpReply http = detail::classify(result);
    if (http.error && http.error->code == platform::kTransportBodyTooLarge) {
        // Refused for its size like a body the reader refuses: the same report.
        reportHistoryFailure(1012, kConnectionTitle,
                             "Sürüş Tarihçesi Alınamıyor. " + http.error->description);
        return;
    }
    if (http.transportFailed()) {
        reportHistoryFailure(1011, kConnectionTitle, "Sürüş Tarihçesi Alınamıyor");
        return;
    }
    if (http.kind == detail::HttpReply::Kind::status) {
        reportHistoryFailure(
            1010, kConnectionTitle,
            "Sürüş Geçmişi Alınamıyor. Response Code:" + std::to_string(http.status));
        return;
    }
    if (!http.body) return;  // status 200 without a body: nothing to report

    // Read outside the lock: a large reply takes milliseconds, and the records are nobody
    // else's until they are appended below.
    detail::HistoryReply reply = detail::readHistoryReply(*http.body, env_);
    if (!reply.ok) {
        // Valid JSON of the wrong shape is rejected whole like text that is not JSON, so the
        // history never holds part of a reply.
        reportHistoryFailure(1012, kConnectionTitle, "Sürüş Tarihçesi Alınamıyor. " + reply.error);
        return;
    }
    std::vector<std::shared_ptr<Trip>> history;
    std::shared_ptr<HistoryDataDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        host.tripHistory.reserve(host.tripHistory.size() + reply.trips.size());
        for (auto& record : reply.trips) {
            host.lastTrip = record;
            host.tripHistory.push_back(std::move(record));
        }
        history = host.tripHistory;
        delegate = host.historyDataDelegate;
    }
    if (delegate) delegate->historyDataDidReceive(history);
}

void DrivingInsight::Impl::reportHistoryFailure(std::int64_t code, const std::string& title,
                                                const std::string& message) {
    std::shared_ptr<HistoryDataDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = host.historyDataDelegate;
    }
    if (delegate) delegate->historyDataReceiveDidFail(code, title, message);
}

}  // namespace kestrelvue
