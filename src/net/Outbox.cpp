#include "net/Outbox.h"

#include <kestrelvue/platform/ReachabilityProbe.h>

#include <algorithm>
#include <utility>

#include "net/EncodedUpload.h"
#include "net/Gzip.h"
#include "net/HttpReply.h"
#include "net/Url.h"

namespace kestrelvue::detail {
namespace {

// The one in-flight try, shared with the HTTP completion so that a stopping worker may leave it.
struct Try {
    std::mutex mutex;
    std::condition_variable cv;
    std::optional<platform::HttpResult> result;
};

}  // namespace

Outbox::Outbox(const Environment& environment, std::unique_ptr<platform::OutboxStore> store,
               Options options)
    : env_(environment), store_(std::move(store)), options_(options) {
    // What an earlier run left was tried already: it waits for reachability like any retry.
    const auto now = env_.clock->now();
    for (auto& entry : store_->load()) {
        (entry.kind == platform::OutboxKind::trip ? trips_ : records_) +=
            entry.kind == platform::OutboxKind::trip ? 1 : entry.records;
        entries_.push_back(Pending{std::move(entry), 1, now, nullptr});
    }
    problem_ = store_->openingReport();
    worker_ = std::thread([this] { run(); });
}

Outbox::~Outbox() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    cv_.notify_all();
    worker_.join();
}

void Outbox::submit(std::vector<platform::OutboxEntry> entries,
                    platform::HttpCompletion firstOutcome) {
    // Counted from now on, before the worker has written them: they left their engine.
    for (const auto& e : entries) {
        (e.kind == platform::OutboxKind::trip ? trips_ : records_) +=
            e.kind == platform::OutboxKind::trip ? 1 : e.records;
    }
    {
        std::lock_guard lock(mutex_);
        incoming_.push_back(Submission{std::move(entries), std::move(firstOutcome)});
        idle_ = false;
    }
    cv_.notify_all();
}

void Outbox::wake() {
    {
        std::lock_guard lock(mutex_);
        wake_ = true;
        idle_ = false;
    }
    cv_.notify_all();
}

void Outbox::waitUntilIdle() {
    std::unique_lock lock(mutex_);
    idleCv_.wait(lock, [&] { return (idle_ && incoming_.empty()) || stop_; });
}

Outbox::Counts Outbox::pending() const {
    return Counts{records_.load(), trips_.load()};
}

bool Outbox::reachable() const {
    auto flags = env_.reachability->defaultRouteFlags();
    return flags && (*flags & platform::kReachabilityFlagsReachable);
}

std::chrono::milliseconds Outbox::delayAfter(int tries) {
    // Doubling from the first delay, capped, then a random half to all of it, so that many
    // devices coming back together do not arrive together.
    auto delay = options_.firstDelay;
    for (int i = 1; i < tries && delay < options_.maxDelay; ++i) delay *= 2;
    delay = std::min(delay, options_.maxDelay);
    std::uniform_real_distribution<double> share(0.5, 1.0);
    return std::chrono::milliseconds(
        static_cast<std::int64_t>(static_cast<double>(delay.count()) * share(jitter_)));
}

void Outbox::announce() {
    Object info{{"records", Value(static_cast<long long>(records_.load()))},
                {"trips", Value(static_cast<long long>(trips_.load()))}};
    if (!problem_.empty()) info["problem"] = Value(std::exchange(problem_, {}));
    env_.notifications->post(kUploadsPending, nullptr, std::move(info));
}

void Outbox::write(std::vector<Submission> batch) {
    std::vector<platform::OutboxEntry> all;
    const bool compress = env_.uploadsCompressed();
    for (auto& submission : batch) {
        for (auto& e : submission.entries) {
            // Deflated here, on the outbox's thread, and kept so: less to write and to send. A
            // trip record is a few hundred bytes and gains little, so it stays plain.
            if (e.kind == platform::OutboxKind::motion && !isGzip(e.body) &&
                compressFor(compress, env_.baseURL())) {
                if (auto packed = gzip(e.body)) e.body = std::move(*packed);
            }
            all.push_back(std::move(e));
        }
    }
    // One transaction for the whole batch. When the store cannot take it (full disk, I/O
    // error) the entries are still sent from memory, and the host hears that they are not
    // durable: an application ended now would lose them.
    if (!store_->add(all)) {
        problem_ = "the outbox store cannot be written (full disk or I/O error): " +
                   std::to_string(all.size()) + " uploads are kept in memory only";
        for (auto& e : all) e.id = 0;
    }
    const auto now = env_.clock->now();
    std::size_t at = 0;
    for (auto& submission : batch) {
        const std::size_t n = submission.entries.size();
        for (std::size_t i = 0; i < n; ++i) {
            auto& e = all[at++];
            entries_.push_back(Pending{std::move(e), 0, now,
                                       i + 1 == n ? std::move(submission.firstOutcome) : nullptr});
        }
    }
    announce();
}

void Outbox::attempt(Pending& p) {
    platform::HttpRequest request;
    request.method = "POST";
    // To the service the environment names now: a drive recorded against one address (or
    // offline) is delivered to wherever the host points later.
    const auto url = parseUrl(p.entry.url);
    request.url = url ? env_.baseURL() + url->pathAndQuery : p.entry.url;
    request.setValue("application/json", "Content-Type");
    request.setValue("application/json", "Accept");
    request.body = p.entry.body;
    auto state = std::make_shared<Try>();
    // Ends with this try, however it ends.
    platform::AsyncRequest pending =
        sendUpload(env_.http, std::move(request), [state](platform::HttpResult r) {
            std::lock_guard lock(state->mutex);
            state->result = std::move(r);
            state->cv.notify_all();
        });
    platform::HttpResult result;
    {
        std::unique_lock lock(state->mutex);
        while (!state->result) {
            state->cv.wait_for(lock, std::chrono::milliseconds(50));
            std::lock_guard stopLock(mutex_);
            if (stop_) return;  // left to the next outbox; the reply may still come
        }
        result = std::move(*state->result);
    }
    // Only a clean 200 takes an entry off the store: a record is never dropped on a maybe.
    const bool confirmed = detail::classify(result).delivered();
    auto waiter = std::exchange(p.waiter, nullptr);
    if (confirmed) {
        if (p.entry.id != 0) store_->remove(p.entry.id);
        (p.entry.kind == platform::OutboxKind::trip ? trips_ : records_) -=
            p.entry.kind == platform::OutboxKind::trip ? 1 : p.entry.records;
        auto it = std::find_if(entries_.begin(), entries_.end(),
                               [&](const Pending& q) { return &q == &p; });
        entries_.erase(it);
        announce();
    } else {
        p.tries += 1;
        p.due = env_.clock->now() + delayAfter(p.tries);
    }
    if (waiter) waiter(std::move(result));
}

void Outbox::run() {
    if (!entries_.empty() || !problem_.empty()) announce();
    std::unique_lock lock(mutex_);
    for (;;) {
        // Submissions are written even when stopping: their records have left the engine.
        if (stop_ && incoming_.empty()) break;
        if (!incoming_.empty()) {
            auto batch = std::move(incoming_);
            incoming_.clear();
            lock.unlock();
            write(std::move(batch));
            lock.lock();
            continue;
        }
        wake_ = false;
        lock.unlock();
        // Reachability coming back makes everything due now.
        const bool online = reachable();
        const auto now = env_.clock->now();
        if (online && !wasReachable_) {
            for (auto& p : entries_) p.due = now;
        }
        wasReachable_ = online;
        // The oldest entry that is due; a first try goes out even offline, so that its
        // submitter hears the outcome it always heard.
        auto next = std::find_if(entries_.begin(), entries_.end(), [&](const Pending& p) {
            return p.due <= now && (p.tries == 0 || online);
        });
        if (next != entries_.end()) {
            attempt(*next);
            lock.lock();
            continue;
        }
        lock.lock();
        if (stop_ || !incoming_.empty() || wake_) continue;
        idle_ = true;
        idleCv_.notify_all();
        cv_.wait_for(lock, options_.poll, [&] { return stop_ || wake_ || !incoming_.empty(); });
        idle_ = false;
    }
    idle_ = true;
    idleCv_.notify_all();
}

}  // namespace kestrelvue::detail
