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
        std::string errorTitle;
        std::string errorMessage;
        std::string friendReferenceId;
        std::vector<LeaderboardItem> leaderboard;
    };

    void userDidLogin(User& user) override { record(event("userDidLogin", &user)); }
    void userLoginDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        record(event("userLoginDidFail", nullptr, code, title, message));
    }
    void userDidAdd(User& user) override { record(event("userDidAdd", &user)); }
    void userAddDidFail(std::int64_t code, const std::string& title,
                        const std::string& message) override {
        record(event("userAddDidFail", nullptr, code, title, message));
    }
    void friendDidAdd(const std::string& friendReferenceId) override {
        Event e = event("friendDidAdd");
        e.friendReferenceId = friendReferenceId;
        record(std::move(e));
    }
    void friendAddDidFail(std::int64_t code, const std::string& title,
                          const std::string& message) override {
        record(event("friendAddDidFail", nullptr, code, title, message));
    }
    void leadershipDidGet(const std::vector<LeaderboardItem>& leaderboard) override {
        Event e = event("leadershipDidGet");
        e.leaderboard = leaderboard;
        record(std::move(e));
    }
    void leadershipGetDidFail(std::int64_t code, const std::string& title,
                              const std::string& message) override {
        record(event("leadershipGetDidFail", nullptr, code, title, message));
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
    static Event event(const char* operation, const User* user = nullptr, std::int64_t code = 0,
                       const std::string& title = {}, const std::string& message = {}) {
        Event e;
        e.operation = operation;
        e.user = user;
        e.errorCode = code;
        e.errorTitle = title;
        e.errorMessage = message;
        return e;
    }
    void record(Event e) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back(std::move(e));
        }
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

}  // namespace kestrelvue::test
