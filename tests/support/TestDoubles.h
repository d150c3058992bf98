#pragma once
// Recorders shared by the suites. NotificationRecorder records the posts of the given names on
// one centre; its observers go with it, though a post already running elsewhere may still finish.

#include <kestrelvue/DrivingInsight.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/User.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/sim/Sim.h"

namespace kestrelvue::test {

struct RecordedNotification {
    std::string name;
    const void* object = nullptr;
    UserInfo userInfo;
    std::thread::id thread;

    /// userInfo's entry for `key`, or nullptr when either is absent.
    const Value* find(const std::string& key) const;
};

/// Runs `call` on another thread until it is inside; then `end` (on a third thread) must not
/// return before `call` has: returns whether it waited.
bool endWaitsForARunningCall(const std::function<void(const std::function<void()>&)>& call,
                             const std::function<void()>& end);

class NotificationRecorder {
public:
    NotificationRecorder(std::shared_ptr<NotificationCenter> center,
                         std::vector<std::string> names);
    ~NotificationRecorder();
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    RecordedNotification at(std::size_t index) const;  // throws std::out_of_range
    std::size_t count() const;

    /// Waits until at least `n` posts were recorded; false on time-out.
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    /// Waits `grace`, then answers whether exactly `n` posts were recorded (to catch extras).
    bool settled(std::size_t n,
                 std::chrono::milliseconds grace = std::chrono::milliseconds(100)) const;

private:
    struct State {
        mutable std::mutex mutex;
        mutable std::condition_variable cv;
        std::vector<RecordedNotification> records;
    };
    std::shared_ptr<NotificationCenter> center_;
    std::shared_ptr<State> state_;
    std::vector<std::string> names_;
};

/// Records every report of the engine's two delegates and the account's, in order, from any
/// thread.
class RecordingDelegate final : public DrivingInsightDelegate,
                                public HistoryDataDelegate,
                                public UserDelegate {
public:
    struct Report {
        /// "tripDidFinish", "tripDidFail", "history", "historyFail", "summary", "summaryFail", or
        /// the account delegate's operation name ("userDidLogin", "friendAddDidFail", ...)
        std::string kind;
        std::int64_t code = 0;
        // Initialised members, so that each report names only what it carries.
        std::string title = {}, message = {};
        std::shared_ptr<Trip> trip = {};
        std::shared_ptr<platform::Alert> alert = {};
        std::vector<std::shared_ptr<Trip>> history = {};
        SummaryData summary = {};
        const User* user = nullptr;
        std::string friendReferenceId = {};
        std::vector<LeaderboardItem> leaderboard = {};
        /// "kind", or "kind code title: message" for a failure: one comparable line.
        std::string said() const {
            return code ? kind + " " + std::to_string(code) + " " + title + ": " + message : kind;
        }
    };
    void tripDidFinish(std::shared_ptr<Trip> trip) override {
        add({.kind = "tripDidFinish", .trip = std::move(trip)});
    }
    void tripDidFail(std::int64_t code, const std::string& title, const std::string& message,
                     std::shared_ptr<platform::Alert> alert) override {
        add({.kind = "tripDidFail",
             .code = code,
             .title = title,
             .message = message,
             .alert = alert});
    }
    void historyDataDidReceive(const std::vector<std::shared_ptr<Trip>>& history) override {
        add({.kind = "history", .history = history});
    }
    void historyDataReceiveDidFail(std::int64_t code, const std::string& title,
                                   const std::string& message) override {
        failed("historyFail", code, title, message);
    }
    void summaryDataDidReceive(const SummaryData& summary) override {
        add({.kind = "summary", .summary = summary});
    }
    void summaryDataReceiveDidFail(std::int64_t code, const std::string& title,
                                   const std::string& message) override {
        failed("summaryFail", code, title, message);
    }
    void userDidLogin(User& user) override { add({.kind = "userDidLogin", .user = &user}); }
    void userDidAdd(User& user) override { add({.kind = "userDidAdd", .user = &user}); }
    void friendDidAdd(const std::string& reference) override {
        add({.kind = "friendDidAdd", .friendReferenceId = reference});
    }
    void leadershipDidGet(const std::vector<LeaderboardItem>& leaderboard) override {
        add({.kind = "leadershipDidGet", .leaderboard = leaderboard});
    }
    void userLoginDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        failed("userLoginDidFail", code, title, message);
    }
    void userAddDidFail(std::int64_t code, const std::string& title,
                        const std::string& message) override {
        failed("userAddDidFail", code, title, message);
    }
    void friendAddDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        failed("friendAddDidFail", code, title, message);
    }
    void leadershipGetDidFail(std::int64_t code, const std::string& title,
                              const std::string& message) override {
        failed("leadershipGetDidFail", code, title, message);
    }

    std::vector<Report> reports() const;
    std::vector<Report> reports(const std::string& kind) const;
    /// Waits (bounded) until at least `n` reports arrived; false on time-out.
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    /// Waits `grace`, then answers whether exactly `n` reports arrived (to catch extras).
    bool settled(std::size_t n,
                 std::chrono::milliseconds grace = std::chrono::milliseconds(200)) const;

private:
    void add(Report r);
    void failed(const char* kind, std::int64_t code, const std::string& title,
                const std::string& message) {
        add({.kind = kind, .code = code, .title = title, .message = message});
    }
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<Report> reports_;
};

}  // namespace kestrelvue::test
