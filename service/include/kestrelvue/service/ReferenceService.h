#pragma once
// The reference HTTP/JSON service the library talks to: thresholds, motion and trip uploads,
// history, routes, summaries, weather, accounts, friends and the leaderboard, stored in SQLite.
// It exists so that the library can be exercised end to end on one machine; it is not hardened
// for the open internet (no TLS).
//
// Units and keys of what it sends: distances in metres (history and summary alike), scores and
// penalties as uploaded, dates of the history in this machine's local time. The integer at the
// end of the history, summary, weather and leaderboard paths is the user's identifier.

#include <kestrelvue/Limits.h>
#include <kestrelvue/platform/Clock.h>

#include <cstddef>
#include <memory>
#include <string>

namespace kestrelvue::service {

struct ServiceOptions {
    /// SQLite database file; ":memory:" keeps everything in memory.
    std::string databasePath = ":memory:";
    std::string host = "127.0.0.1";
    /// 0 lets the system pick a free port.
    int port = 0;
    /// Largest request body accepted, in bytes (413 beyond).
    std::size_t maxBodyBytes = 16u << 20;
    /// A JSON file with the threshold reply to serve; empty serves the shipped, calibrated one.
    std::string bandsFile;
    /// One line per request on standard error: time stamp (UTC), client address, method, path
    /// and query, status, reply bytes, milliseconds (and for a compressed body the bytes
    /// received and inflated).
    bool accessLog = false;
    /// Not used any more: each connection is served on a thread of its own. Kept so that code
    /// which sets it still builds.
    std::size_t workerThreads = 4;
    /// Seconds a connection may stay silent, and seconds a request may take to arrive whole.
    unsigned idleTimeoutSeconds = 10;
    unsigned requestTimeoutSeconds = 60;
    /// Connections one client address may hold open at once.
    unsigned connectionsPerAddress = 128;
    /// A trip's route is thinned evenly (fault points are all kept) to at most this many points
    /// and this many bytes, the library's bounds for a reply.
    std::size_t maxRoutePoints = kMaxCallReplyElements;
    std::size_t maxRouteBytes = kMaxCallReplyBytes;
    /// The clock of the access log and of the login limits; null is the system clock.
    std::shared_ptr<const platform::Clock> clock;
};

class ReferenceService {
public:
    explicit ReferenceService(ServiceOptions options);
    ~ReferenceService();
    ReferenceService(const ReferenceService&) = delete;
    ReferenceService& operator=(const ReferenceService&) = delete;

    /// Opens the database, reads the bands and starts serving on a background thread. False
    /// (with error()) when the database or the bands file cannot be read or the address cannot
    /// be bound (also when another process listens on it).
    bool start();
    void stop();

    /// Reads the bands file again; on any problem keeps the reply it had and returns false with
    /// error() saying why.
    bool reloadBands();
    /// Issues a login token for a mobile number (see Storage); empty on failure. Only its salted
    /// hash is stored: print it once.
    std::string issueToken(const std::string& mobile);

    int port() const;
    /// "http://host:port", for the library's base URL.
    std::string baseURL() const;
    const std::string& error() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue::service
