// Summary figures: the request through the call layer and the handler of its reply.

#include <string>

#include "engine/EngineImpl.h"
#include "records/ServiceReplies.h"

namespace kestrelvue {
namespace {
constexpr const char* kSummaryReplyName = "summaryDataReady";
}

void DrivingInsight::Impl::getSummaryData(std::int64_t for_) {
    // One registration per request; the first reply handled ends them all, so overlapping
    // requests share one answer and later replies reach nobody.
    center_.addObserver(this, kSummaryReplyName,
                        [this](const Notification& n) { summaryDataReady(n); });
    net.call->Get(urls.getSummaryURL + "/" + std::to_string(for_), kSummaryReplyName);
}

void DrivingInsight::Impl::summaryDataReady(const Notification& notification) {
    center_.removeObserver(this, kSummaryReplyName);

    bool failed = false;
    std::string problem;
    std::vector<detail::SummaryUpdate> updates;
    const UserInfo& info = notification.userInfo;
    const auto errorEntry = info ? info->find("error") : Object::const_iterator{};
    if (info && errorEntry != info->end() && errorEntry->second.isString()) {
        failed = true;  // the call layer's own text is not passed on
    } else {
        auto read = detail::readSummaryReply(info);
        if (read) {
            updates = std::move(*read);
        } else {
            failed = true;
            problem = std::move(read.error);
        }
    }

    kestrelvue::SummaryData record;
    std::shared_ptr<DrivingInsightDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        detail::applySummaryUpdates(host.summaryData, updates);
        record = host.summaryData;
        delegate = host.drivingInsightDelegate;
    }
    if (!delegate) return;
    if (failed) {
        std::string message = "Özet Veri Servis URLi Hatalı";
        // A reply of the wrong shape says what was wrong; the call layer's failures do not.
        if (!problem.empty()) message += ". " + problem;
        delegate->summaryDataReceiveDidFail(1009, "URL Hatası", message);
    }
    delegate->summaryDataDidReceive(record);
}

}  // namespace kestrelvue
