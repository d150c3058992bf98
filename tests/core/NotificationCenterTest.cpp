// The notification centre.

#include <gtest/gtest.h>
#include <kestrelvue/NotificationCenter.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/TestDoubles.h"

namespace kestrelvue {
namespace {

using test::endWaitsForARunningCall;

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
