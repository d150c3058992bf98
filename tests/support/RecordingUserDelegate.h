#pragma once
// A UserDelegate that records every report, for the account's tests.

#include <kestrelvue/User.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kestrelvue::test {

class RecordingUserDelegate : public UserDelegate {
public:
    struct Event {
        std::string operation;  // the delegate operation's name
        const User* user = nullptr;
        std::int64_t errorCode = 0;
        // Initialised here so that each report names only what it carries.
        std::string errorTitle{}, errorMessage{};
        std::string friendReferenceId{};
        std::vector<LeaderboardItem> leaderboard{};
    };

    void userDidLogin(User& user) override { record({"userDidLogin", &user}); }
    void userLoginDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        record({"userLoginDidFail", nullptr, code, title, message});
    }
    void userDidAdd(User& user) override { record({"userDidAdd", &user}); }
    void userAddDidFail(std::int64_t code, const std::string& title,
                        const std::string& message) override {
        record({"userAddDidFail", nullptr, code, title, message});
    }
    void friendDidAdd(const std::string& friendReferenceId) override {
        record({"friendDidAdd", nullptr, 0, {}, {}, friendReferenceId});
    }
    void friendAddDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        record({"friendAddDidFail", nullptr, code, title, message});
    }
    void leadershipDidGet(const std::vector<LeaderboardItem>& leaderboard) override {
        record({"leadershipDidGet", nullptr, 0, {}, {}, {}, leaderboard});
    }
    void leadershipGetDidFail(std::int64_t code, const std::string& title,
                              const std::string& message) override {
        record({"leadershipGetDidFail", nullptr, code, title, message});
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

    /// Waits (bounded) until at least `count` reports have arrived; returns them.
    std::vector<Event> waitFor(std::size_t count,
                               std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
        return events_;
    }

private:
    void record(Event e) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(e));
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

}  // namespace kestrelvue::test
