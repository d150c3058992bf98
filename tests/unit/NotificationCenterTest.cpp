// The notification centre, and ending work by dropping its handle: completions and notification
// handlers alike.

#include <gtest/gtest.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/platform/AsyncRequest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace kestrelvue {
namespace {

using platform::AsyncRequest;

TEST(NotificationCenter, DeliversByNameAndSenderWithUserInfo) {
    auto center = NotificationCenter::make();
    int senderA = 0, senderB = 0, owner = 0;
    std::vector<std::string> got;
    center->addObserver(&owner, "n", [&](const Notification& n) {
        got.push_back("any:" + (n.userInfo ? *n.userInfo->at("k").asString() : "-"));
    });
    center->addObserver(
        &owner, "n", [&](const Notification&) { got.push_back("fromA"); }, &senderA);
    center->addObserver(&owner, "other", [&](const Notification&) { got.push_back("other"); });
    center->post("n", &senderA, Object{{"k", "v"}});
    center->post("n", &senderB);
    center->post("nothing");
    EXPECT_EQ(got, (std::vector<std::string>{"any:v", "fromA", "any:-"}));

    got.clear();
    center->removeObserver(&owner, "n");
    center->post("n", &senderA);
    center->post("other");
    EXPECT_EQ(got, (std::vector<std::string>{"other"}));
    // A handler that posts again: the inner post has targets of its own, the outer one goes on.
    center->addObserver(&owner, "outer", [&](const Notification&) { center->post("other"); });
    center->addObserver(&owner, "outer", [&](const Notification&) { got.push_back("outer"); });
    center->post("outer");
    EXPECT_EQ(got, (std::vector<std::string>{"other", "other", "outer"}));
    EXPECT_EQ(center->observerCount("other"), 1u);
    center->removeObserver(&owner);
    EXPECT_EQ(center->observerCount("other"), 0u);
}

TEST(NotificationCenter, TokensRemoveTheirObserverAndObserversAddedDuringAPostWaitForTheNext) {
    auto center = NotificationCenter::make();
    int calls = 0, late = 0;
    std::vector<ObserverToken> added;
    ObserverToken token = center->addObserver("n", [&](const Notification&) {
        ++calls;
        added.push_back(center->addObserver("n", [&](const Notification&) { ++late; }));
    });
    center->post("n");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(late, 0) << "an observer added by a handler is not part of the running post";
    token.reset();
    center->post("n");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(late, 1);
    added.clear();
    EXPECT_EQ(center->observerCount("n"), 0u);

    // A token that outlives its centre does nothing when it dies.
    ObserverToken orphan = NotificationCenter::make()->addObserver("n", [](const Notification&) {});
    orphan.reset();
}

TEST(NotificationCenter, ConcurrentPostsAddsAndRemovesAreSafe) {
    auto center = NotificationCenter::make();
    std::atomic<int> stable{0};
    int owner = 0;
    center->addObserver(&owner, "tick", [&](const Notification&) { ++stable; });
    constexpr int kPosters = 4, kPosts = 2000;
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    threads.reserve(kPosters + 1);
    for (int t = 0; t < kPosters; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kPosts; ++i) center->post("tick", nullptr, Object{{"i", i}});
        });
    }
    // Churn: observers come and go while the posts run, some removing themselves mid-post.
    threads.emplace_back([&] {
        int churner = 0;
        while (!done) {
            ObserverToken t = center->addObserver("tick", [](const Notification&) {});
            center->addObserver(&churner, "tick",
                                [&](const Notification&) { center->removeObserver(&churner); });
            center->removeObserver(&churner);
        }
    });
    for (int t = 0; t < kPosters; ++t) threads[t].join();
    done = true;
    threads.back().join();
    EXPECT_EQ(stable.load(), kPosters * kPosts);
}

/// Runs `call` on another thread until it is inside; then `end` (on a third thread) must not
/// return before `call` has: returns whether it waited.
bool endWaitsForARunningCall(const std::function<void(const std::function<void()>&)>& call,
                             const std::function<void()>& end) {
    std::promise<void> inside, release;
    std::atomic<bool> returned{false}, endedEarly{false};
    std::thread caller([&] {
        call([&] {
            inside.set_value();
            release.get_future().wait();
            returned = true;
        });
    });
    inside.get_future().wait();
    std::thread ender([&] {
        end();
        endedEarly = !returned;
    });
    // Time for `end` to return early if it does not wait; it cannot make a correct end fail.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release.set_value();
    caller.join();
    ender.join();
    return !endedEarly;
}

TEST(AsyncRequest, ADroppedHandleEndsItsCompletion) {
    int runs = 0;
    auto [handle, guarded] =
        AsyncRequest::guard(std::function<void(int)>([&](int n) { runs += n; }));
    guarded(1);
    EXPECT_TRUE(handle.finished());
    handle.cancel();
    guarded(1);  // a late reply reaches nobody
    EXPECT_EQ(runs, 1);

    auto [detached, kept] =
        AsyncRequest::guard(std::function<void(int)>([&](int n) { runs += n; }));
    detached.detach();
    kept(5);
    EXPECT_EQ(runs, 6);

    // A completion may end its own handle without waiting for itself.
    AsyncRequest self;
    auto [own, selfEnding] = AsyncRequest::guard(std::function<void()>([&] { self = {}; }));
    self = std::move(own);
    selfEnding();
    EXPECT_FALSE(self);
}

TEST(AsyncRequest, EndingWaitsForACompletionRunningOnAnotherThread) {
    std::function<void()> body;
    auto [handle, guarded] = AsyncRequest::guard(std::function<void()>([&] { body(); }));
    EXPECT_TRUE(endWaitsForARunningCall(
        [&, run = guarded](const std::function<void()>& b) {
            body = b;
            run();
        },
        [&, h = std::make_shared<AsyncRequest>(std::move(handle))] { h->cancel(); }));
}

TEST(NotificationCenter, RemovalWaitsForAHandlerRunningOnAnotherThread) {
    auto center = NotificationCenter::make();
    std::function<void()> body;
    ObserverToken token = center->addObserver("n", [&](const Notification&) { body(); });
    EXPECT_TRUE(endWaitsForARunningCall(
        [&](const std::function<void()>& b) {
            body = b;
            center->post("n");
        },
        [&] { token.reset(); }));
    center->post("n");  // removed: nothing runs (body would block for ever)
}

}  // namespace
}  // namespace kestrelvue
