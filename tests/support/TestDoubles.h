#pragma once
// Small test doubles shared by the suites.
//
// ManualExecutor: a main queue the test drains by hand.
//   auto queue = std::make_shared<ManualExecutor>();
//   env.mainQueue = queue;               // the library posts to it
//   queue->runUntilIdle();               // runs everything posted, including tasks posted
//   meanwhile
//
// NotificationRecorder: records the posts of the given names on one notification centre.
//   NotificationRecorder rec(env.notifications, {"loginDone"});
//   ... call the library ...
//   ASSERT_TRUE(rec.waitFor(1));         // bounded wait (default 5 s) for one post, any thread
//   const RecordedNotification n = rec.at(0);
//   EXPECT_EQ(*n.userInfo->at("error").asString(), "expired");
//   EXPECT_TRUE(rec.settled(1));         // still exactly one after a short grace period
// Observers are removed when the recorder is destroyed; a post already running on another thread
// may still finish safely afterwards.

#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/platform/Executor.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrelvue::test {

class ManualExecutor final : public platform::Executor {
public:
    void post(std::function<void()> task) override;
    /// Runs queued tasks, and those they post, until none is left. Returns how many ran.
    std::size_t runUntilIdle();
    /// Runs at most one task; false when none was queued.
    bool runOne();
    std::size_t pending() const;

private:
    mutable std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};

struct RecordedNotification {
    std::string name;
    const void* object = nullptr;
    UserInfo userInfo;
    std::thread::id thread;

    /// userInfo's entry for `key`, or nullptr when either is absent.
    const Value* find(const std::string& key) const;
    /// The "error" entry when it is a text, else nullptr.
    const std::string* errorText() const;
};

class NotificationRecorder {
public:
    NotificationRecorder(std::shared_ptr<NotificationCenter> center,
                         std::vector<std::string> names);
    ~NotificationRecorder();
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    std::vector<RecordedNotification> all() const;
    std::vector<RecordedNotification> named(const std::string& name) const;
    RecordedNotification at(std::size_t index) const;  // throws std::out_of_range
    std::size_t count() const;
    std::size_t count(const std::string& name) const;

    /// Waits until at least `n` posts were recorded; false on time-out.
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    bool waitFor(const std::string& name, std::size_t n,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    /// Waits `grace`, then answers whether exactly `n` posts were recorded (to catch extras).
    bool settled(std::size_t n,
                 std::chrono::milliseconds grace = std::chrono::milliseconds(100)) const;
    void clear();

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

}  // namespace kestrelvue::test
