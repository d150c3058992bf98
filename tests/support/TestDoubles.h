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
};

/// Runs `call` on another thread until it is inside; then `end` (on a third thread) must not
/// return before `call` has: returns whether it waited.
bool endWaitsForARunningCall(const std::function<void(const std::function<void()>&)>& call,
                             const std::function<void()>& end);

/// Entries added from any thread, and bounded waits for their count: waitFor() is false on
/// time-out; settled() waits out the grace and answers whether exactly `n` came (to catch extras).
template <class T, int kTimeoutMs, int kGraceMs>
class WaitableLog {
public:
    void add(T entry) {
        std::lock_guard lock(mutex_);
        entries_.push_back(std::move(entry));
        cv_.notify_all();
    }
    std::vector<T> entries() const {
        std::lock_guard lock(mutex_);
        return entries_;
    }
    bool waitFor(std::size_t n,
                 std::chrono::milliseconds timeout = std::chrono::milliseconds(kTimeoutMs)) const {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return entries_.size() >= n; });
    }
    bool settled(std::size_t n,
                 std::chrono::milliseconds grace = std::chrono::milliseconds(kGraceMs)) const {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, grace, [&] { return entries_.size() > n; });
        return entries_.size() == n;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<T> entries_;
};

class NotificationRecorder {
public:
    NotificationRecorder(std::shared_ptr<NotificationCenter> center,
                         std::vector<std::string> names);
    ~NotificationRecorder();
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    using Log = WaitableLog<RecordedNotification, 5000, 100>;
    RecordedNotification at(std::size_t i) const { return log_->entries().at(i); }  // may throw
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
        return log_->waitFor(n, timeout);
    }
    bool settled(std::size_t n,
                 std::chrono::milliseconds grace = std::chrono::milliseconds(100)) const {
        return log_->settled(n, grace);
    }

private:
    std::shared_ptr<NotificationCenter> center_;
    std::shared_ptr<Log> log_ = std::make_shared<Log>();
    std::vector<std::string> names_;
};

/// One report a RecordingDelegate heard.
struct RecordingDelegateReport {
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

/// Records every report of the engine's two delegates and the account's, in order, from any
/// thread.
class RecordingDelegate final : public DrivingInsightDelegate,
                                public HistoryDataDelegate,
                                public UserDelegate,
                                public WaitableLog<RecordingDelegateReport, 10000, 200> {
public:
    using Report = RecordingDelegateReport;
    void tripDidFinish(std::shared_ptr<Trip> trip) override {
        add({.kind = "tripDidFinish", .trip = std::move(trip)});
    }
    void tripDidFail(std::int64_t c, const std::string& t, const std::string& m,
                     std::shared_ptr<platform::Alert> alert) override {
        add({.kind = "tripDidFail", .code = c, .title = t, .message = m, .alert = alert});
    }
    void historyDataDidReceive(const std::vector<std::shared_ptr<Trip>>& history) override {
        add({.kind = "history", .history = history});
    }
    void historyDataReceiveDidFail(std::int64_t c, const std::string& t,
                                   const std::string& m) override {
        failed("historyFail", c, t, m);
    }
    void summaryDataDidReceive(const SummaryData& summary) override {
        add({.kind = "summary", .summary = summary});
    }
    void summaryDataReceiveDidFail(std::int64_t c, const std::string& t,
                                   const std::string& m) override {
        failed("summaryFail", c, t, m);
    }
    void userDidLogin(User& user) override { add({.kind = "userDidLogin", .user = &user}); }
    void userDidAdd(User& user) override { add({.kind = "userDidAdd", .user = &user}); }
    void friendDidAdd(const std::string& reference) override {
        add({.kind = "friendDidAdd", .friendReferenceId = reference});
    }
    void leadershipDidGet(const std::vector<LeaderboardItem>& leaderboard) override {
        add({.kind = "leadershipDidGet", .leaderboard = leaderboard});
    }
    void userLoginDidFail(std::int64_t c, const std::string& t, const std::string& m) override {
        failed("userLoginDidFail", c, t, m);
    }
    void userAddDidFail(std::int64_t c, const std::string& t, const std::string& m) override {
        failed("userAddDidFail", c, t, m);
    }
    void friendAddDidFail(std::int64_t c, const std::string& t, const std::string& m) override {
        failed("friendAddDidFail", c, t, m);
    }
    void leadershipGetDidFail(std::int64_t c, const std::string& t, const std::string& m) override {
        failed("leadershipGetDidFail", c, t, m);
    }

    std::vector<Report> reports() const { return entries(); }
    std::vector<Report> reports(const std::string& kind) const {
        auto all = entries();
        std::erase_if(all, [&](const Report& r) { return r.kind != kind; });
        return all;
    }

private:
    void failed(const char* kind, std::int64_t code, const std::string& title,
                const std::string& message) {
        add({.kind = kind, .code = code, .title = title, .message = message});
    }
};

}  // namespace kestrelvue::test
