#pragma once
// The reference HTTP/JSON service the library talks to: thresholds, motion and trip uploads,
// history, routes, summaries, weather, accounts, friends and the leaderboard, stored in SQLite.
// It exists so that the library can be exercised end to end on one machine; it is not hardened
// for the open internet (no TLS).
//
// Units and keys of what it sends: distances in metres (history and summary alike), scores and
// penalties as uploaded, dates of the history in this machine's local time. The integer at the
// end of the history, summary, weather and leaderboard paths is the user's identifier.

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
    /// One line per request on standard error: method, path, status, bytes, milliseconds.
    bool accessLog = false;
    /// Requests served at once. Each open connection holds a worker while it is read, so the pool
    /// is sized for many idle clients, not for the number of cores.
    std::size_t workerThreads = 128;
    /// Seconds a connection may take to send a request, or stay idle between requests.
    int readTimeoutSeconds = 3;
    /// Points of one trip's route beyond which the reply is thinned evenly (fault points are all
    /// kept), so that a long drive's route stays well under a client's reply limit.
    std::size_t maxRoutePoints = 100000;
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
    /// Serves on the calling thread until stop() is called from elsewhere.
    bool run();
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

/// Sets glibc's allocator for a process whose work is this service: two arenas, blocks of 1 MiB
/// and more mapped apart so that large uploads go back to the system when freed, and up to 8 MiB
/// of freed memory kept for the next bulks. Process-wide, so it is the process's choice: the serve
/// command makes it; a host that embeds the service (the replay tool) keeps its own settings.
void tuneAllocatorForService();

/// The `serve` command line: `[--db FILE] [--host ADDRESS] [--port N] [--bands FILE] [--quiet]`
/// serves until SIGINT or SIGTERM (SIGHUP reloads the bands file), and `token MOBILE [--db FILE]`
/// issues a login token. argv[0] is the command's name. Returns the exit code: 0, 1 when the
/// service cannot start, 2 for a bad command line.
int runServeCommand(int argc, char** argv);

}  // namespace kestrelvue::service
