#include "support/TestDoubles.h"

#include <atomic>
#include <future>
#include <stdexcept>

namespace kestrelvue::test {

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

NotificationRecorder::NotificationRecorder(std::shared_ptr<NotificationCenter> center,
                                           std::vector<std::string> names)
    : center_(std::move(center)), names_(std::move(names)) {
    for (const std::string& name : names_) {
        center_->addObserver(this, name, [log = log_](const Notification& n) {
            log->add({n.name, n.object, n.userInfo, std::this_thread::get_id()});
        });
    }
}

NotificationRecorder::~NotificationRecorder() {
    center_->removeObserver(this);
}

}  // namespace kestrelvue::test
