// A trip's route with its fault and fuel points, fetched from the service.

#include <kestrelvue/Environment.h>
#include <kestrelvue/Reachability.h>
#include <kestrelvue/RestfulCall.h>
#include <kestrelvue/Trip.h>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "records/ServiceReplies.h"

namespace kestrelvue {
namespace {

constexpr const char* kRouteReplyName = "passedCoordinatesReturnedFromServer";

}  // namespace

struct Trip::RouteState {
    std::mutex mutex;
    // Guarded by mutex.
    std::vector<ObserverToken> observers;
};

Trip::RouteState& Trip::routeState() const {
    RouteState* state = route_.load(std::memory_order_acquire);
    if (state != nullptr) return *state;
    auto made = std::make_unique<RouteState>();
    // Two threads may ask at once: the first one's state stays, the other's is dropped.
    if (route_.compare_exchange_strong(state, made.get(), std::memory_order_acq_rel,
                                       std::memory_order_acquire)) {
        return *made.release();
    }
    return *state;
}

Trip::~Trip() {
    delete route_.load(std::memory_order_acquire);
}

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
        RouteState& state = routeState();
        std::lock_guard lock(state.mutex);
        state.observers.push_back(std::move(token));
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
        RouteState& state = routeState();
        std::lock_guard lock(state.mutex);
        if (lists) {
            PassedCoordinates = std::move(lists->passedCoordinates);
            Faults = std::move(lists->faults);
            FuelDefficiencies = std::move(lists->fuelDefficiencies);
        }
        ending.swap(state.observers);
    }
    ending.clear();  // ends every registration of this record for the name, outside the lock
    env_.notifications->post("drawPassedCoordinates");
}

Trip::Route Trip::route() const {
    RouteState& state = routeState();
    std::lock_guard lock(state.mutex);
    return Route{PassedCoordinates, Faults, FuelDefficiencies};
}

}  // namespace kestrelvue
