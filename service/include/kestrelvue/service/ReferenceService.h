#pragma once
// The reference HTTP/JSON service the library talks to: thresholds, motion and trip uploads,
// history, routes, summaries, weather, accounts, friends and the leaderboard, stored in SQLite.
// It exists so that the library can be exercised end to end on one machine; it is not hardened
// for the open internet (no TLS, tokens stored as given).

#include <memory>
#include <string>

namespace kestrelvue::service {

struct ServiceOptions {
    /// SQLite database file; ":memory:" keeps everything in memory.
    std::string databasePath = ":memory:";
    std::string host = "127.0.0.1";
    /// 0 lets the system pick a free port.
    int port = 0;
    /// Largest request body accepted, in bytes.
    std::size_t maxBodyBytes = 16u << 20;
};

class ReferenceService {
public:
    explicit ReferenceService(ServiceOptions options);
    ~ReferenceService();
    ReferenceService(const ReferenceService&) = delete;
    ReferenceService& operator=(const ReferenceService&) = delete;

    /// Opens the database and starts serving on a background thread. False (with error()) when
    /// the database cannot be opened or the address cannot be bound.
    bool start();
    /// Serves on the calling thread until stop() is called from elsewhere.
    bool run();
    void stop();

    int port() const;
    /// "http://host:port", for the library's base URL.
    std::string baseURL() const;
    const std::string& error() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue::service
