#pragma once
// The durable outbox: motion bulks and trip records written to a store before they count as
// sent, removed once the service answered 200, and tried again with capped, jittered back-off
// until then: after a failure, when reachability returns, and when a new outbox opens the same
// store (an application killed mid-upload sends the rest on its next start).
//
// One worker thread writes submissions in batches and sends one entry at a time, oldest first.
// An entry's first try reports its outcome to the submitter (so the host hears what it always
// heard); later tries report only through "uploadsPending", posted with the counts of records
// and trips still waiting whenever they change. With compressed uploads on, motion bulks are
// deflated as they are written and kept so; bodies written plain (by an earlier version too) send
// as they are.

#include <kestrelvue/Environment.h>
#include <kestrelvue/platform/OutboxStore.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace kestrelvue::detail {

inline constexpr const char* kUploadsPending = "uploadsPending";

class Outbox {
public:
    struct Options {
        std::chrono::milliseconds firstDelay{2000};   // back-off after the first failed try
        std::chrono::milliseconds maxDelay{600'000};  // the cap
        std::chrono::milliseconds poll{1000};         // how often the worker looks at the clock
    };

    /// The outbox over `environment`'s directory, shared by every engine made over it; nullptr
    /// when the host set no directory or no store factory.
    static std::shared_ptr<Outbox> forEnvironment(const Environment& environment);
    /// The one an engine over `environment` holds open, if any.
    static std::shared_ptr<Outbox> existing(const Environment& environment);

    Outbox(const Environment& environment, std::unique_ptr<platform::OutboxStore> store,
           Options options);
    Outbox(const Environment& environment, std::unique_ptr<platform::OutboxStore> store)
        : Outbox(environment, std::move(store), Options{}) {}
    /// Stops the worker. What is not confirmed stays in the store for the next outbox.
    ~Outbox();
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /// Writes `entries` (in one transaction) and sends them in order. `firstOutcome`, when set,
    /// receives the first try of the last entry.
    void submit(std::vector<platform::OutboxEntry> entries,
                platform::HttpCompletion firstOutcome = nullptr);
    /// Looks at the clock and reachability now instead of at the next poll.
    void wake();
    /// Waits until every submission is written and nothing is due to be tried now.
    void waitUntilIdle();

    struct Counts {
        std::int64_t records = 0;
        std::int64_t trips = 0;
    };
    Counts pending() const;

private:
    struct Pending {
        platform::OutboxEntry entry;
        int tries = 0;
        platform::TimePoint due{};
        platform::HttpCompletion waiter;
    };
    struct Submission {
        std::vector<platform::OutboxEntry> entries;
        platform::HttpCompletion firstOutcome;
    };

    void run();
    void write(std::vector<Submission> batch);
    void attempt(Pending& pending);
    bool reachable() const;
    std::chrono::milliseconds delayAfter(int tries);
    void announce();

    const Environment& env_;
    std::unique_ptr<platform::OutboxStore> store_;
    const Options options_;
    std::minstd_rand jitter_{std::random_device{}()};

    // Worker-only state.
    std::deque<Pending> entries_;
    std::string problem_;  // a store problem the next announcement carries
    bool wasReachable_ = true;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::condition_variable idleCv_;
    std::vector<Submission> incoming_;
    bool stop_ = false;
    bool wake_ = false;
    bool idle_ = false;
    std::atomic<std::int64_t> records_{0}, trips_{0};

    std::thread worker_;  // last: starts once everything above exists
};

}  // namespace kestrelvue::detail
