#pragma once
// Host-facing protocols. Every operation has an empty default unless noted.

#include <kestrelvue/Export.h>
#include <kestrelvue/SummaryData.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/Alert.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvue {

class KESTRELVUE_EXPORT DrivingInsightDelegate {
public:
    virtual ~DrivingInsightDelegate() = default;
    virtual void summaryDataDidReceive(const SummaryData& summaryData) { (void)summaryData; }
    virtual void summaryDataReceiveDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                           const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
    // The host's overrides take these by value, so the defaults do too.
    // NOLINTBEGIN(performance-unnecessary-value-param)
    virtual void tripDidFinish(std::shared_ptr<Trip> /*trip*/) {}
    virtual void tripDidFail(std::int64_t /*errorCode*/, const std::string& /*errorTitle*/,
                             const std::string& /*errorMessage*/,
                             std::shared_ptr<platform::Alert> /*alertController*/) {}
    // NOLINTEND(performance-unnecessary-value-param)
};

/// Receives the trip history. Both operations must be implemented: a host that asks for the
/// history has to hear its failures too. Called on an HTTP worker thread (or, for a bad address,
/// on the thread that asked), never while the engine holds a lock.
class KESTRELVUE_EXPORT HistoryDataDelegate {
public:
    virtual ~HistoryDataDelegate() = default;
    virtual void historyDataDidReceive(const std::vector<std::shared_ptr<Trip>>& history) = 0;
    virtual void historyDataReceiveDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                           const std::string& errorMessage) = 0;
};

/// Marker for host types that present alerts; the engine neither requires nor calls it.
class KESTRELVUE_EXPORT AlertProtocol {
public:
    virtual ~AlertProtocol() = default;
};

}  // namespace kestrelvue
