#pragma once
// The tool's use of the durable outbox: turning it on for a replay, and delivering what a
// directory still holds (a drive recorded offline, sent later).

#include <kestrelvue/Environment.h>

#include <chrono>
#include <ostream>
#include <string>

namespace kestrelvue::tools {

/// Turns the outbox on for `env`: its store in `directory`, on SQLite.
void useOutbox(Environment& env, const std::string& directory);

/// What the outbox store in `directory` holds, counted in the store itself.
struct KeptInOutbox {
    std::int64_t records = 0, trips = 0;  // in entries written after `after`
    std::int64_t lastId = 0;              // of every entry
};
/// Reads the store; all zero when the directory holds none.
KeptInOutbox keptInOutbox(const std::string& directory, std::int64_t after = 0);

/// `kestrelvue outbox DIR [--server URL]`: sends what DIR holds to the service (its base URL
/// `server`, or the default) for at most `patience`, then prints what is left. 0 when nothing
/// is left, 1 otherwise.
int deliverOutbox(const std::string& directory, const std::string& server,
                  std::chrono::seconds patience, std::ostream& out);

}  // namespace kestrelvue::tools
