// Ending work by dropping its handle.

#include <gtest/gtest.h>
#include <kestrelvue/platform/AsyncRequest.h>

#include <memory>

#include "support/TestDoubles.h"

namespace kestrelvue {
namespace {

using platform::AsyncRequest;
using test::endWaitsForARunningCall;

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

}  // namespace
}  // namespace kestrelvue
