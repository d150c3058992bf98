#include "records/TripReporter.h"

#include <map>
#include <mutex>
#include <utility>

namespace kestrelvue::detail {
namespace {

struct Entry {
    const void* owner;
    DelegateSource source;
};

// Looked up on HTTP worker threads while engines come and go on the host's.
std::mutex gMutex;
std::multimap<const Environment*, Entry>& reporters() {
    static auto* entries = new std::multimap<const Environment*, Entry>;
    return *entries;
}

}  // namespace

void registerTripReporter(const Environment& environment, const void* owner,
                          DelegateSource source) {
    std::lock_guard lock(gMutex);
    reporters().emplace(&environment, Entry{owner, std::move(source)});
}

void unregisterTripReporter(const Environment& environment, const void* owner) {
    std::lock_guard lock(gMutex);
    auto [first, last] = reporters().equal_range(&environment);
    for (auto it = first; it != last; ++it) {
        if (it->second.owner == owner) {
            reporters().erase(it);
            return;
        }
    }
}

std::shared_ptr<DrivingInsightDelegate> tripReporterFor(const Environment& environment) {
    // Called under the lock: the engine's unregistering waits for it, so it is still alive.
    std::lock_guard lock(gMutex);
    auto it = reporters().find(&environment);
    return it != reporters().end() ? it->second.source() : nullptr;
}

}  // namespace kestrelvue::detail
