// Ending work by dropping its handle: completions and notification handlers alike.

#include <gtest/gtest.h>
#include <kestrelvue/NotificationCenter.h>
#include <kestrelvue/platform/AsyncRequest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace kestrelvue {
namespace {

using platform::AsyncRequest;

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
