#pragma once
// Host-facing protocols. Every operation has an empty default unless noted.

#include <kestrelvue/SummaryData.h>
#include <kestrelvue/Trip.h>
#include <kestrelvue/platform/Alert.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kestrelvue {

class DrivingInsightDelegate {
public:
    virtual ~DrivingInsightDelegate() = default;
    virtual void summaryDataDidReceive(const SummaryData& summaryData) { (void)summaryData; }
    virtual void summaryDataReceiveDidFail(std::int64_t errorCode, const std::string& errorTitle,
                                           const std::string& errorMessage) {
        (void)errorCode, (void)errorTitle, (void)errorMessage;
    }
    virtual void tripDidFinish(std::shared_ptr<Trip> trip) { (void)trip; }
    virtual void tripDidFail(std::int64_t errorCode, const std::string& errorTitle,
                             const std::string& errorMessage,
                             std::shared_ptr<platform::Alert> alertController) {
        (void)errorCode, (void)errorTitle, (void)errorMessage, (void)alertController;
    }
};

/// Marker for host types that present alerts; the engine neither requires nor calls it.
class AlertProtocol {
public:
    virtual ~AlertProtocol() = default;
};

}  // namespace kestrelvue
