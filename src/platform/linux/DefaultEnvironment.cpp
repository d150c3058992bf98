#include <kestrelvue/Environment.h>

namespace kestrelvue {

Environment Environment::makeDefault() {
    Environment env;
    env.clock = std::make_shared<platform::SystemClock>();
    env.ids = std::make_shared<platform::RandomIdGenerator>();
    env.notifications = std::shared_ptr<NotificationCenter>(&NotificationCenter::defaultCenter(),
                                                            [](NotificationCenter*) {});
    return env;
}

}  // namespace kestrelvue
