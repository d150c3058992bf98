#include "Outbox.h"

#include <kestrelvue/posix/SqliteOutboxStore.h>

#include <algorithm>
#include <thread>

#include "net/Outbox.h"
#include "records/EnvironmentServices.h"

namespace kestrelvue::tools {

void useOutbox(Environment& env, const std::string& directory) {
    env.outboxDirectory = directory;
    env.makeOutboxStore = [](const std::string& d) {
        return std::make_unique<posix::SqliteOutboxStore>(d);
    };
}

KeptInOutbox keptInOutbox(const std::string& directory, std::int64_t after) {
    KeptInOutbox kept;
    // Read-only: counting must not make a store, nor set one aside, where an outbox works.
    for (const platform::OutboxEntry& e : posix::SqliteOutboxStore::peek(directory)) {
        kept.lastId = std::max(kept.lastId, e.id);
        if (e.id <= after) continue;
        if (e.kind == platform::OutboxKind::trip)
            ++kept.trips;
        else
            kept.records += e.records;
    }
    return kept;
}

int deliverOutbox(const std::string& directory, const std::string& server,
                  std::chrono::seconds patience, std::ostream& out) {
    Environment env = Environment::makeDefault();
    env.notifications = NotificationCenter::make();
    // Sent to the server the user named: no default route is needed for that.
    env.reachability =
        std::make_shared<platform::FixedReachabilityProbe>(platform::kReachabilityFlagsReachable);
    if (!server.empty()) {
        env.applicationInfo = Object{{std::string(kBaseURLKey), Value(server)}};
    }
    useOutbox(env, directory);
    // The problem of a damaged store, if any, comes with the first count.
    auto token =
        env.notifications->addObserver(detail::kUploadsPending, [&](const Notification& n) {
            if (!n.userInfo) return;
            if (auto it = n.userInfo->find("problem"); it != n.userInfo->end()) {
                if (const std::string* text = it->second.asString())
                    out << "outbox: " << *text << "\n";
            }
        });
    auto outbox = env.services().outbox();
    const auto before = outbox->pending();
    out << "outbox " << directory << ": " << before.records << " records and " << before.trips
        << " trips waiting\n";
    const auto deadline = std::chrono::steady_clock::now() + patience;
    auto left = before;
    while (std::chrono::steady_clock::now() < deadline) {
        outbox->wake();
        outbox->waitUntilIdle();
        left = outbox->pending();
        if (left.records == 0 && left.trips == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    out << "sent " << before.records - left.records << " records and " << before.trips - left.trips
        << " trips; left " << left.records << " records and " << left.trips << " trips\n";
    outbox.reset();
    return left.records == 0 && left.trips == 0 ? 0 : 1;
}

}  // namespace kestrelvue::tools
