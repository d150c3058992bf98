// A trip's route with its fault and fuel points, fetched from the service.

#include <kestrelvue/Environment.h>
#include <kestrelvue/Reachability.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Trip.h>

#include <utility>

#include "records/ServiceReplies.h"

namespace kestrelvue {
namespace {

constexpr const char* kRouteReplyName = "passedCoordinatesReturnedFromServer";

}  // namespace

void Trip::getPassedCoordinatesFromServer() {
    const std::shared_ptr<NotificationCenter> center = env_.notifications;
    // The registration holds the record weakly: a record its holders release before the reply
    // comes misses the reply (its tokens end the registration as it dies). A record that no
    // shared_ptr owns is reached directly; its own destruction ends the registration.
    std::weak_ptr<Trip> weak = weak_from_this();
    const bool shared = !weak.expired();
    ObserverToken token =
        center->addObserver(kRouteReplyName, [this, weak, shared](const Notification& n) {
            if (!shared) return passedCoordinatesReturnedFromServer(n);
            if (auto self = weak.lock()) self->passedCoordinatesReturnedFromServer(n);
        });
    {
        std::lock_guard lock(routeMutex_);
        routeObservers_.push_back(std::move(token));
    }
    // Get keeps no state of its own (its completion holds the centre, not the gateway), so a
    // gateway over this record's environment answers exactly as the shared one would, also for
    // records made over another environment than the process's.
    RestfulCall gateway(env_.http, center, std::make_shared<Reachability>(env_.reachability));
    gateway.Get(getPassedCoordinatesURL + "/" + DrivingID, kRouteReplyName);
}

void Trip::passedCoordinatesReturnedFromServer(const Notification& notification) {
    // An "error" text, or a reply of the wrong shape, leaves the lists as they were; the host is
    // told either way by the post below and tells the outcomes apart by the lists.
    std::optional<detail::RouteLists> lists = detail::readRouteReply(notification.userInfo);
    std::vector<ObserverToken> ending;
    {
        std::lock_guard lock(routeMutex_);
        if (lists) {
            PassedCoordinates = std::move(lists->passedCoordinates);
            Faults = std::move(lists->faults);
            FuelDefficiencies = std::move(lists->fuelDefficiencies);
        }
        ending.swap(routeObservers_);
    }
    ending.clear();  // ends every registration of this record for the name, outside the lock
    env_.notifications->post("drawPassedCoordinates");
}

Trip::Route Trip::route() const {
    std::lock_guard lock(routeMutex_);
    return Route{PassedCoordinates, Faults, FuelDefficiencies};
}

}  // namespace kestrelvue
