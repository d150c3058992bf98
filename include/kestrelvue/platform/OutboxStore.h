#pragma once
// The durable outbox's storage seam: requests written before they count as sent, removed once the
// service confirmed them. Linux uses SQLite (posix::SqliteOutboxStore); a host on another
// platform may hand in its own through Environment::makeOutboxStore.
//
// Threading: one store is used by one outbox, from one thread at a time.

#include <kestrelvue/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrelvue::platform {

enum class OutboxKind : int { motion = 0, trip = 1 };

struct KESTRELVUE_EXPORT OutboxEntry {
    std::int64_t id = 0;  // given by the store, increasing in the order of writing
    OutboxKind kind = OutboxKind::motion;
    std::int64_t records = 0;  // motion records the body carries
    std::string url;
    std::string body;
};

class KESTRELVUE_EXPORT OutboxStore {
public:
    virtual ~OutboxStore() = default;
    /// Writes the entries in one transaction and gives each its id. False when it could not (a
    /// full disk, an I/O error): then none of them was written.
    virtual bool add(std::vector<OutboxEntry>& entries) = 0;
    /// Removes a confirmed entry; false on an I/O error (the entry may then be sent again).
    virtual bool remove(std::int64_t id) = 0;
    /// Every entry, oldest first.
    virtual std::vector<OutboxEntry> load() = 0;
    /// What happened on opening when it was not a plain open (a damaged or foreign file set
    /// aside, a directory that cannot be used); empty otherwise.
    virtual std::string openingReport() const { return {}; }
};

}  // namespace kestrelvue::platform
