#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace kestrelvue::test {

/// Runs `call` on another thread until it is inside; then `end` (on a third thread) must not
/// return before `call` has: returns whether it waited.
inline bool endWaitsForARunningCall(const std::function<void(const std::function<void()>&)>& call,
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

}  // namespace kestrelvue::test
